/* Reads, writes, saves and restores the EEPROM of one card from the command line. Everything runs on
 * the main thread. */
#include "host.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static const char _usage_text[] =
    "Usage: fxm-eeprom [options] ID read ADDR\n"
    "       fxm-eeprom [options] ID write ADDR VALUE\n"
    "       fxm-eeprom [options] ID dump FILE\n"
    "       fxm-eeprom [options] ID restore FILE\n"
    "       fxm-eeprom [options] ID unlock\n"
    "ID is the card, as 0x020000001000 or 02:00:00:00:10:00. An EEPROM has 2048 bytes; addresses are\n"
    "multiples of 4 up to 0x7fc, and a file holds the words from address 0 on, least significant byte\n"
    "first. Everything written is verified. unlock releases a lock that another manager has left\n"
    "standing. Ctrl-C ends dump and restore between two words, so that no lock stays on the card.\n"
    "  --force        clear the lock of another manager who does not give it back\n" HOST_TOOL_OPTIONS;

#define EEPROM_SIZE 0x800u
#define STEP_WORDS  4u /* what a dump reads between two looks at Ctrl-C */
#define BAR_WIDTH   40u

enum { READ, WRITE, DUMP, RESTORE, UNLOCK };
static const host_command_t _commands[] = {{"read", 1},    {"write", 2},  {"dump", 1},
                                           {"restore", 1}, {"unlock", 0}, {NULL, 0}};
static const host_usage_t _usage = {_usage_text, FXM_FLAG_LIVECHECK | FXM_FLAG_FORCELOCK, _commands};

/* A whole EEPROM takes a minute: a person who watches sees a bar, a log file does not. */
static void _progress(const char *what, uint32_t done, uint32_t total)
{
    char bar[BAR_WIDTH + 1] = "";

    if (!isatty(STDERR_FILENO))
        return;
    memset(bar, '#', (size_t)done * BAR_WIDTH / total);
    fprintf(stderr, "\r%-9s [%-*s] %3u%% %4u/%u bytes%s", what, (int)BAR_WIDTH, bar, done * 100 / total, done, total,
            done == total ? "\n" : "");
}

/* The broken end of a bar is left standing above the message. */
static void _progress_stopped(void)
{
    if (isatty(STDERR_FILENO))
        fputc('\n', stderr);
}

static int _file_failed(const char *doing, const char *path)
{
    fprintf(stderr, "Cannot %s %s: %s\n", doing, path, strerror(errno));
    return HOST_FAILED;
}

static int _interrupted(const char *what, uint32_t done)
{
    fprintf(stderr, "Interrupted: %s %u of %u bytes.\n", what, done, EEPROM_SIZE);
    return HOST_FAILED;
}

/* The file comes last and whole: a dump that fails leaves none, and an older one stays as it is. */
static int _dump(const host_tool_t *tool, const char *path)
{
    uint8_t bytes[EEPROM_SIZE];
    uint32_t addr = 0;

    for (; addr < EEPROM_SIZE && !host_stop_asked(0); addr += 4 * STEP_WORDS) {
        uint32_t words[STEP_WORDS];
        uint64_t size = sizeof words;
        _progress("Reading", addr, EEPROM_SIZE);
        int result = fxm_dump_eeprom(tool->id, addr, addr + 4 * STEP_WORDS, words, &size, tool->retry, tool->flags);
        if (result != FXM_API_SUCCESS) {
            _progress_stopped();
            return host_tool_report(tool, "dump", result);
        }
        for (uint32_t i = 0; i < 4 * STEP_WORDS; i++)
            bytes[addr + i] = (uint8_t)(words[i / 4] >> 8 * (i % 4));
    }
    if (addr < EEPROM_SIZE) {
        _progress_stopped();
        return _interrupted("no file was written after reading", addr);
    }
    _progress("Reading", addr, EEPROM_SIZE);
    FILE *file = fopen(path, "wb");
    if (file == NULL)
        return _file_failed("create", path);
    size_t written = fwrite(bytes, 1, EEPROM_SIZE, file);
    return fclose(file) != 0 || written != EEPROM_SIZE ? _file_failed("write", path) : HOST_DONE;
}

/* Read and checked before the card is touched. */
static bool _read_file(const char *path, uint8_t *bytes)
{
    FILE *file = fopen(path, "rb");

    if (file == NULL) {
        _file_failed("open", path);
        return false;
    }
    size_t size = fread(bytes, 1, EEPROM_SIZE, file);
    bool whole = size == EEPROM_SIZE && fgetc(file) == EOF;
    fclose(file);
    if (!whole)
        fprintf(stderr, "%s is no dump of an EEPROM: it must have %u bytes.\n", path, EEPROM_SIZE);
    return whole;
}

static int _restore(const host_tool_t *tool, const uint8_t *bytes)
{
    uint32_t addr = 0;

    for (; addr < EEPROM_SIZE && !host_stop_asked(0); addr += 4) {
        uint32_t word = 0;
        for (uint32_t i = 0; i < 4; i++)
            word |= (uint32_t)bytes[addr + i] << 8 * i;
        _progress("Restoring", addr, EEPROM_SIZE);
        int result = fxm_write_eeprom(tool->id, addr, word, tool->retry, tool->flags | FXM_FLAG_VERIFY);
        if (result != FXM_API_SUCCESS) {
            _progress_stopped();
            fprintf(stderr, "The word at 0x%.3x could not be written; those before it are.\n", addr);
            return host_tool_report(tool, "restore", result);
        }
    }
    if (addr < EEPROM_SIZE) {
        _progress_stopped();
        return _interrupted("the card has got", addr);
    }
    _progress("Restoring", addr, EEPROM_SIZE);
    return HOST_DONE;
}

int main(int argc, char **argv)
{
    host_tool_t tool;
    int status = HOST_USAGE;
    uint32_t addr = 0;
    uint32_t data = 0;
    uint8_t bytes[EEPROM_SIZE];

    if (!host_tool_arguments(argc, argv, &_usage, &tool, &status))
        return status;
    if (tool.command <= WRITE && (!host_parse_u32(tool.argv[0], &addr) || addr % 4 != 0 || addr >= EEPROM_SIZE)) {
        fprintf(stderr, "Not an address of the EEPROM (a multiple of 4 up to 0x7fc): %s\n", tool.argv[0]);
        return HOST_USAGE;
    }
    if (tool.command == WRITE && !host_parse_u32(tool.argv[1], &data)) {
        fprintf(stderr, "Not a 32-bit number: %s\n", tool.argv[1]);
        return HOST_USAGE;
    }
    if (tool.command == RESTORE && !_read_file(tool.argv[0], bytes))
        return HOST_FAILED;

    if (!host_tool_start(&tool))
        return HOST_FAILED;
    switch (tool.command) {
    case READ:
        status = host_tool_report(&tool, "read", fxm_read_eeprom(tool.id, addr, &data, tool.retry, tool.flags));
        if (status == HOST_DONE)
            printf("0x%.8x\n", data);
        break;
    case WRITE:
        status = host_tool_report(&tool, "write",
                                  fxm_write_eeprom(tool.id, addr, data, tool.retry, tool.flags | FXM_FLAG_VERIFY));
        break;
    case DUMP:
        status = _dump(&tool, tool.argv[0]);
        break;
    case RESTORE:
        status = _restore(&tool, bytes);
        break;
    default:
        status = host_tool_report(&tool, "unlock", fxm_unlock_eeprom(tool.id));
        break;
    }
    return host_stop() == FXM_API_SUCCESS ? status : HOST_FAILED;
}
