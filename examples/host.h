/* What every host of the library needs: a thread for the manager, its start and stop, results in words, and for the
 * command line tools the common options. Called on the main thread of the examples. Copy it into a host of your own. */
#ifndef HOST_H
#define HOST_H

#include "fxm.h"
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* The installation directory of a host that is not told another one. */
#define HOST_DIR "/opt/fxm"

/* Starts the manager on a thread of its own and waits until it is up; frames do not reach the tables before
 * fxm_start_manager. From here on Ctrl-C and SIGTERM are kept for host_stop_asked, so call it before you make threads.
 * On failure says on stderr what happened and what to do, and returns false: nothing is left running. */
bool host_start(const char *dir);

/* Waits at most `ms` milliseconds for Ctrl-C or SIGTERM; true from the first of them on. */
bool host_stop_asked(uint32_t ms);

/* False once the manager has stopped by itself, after an internal error. */
bool host_running(void);

/* Asks for the stop and waits until it is complete; says so on stderr if the manager had failed. Returns its result. */
int host_stop(void);

/* "FXM_API_ETIMEDOUT (no answer in the time allowed)" and so on. */
const char *host_result(int result);

/* The common part of a card's record, whichever class the card is of: "FXSV", "FXIO", or null when no table has it. */
const char *host_find_card(uint64_t id, fxm_card_data_t *card);

/* "P0M0,P1M0": the connected channels, or "none". `text` has room for HOST_CHANNELS characters. */
#define HOST_CHANNELS 24
const char *host_channels(const fxm_card_data_t *card, char *text);

/* A card id as 0x020000001000, 020000001000 or 02:00:00:00:10:00. */
bool host_parse_id(const char *text, uint64_t *id);

/* A 32-bit number, decimal or with 0x hexadecimal. */
bool host_parse_u32(const char *text, uint32_t *value);

/* ------------------------------------------------------------------------- tools that work on one card and end */

/* Ends of a tool. */
enum { HOST_DONE = 0, HOST_FAILED = 1, HOST_USAGE = 2 };

/* The usage of the options that all tools have. */
#define HOST_TOOL_OPTIONS                                                                                              \
    "  --dir DIR      installation directory with conf/fxm.conf (default " HOST_DIR ")\n"                              \
    "  --livecheck    look for a channel on which the card answers first\n"                                            \
    "  --retries N    attempts after the first (default: as configured; 10 beside --interval)\n"                       \
    "  --interval MS  wait for each answer (default: as configured; 100 beside --retries)\n"                           \
    "  --wait S       wait at most S seconds for the card to announce itself (default 10)\n"

typedef struct host_command_t {
    const char *word;
    int argc; /* words that must follow it */
} host_command_t;

typedef struct host_usage_t {
    const char *text;
    uint32_t flags;                 /* FXM_FLAG_ bits that the tool has options for */
    const host_command_t *commands; /* ended by a null word */
} host_usage_t;

typedef struct host_tool_t {
    const char *dir;                /* --dir */
    uint32_t wait;                  /* --wait, seconds until the card must have announced itself */
    uint32_t flags;                 /* FXM_FLAG_ bits of --livecheck, --verify, --force */
    const fxm_retry_param_t *retry; /* --retries, --interval; null when neither was given */
    uint64_t id;                    /* the card */
    int command;                    /* index in the tool's commands */
    char **argv;                    /* words behind the command */
} host_tool_t;

/* Reads the options, the card and the command. Returns false with *status set when the tool must end at once: the usage
 * was asked for, or an argument was refused. */
bool host_tool_arguments(int argc, char **argv, const host_usage_t *usage, host_tool_t *tool, int *status);

/* Starts the manager and waits until a channel of the card is up. After true the caller ends with host_stop. */
bool host_tool_start(const host_tool_t *tool);

/* Says what failed, on which card, and what to do; returns HOST_DONE for success without a word. */
int host_tool_report(const host_tool_t *tool, const char *what, int result);

#endif /* HOST_H */
