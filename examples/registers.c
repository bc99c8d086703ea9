/* Reads and writes registers of one card. Everything runs on the main thread. */
#include "host.h"

#include <stddef.h>
#include <stdio.h>

static const char _usage_text[] =
    "Usage: fxm-registers [options] ID read ADDR\n"
    "       fxm-registers [options] ID write ADDR VALUE\n"
    "       fxm-registers [options] ID modify ADDR DATA MASK\n"
    "       fxm-registers [options] ID dump START END\n"
    "Accesses 32-bit registers of the card ID, which is a MAC such as 02:00:00:00:10:00. Addresses are\n"
    "multiples of 4 up to 0x3ffffc. modify changes the bits that are set in MASK. dump prints the registers\n"
    "from START up to, but not including, END.\n"
    "  --verify       read back after a write, and write again until the value is there\n" HOST_TOOL_OPTIONS
        HOST_EXIT_CODES;

#define ADDRESS_LAST 0x3ffffcu /* an address has 22 bits on the wire */
#define DUMP_STEP    256u      /* bytes */

enum { READ, WRITE, MODIFY, DUMP };
static const host_command_t _commands[] = {{"read", 1}, {"write", 2}, {"modify", 3}, {"dump", 2}, {NULL, 0}};
static const host_usage_t _usage = {"fxm-registers", _usage_text, FXM_FLAG_LIVECHECK | FXM_FLAG_VERIFY, _commands};

/* Reads a few words at a time, so that output appears steadily and Ctrl-C takes effect. */
static int _dump(const host_tool_t *tool, uint32_t start, uint32_t end)
{
    uint32_t words[DUMP_STEP / 4];
    int result = FXM_API_SUCCESS;

    while (start < end && result == FXM_API_SUCCESS && !host_stop_asked(0)) {
        uint64_t size = end - start < DUMP_STEP ? end - start : DUMP_STEP;
        result = fxm_dump_register(tool->id, start, start + (uint32_t)size, words, &size, tool->retry, tool->flags);
        /* A dump that fails half way has still delivered the words before the failure. */
        for (uint32_t i = 0; i < size / 4; i++) {
            if (i % 4 == 0)
                printf("0x%.6x:", start + 4 * i);
            printf(" %.8x%s", words[i], i % 4 == 3 || i + 1 == size / 4 ? "\n" : "");
        }
        start += (uint32_t)size;
    }
    if (result != FXM_API_SUCCESS || start == end)
        return host_tool_report(tool, "dump", result);
    fprintf(stderr, "Interrupted before register 0x%.6x.\n", start);
    return HOST_INTERRUPTED;
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
    if (number[0] % 4 != 0 || number[0] > ADDRESS_LAST) {
        fprintf(stderr, "Not a register address (a multiple of 4 up to 0x%x): %s\n", ADDRESS_LAST, tool.argv[0]);
        return HOST_USAGE;
    }
    if (tool.command == DUMP && (number[1] % 4 != 0 || number[1] <= number[0] || number[1] > ADDRESS_LAST + 4)) {
        fprintf(stderr, "Not an END for this START (a greater multiple of 4 up to 0x%x): %s\n", ADDRESS_LAST + 4,
                tool.argv[1]);
        return HOST_USAGE;
    }

    status = host_tool_start(&tool);
    if (status != HOST_DONE)
        return status;
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
    return host_tool_end(status);
}
