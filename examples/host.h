/* What every host of the library needs: a thread for the manager, its start and stop, and results in words. Call these
 * functions on the main thread. Copy the module into your own host. */
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
 * If the start fails, says so on stderr and returns false; nothing is left running. */
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

/* Parses a 32-bit number: decimal, hexadecimal with 0x, or octal with 0. */
bool host_parse_u32(const char *text, uint32_t *value);

#endif /* HOST_H */
