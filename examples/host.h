/* What every host of the library needs: a thread for the manager, its start and stop, results in words, and the common
 * options of the command line tools. Call these functions on the main thread. Copy the module into your own host. */
#ifndef HOST_H
#define HOST_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "fxm.h"

/* The default installation directory. */
#define HOST_DIR "/opt/fxm"

/* Starts the manager on its own thread and waits until it is up. Frames reach the tables only after fxm_start_manager.
 * From here on Ctrl-C and SIGTERM are kept for host_stop_asked, so call this before you create threads.
 * If the start fails, prints the cause and what to do on stderr and returns false; nothing is left running. Warns on
 * stderr about a configured port that had to be left out. */
bool host_start(const char *dir);

/* Waits at most `ms` milliseconds for Ctrl-C or SIGTERM. Once one has come, returns true at once, every time. */
bool host_stop_asked(uint32_t ms);

/* False once the manager has stopped by itself after an internal error. */
bool host_running(void);

/* Stops the manager and waits until the stop is complete. Returns the manager's result; a failure is on stderr too. */
int host_stop(void);

/* "FXM_API_ETIMEDOUT (no answer in the time allowed)" and so on. */
const char *host_result(int result);

/* Copies the common part of a card's record, whatever its class. Returns "FXSV" or "FXIO", or null if the card is
 * unknown. */
const char *host_find_card(uint64_t id, fxm_card_data_t *card);

/* Lists the connected channels in `text`, such as "P0M0,P1M0", or "none". `text` has room for HOST_CHANNELS
 * characters. */
#define HOST_CHANNELS 24
const char *host_channels(const fxm_card_data_t *card, char *text);

/* Parses a card id in any usual spelling of a MAC: 02:00:00:00:10:00, 02-00-00-00-10-00, 0200.0000.1000,
 * 020000001000 or 0x020000001000. */
bool host_parse_id(const char *text, uint64_t *id);

/* Parses a 32-bit number: decimal, hexadecimal with 0x, or octal with 0. */
bool host_parse_u32(const char *text, uint32_t *value);

/* ------------------------------------------------------------------------- tools that work on one card and end */

/* Exit codes. */
enum {
    HOST_DONE = 0,
    HOST_FAILED = 1,
    HOST_USAGE = 2,        /* an argument was refused, and nothing was done */
    HOST_NOT_STARTED = 3,  /* the manager did not start */
    HOST_INTERRUPTED = 130 /* Ctrl-C or SIGTERM before the end */
};
#define HOST_EXIT_CODES                                                                                                \
    "Exit code: 0 done, 1 failed, 2 wrong usage, 3 fxm did not start, 130 interrupted by Ctrl-C or SIGTERM.\n"

/* The options that all tools share, for their usage texts. */
#define HOST_TOOL_OPTIONS                                                                                              \
    "  --dir DIR      installation directory with conf/fxm.conf (default " HOST_DIR ")\n"                              \
    "  --livecheck    first look for a channel on which the card answers\n"                                            \
    "  --retries N    attempts after the first (default: as configured; 10 with --interval)\n"                         \
    "  --interval MS  how long to wait for each answer (default: as configured; 100 with --retries)\n"                 \
    "  --wait S       how long to wait for the card to announce itself, in seconds (default 10)\n"                     \
    "  --version      print the version\n"                                                                             \
    "  -h, --help     print this text\n"

typedef struct host_command_t {
    const char *word;
    int argc; /* number of words that must follow */
} host_command_t;

typedef struct host_usage_t {
    const char *program; /* its name */
    const char *text;
    uint32_t flags;                 /* FXM_FLAG_ bits that the tool has options for */
    const host_command_t *commands; /* ends with a null word */
} host_usage_t;

typedef struct host_tool_t {
    const char *dir;                /* --dir */
    uint32_t wait;                  /* --wait, seconds until the card must have announced itself */
    uint32_t flags;                 /* FXM_FLAG_ bits of --livecheck, --verify, --force */
    const fxm_retry_param_t *retry; /* --retries, --interval; null if neither was given */
    uint64_t id;                    /* the card */
    int command;                    /* index in the tool's commands */
    char **argv;                    /* the words after the command */
} host_tool_t;

/* Prints "PROGRAM 1.0.0" on stdout. */
void host_print_version(const char *program);

/* Reads the options, the card and the command. Returns false and sets *status, the exit code, if the tool must end at
 * once: help or version was requested, or an argument was refused. */
bool host_tool_arguments(int argc, char **argv, const host_usage_t *usage, host_tool_t *tool, int *status);

/* Starts the manager and waits until a channel of the card is up. Replaces the odd MAC of a 40G card in tool->id by the
 * card's id. After HOST_DONE the caller ends with host_tool_end; after any other exit code nothing is running. */
int host_tool_start(host_tool_t *tool);

/* Returns HOST_DONE for FXM_API_SUCCESS. Otherwise prints what failed, on which card, and what to do, and returns
 * HOST_FAILED. */
int host_tool_report(const host_tool_t *tool, const char *what, int result);

/* Stops the manager. Returns the exit code of the tool: `status`, or HOST_FAILED if the manager failed or the output
 * could not be written. */
int host_tool_end(int status);

#endif /* HOST_H */
