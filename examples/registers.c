/* Reads and writes registers of one card from the command line. Everything runs on the main thread. */
#include "host.h"

#include <stddef.h>
#include <stdio.h>

static const char _usage_text[] =
    "Usage: fxm-registers [options] ID read ADDR\n"
    "       fxm-registers [options] ID write ADDR VALUE\n"
    "       fxm-registers [options] ID modify ADDR DATA MASK\n"
    "       fxm-registers [options] ID dump START END\n"
    "ID is the card, as 0x020000001000 or 02:00:00:00:10:00. Registers have 32 bits, addresses are\n"
    "multiples of 4, END is the first address that is not dumped. modify changes the bits of MASK.\n"
    "  --verify       read back what was written, and write again until it is there\n" HOST_TOOL_OPTIONS;

#define DUMP_STEP 256u /* bytes */

enum { READ, WRITE, MODIFY, DUMP };
static const host_command_t _commands[] = {{"read", 1}, {"write", 2}, {"modify", 3}, {"dump", 2}, {NULL, 0}};
static const host_usage_t _usage = {_usage_text, FXM_FLAG_LIVECHECK | FXM_FLAG_VERIFY, _commands};

/* A few words at a time, so that the output flows and Ctrl-C ends it. */
static int _dump(const host_tool_t *tool, uint32_t start, uint32_t end)
{
    uint32_t words[DUMP_STEP / 4];
    int result = FXM_API_SUCCESS;

    while (start < end && result == FXM_API_SUCCESS && !host_stop_asked(0)) {
        uint64_t size = end - start < DUMP_STEP ? end - start : DUMP_STEP;
        result = fxm_dump_register(tool->id, start, start + (uint32_t)size, words, &size, tool->retry, tool->flags);
        /* A dump that failed half way has read the words before the failure: they are worth showing. */
        for (uint32_t i = 0; i < size / 4; i++) {
            if (i % 4 == 0)
                printf("0x%.6x:", start + 4 * i);
            printf(" %.8x%s", words[i], i % 4 == 3 || i + 1 == size / 4 ? "\n" : "");
        }
        start += (uint32_t)size;
    }
    return start < end && result == FXM_API_SUCCESS ? HOST_FAILED : host_tool_report(tool, "dump", result);
}

int main(int argc, char **argv)
{
    host_tool_t tool;
    int status = HOST_USAGE;
    uint32_t number[3] = {0};
    uint32_t data = 0;

    if (!host_tool_arguments(argc, argv, &_usage, &tool, &status))
        return status;
    for (int i = 0; i < _commands[tool.command].argc; i++)
        if (!host_parse_u32(tool.argv[i], &number[i])) {
            fprintf(stderr, "Not a 32-bit number: %s\n", tool.argv[i]);
            return HOST_USAGE;
        }
    if (number[0] % 4 != 0) {
        fprintf(stderr, "The address %s is no multiple of 4.\n", tool.argv[0]);
        return HOST_USAGE;
    }
    if (tool.command == DUMP && (number[1] % 4 != 0 || number[1] <= number[0])) {
        fprintf(stderr, "The END %s must be a multiple of 4 above START.\n", tool.argv[1]);
        return HOST_USAGE;
    }

    if (!host_tool_start(&tool))
        return HOST_FAILED;
    switch (tool.command) {
    case READ:
        status = host_tool_report(&tool, "read", fxm_read_register(tool.id, number[0], &data, tool.retry, tool.flags));
        if (status == HOST_DONE)
            printf("0x%.8x\n", data);
        break;
    case WRITE:
        status =
            host_tool_report(&tool, "write", fxm_write_register(tool.id, number[0], number[1], tool.retry, tool.flags));
        break;
    case MODIFY:
        status = host_tool_report(
            &tool, "modify", fxm_modify_register(tool.id, number[0], number[1], number[2], tool.retry, tool.flags));
        break;
    default:
        status = _dump(&tool, number[0], number[1]);
        break;
    }
    return host_stop() == FXM_API_SUCCESS ? status : HOST_FAILED;
}
