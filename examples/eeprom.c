/* Reads, writes, saves and restores the EEPROM of one card. Everything runs on the main thread. */
#include "host.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char _usage_text[] =
    "Usage: fxm-eeprom [options] ID read ADDR\n"
    "       fxm-eeprom [options] ID write ADDR VALUE\n"
    "       fxm-eeprom [options] ID dump FILE\n"
    "       fxm-eeprom [options] ID restore FILE\n"
    "       fxm-eeprom [options] ID unlock\n"
    "Accesses the EEPROM of the card ID, which is a MAC such as 02:00:00:00:10:00. An EEPROM has 2048 bytes;\n"
    "addresses are multiples of 4 up to 0x7fc. A FILE holds all words in order, each with its least\n"
    "significant byte first. Every write is verified. unlock releases a lock that another manager has left\n"
    "behind. Ctrl-C stops dump and restore between two words, so no lock remains on the card.\n"
    "  --force        clear the lock of another manager that does not release it\n" HOST_TOOL_OPTIONS HOST_EXIT_CODES;

#define EEPROM_SIZE 0x800u
#define STEP_WORDS  4u /* words that a dump reads between two checks for Ctrl-C */
#define BAR_WIDTH   40u

enum { READ, WRITE, DUMP, RESTORE, UNLOCK };
static const host_command_t _commands[] = {{"read", 1},    {"write", 2},  {"dump", 1},
                                           {"restore", 1}, {"unlock", 0}, {NULL, 0}};
static const host_usage_t _usage = {"fxm-eeprom", _usage_text, FXM_FLAG_LIVECHECK | FXM_FLAG_FORCELOCK, _commands};

/* A whole EEPROM takes about a minute. The bar is for a terminal only; it would clutter a log file. */
static void _progress(const char *what, uint32_t done, uint32_t total)
{
    char bar[BAR_WIDTH + 1] = "";

    if (!isatty(STDERR_FILENO))
        return;
    memset(bar, '#', (size_t)done * BAR_WIDTH / total);
    fprintf(stderr, "\r%-9s [%-*s] %3u%% %4u/%u bytes%s", what, (int)BAR_WIDTH, bar, done * 100 / total, done, total,
            done == total ? "\n" : "");
}

/* Leaves the unfinished bar on its line, so that a message can follow. */
static void _progress_stopped(void)
{
    if (isatty(STDERR_FILENO))
        fputc('\n', stderr);
}

/* False, so that it ends the function that calls it. */
static bool _file_failed(const char *doing, const char *path)
{
    fprintf(stderr, "Cannot %s %s: %s\n", doing, path, strerror(errno));
    return false;
}

static int _interrupted(const char *what, uint32_t done)
{
    _progress_stopped();
    fprintf(stderr, "Interrupted: %s %u of %u bytes.\n", what, done, EEPROM_SIZE);
    return HOST_INTERRUPTED;
}

/* The file of a dump. It is written under a temporary name and renamed when it is complete, so a dump that fails leaves
 * no file behind and an existing file as it was. A device or a pipe cannot be renamed and is written directly. */
static struct {
    FILE *stream;
    char path[PATH_MAX];      /* empty for a device or a pipe */
    char temporary[PATH_MAX]; /* beside it */
} _file;

/* Opens the file before the card is read: a minute later would be late for "cannot create". */
static bool _create_file(const char *path)
{
    struct stat status;
    const bool exists = stat(path, &status) == 0;
    const mode_t mask = umask(0);
    int fd = -1;

    umask(mask);
    if (exists && !S_ISREG(status.st_mode)) {
        _file.stream = fopen(path, "wb");
        return _file.stream != NULL || _file_failed("open", path);
    }
    /* The target of a symbolic link is replaced, not the link. */
    errno = 0;
    if (exists ? realpath(path, _file.path) == NULL || access(path, W_OK) != 0
               : snprintf(_file.path, sizeof _file.path, "%s", path) >= (int)sizeof _file.path)
        return _file_failed("write", path);
    if (snprintf(_file.temporary, sizeof _file.temporary, "%s.XXXXXX", _file.path) < (int)sizeof _file.temporary)
        fd = mkstemp(_file.temporary);
    if (fd < 0)
        return _file_failed("create a file beside", path);
    fchmod(fd, exists ? status.st_mode & 0777 : 0666 & ~mask);
    _file.stream = fdopen(fd, "wb");
    return _file.stream != NULL;
}

/* Ends a dump with its exit code: writes `bytes` and keeps the file after HOST_DONE, and discards it otherwise. */
static int _close_file(const char *path, const uint8_t *bytes, int status)
{
    bool good = status != HOST_DONE || fwrite(bytes, 1, EEPROM_SIZE, _file.stream) == EEPROM_SIZE;

    good = fclose(_file.stream) == 0 && good;
    if (good && status == HOST_DONE && _file.path[0] != '\0')
        good = rename(_file.temporary, _file.path) == 0;
    if (!good) {
        _file_failed("write", path);
        status = HOST_FAILED;
    }
    if (status != HOST_DONE && _file.path[0] != '\0')
        unlink(_file.temporary);
    return status;
}

static int _dump(const host_tool_t *tool, uint8_t *bytes)
{
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
    if (addr < EEPROM_SIZE)
        return _interrupted("no file was written after reading", addr);
    _progress("Reading", addr, EEPROM_SIZE);
    return HOST_DONE;
}

/* Reads and checks the file before the card is touched. */
static bool _read_file(const char *path, uint8_t *bytes)
{
    FILE *file = fopen(path, "rb");

    if (file == NULL)
        return _file_failed("open", path);
    size_t size = fread(bytes, 1, EEPROM_SIZE, file);
    bool whole = size == EEPROM_SIZE && fgetc(file) == EOF;
    fclose(file);
    if (!whole)
        fprintf(stderr, "%s is not an EEPROM dump: a dump has exactly %u bytes.\n", path, EEPROM_SIZE);
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
            fprintf(stderr, "All words before 0x%.3x have been restored; this one could not be written.\n", addr);
            return host_tool_report(tool, "restore", result);
        }
    }
    if (addr < EEPROM_SIZE)
        return _interrupted("the card has received", addr);
    _progress("Restoring", addr, EEPROM_SIZE);
    return HOST_DONE;
}

int main(int argc, char **argv)
{
    host_tool_t tool;
    int status = HOST_USAGE;
    uint32_t addr = 0;
    uint32_t data = 0;
    uint8_t bytes[EEPROM_SIZE] = {0};

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

    if (tool.command == DUMP && !_create_file(tool.argv[0]))
        return HOST_FAILED;

    status = host_tool_start(&tool);
    if (status != HOST_DONE)
        return tool.command == DUMP ? _close_file(tool.argv[0], bytes, status) : status;
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
        status = _close_file(tool.argv[0], bytes, _dump(&tool, bytes));
        break;
    case RESTORE:
        status = _restore(&tool, bytes);
        break;
    default:
        status = host_tool_report(&tool, "unlock", fxm_unlock_eeprom(tool.id));
        break;
    }
    return host_tool_end(status);
}
