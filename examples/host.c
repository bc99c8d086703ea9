/* What every host of the library needs; see host.h. Everything runs on the main thread, except _run. */
#include "host.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static struct {
    pthread_t thread;
    char *dir;
    int result;
    atomic_bool running;
    bool stop_asked;
} _host;

/* The manager's thread. */
static void *_run(void *unused)
{
    (void)unused;
    _host.result = fxm_init_manager(_host.dir, FXM_LOG_CONFIGURED);
    atomic_store(&_host.running, false);
    return NULL;
}

static sigset_t _stop_signals(void)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

const char *host_result(int result)
{
    switch (result) {
    case FXM_API_SUCCESS:
        return "FXM_API_SUCCESS (done)";
    case FXM_API_EINVAL:
        return "FXM_API_EINVAL (an argument failed its check)";
    case FXM_API_ERANGE:
        return "FXM_API_ERANGE (a limit was exceeded)";
    case FXM_API_ENOENT:
        return "FXM_API_ENOENT (no such card, port or entry)";
    case FXM_API_ENOLINK:
        return "FXM_API_ENOLINK (the card is not reachable now)";
    case FXM_API_ENOMEM:
        return "FXM_API_ENOMEM (out of memory)";
    case FXM_API_EPROTO:
        return "FXM_API_EPROTO (a system service or the card refused)";
    case FXM_API_ETIMEDOUT:
        return "FXM_API_ETIMEDOUT (no answer in the time allowed)";
    case FXM_API_EBUSY:
        return "FXM_API_EBUSY (held by somebody else)";
    case FXM_API_ENOSYS:
        return "FXM_API_ENOSYS (the library is not up)";
    default:
        return "an unknown result";
    }
}

bool host_start(const char *dir)
{
    uint64_t *list = NULL;
    uint32_t count = 0;

    /* The library's threads inherit the mask, so the signals stay pending until host_stop_asked fetches them. No
     * handler is needed, and a signal never cuts short an EEPROM write. */
    const sigset_t signals = _stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, NULL);
    free(_host.dir);
    _host.dir = strdup(dir);
    atomic_store(&_host.running, true);
    if (_host.dir == NULL || pthread_create(&_host.thread, NULL, _run, NULL) != 0) {
        fprintf(stderr, "Cannot start a thread for fxm: out of memory.\n");
        atomic_store(&_host.running, false);
        return false;
    }
    /* Every function returns FXM_API_ENOSYS until start-up is complete, and for good if it has failed, so the loop
     * watches the thread too. A request to stop waits the few milliseconds until the manager is up: the caller's first
     * host_stop_asked sees it. */
    const struct timespec pause = {0, 10 * 1000000L};
    int result;
    do {
        nanosleep(&pause, NULL);
        result = fxm_get_fxsvids(&list, &count);
    } while (result == FXM_API_ENOSYS && host_running());
    if (result != FXM_API_ENOSYS) {
        fxm_free_idlist(list);
        return true;
    }
    pthread_join(_host.thread, NULL);
    fprintf(
        stderr,
        "fxm did not start in %s: %s\nIts log has the reason; %s/conf/fxm_log4c_win.properties says where that is. An "
        "interface must be up, and raw sockets need root or CAP_NET_RAW.\n",
        dir, host_result(_host.result), dir);
    return false;
}

bool host_stop_asked(uint32_t ms)
{
    const sigset_t signals = _stop_signals();
    const struct timespec time = {ms / 1000, ms % 1000 * 1000000L};
    if (!_host.stop_asked)
        _host.stop_asked = sigtimedwait(&signals, NULL, &time) > 0;
    return _host.stop_asked;
}

bool host_running(void) { return atomic_load(&_host.running); }

int host_stop(void)
{
    fxm_fini_manager();
    pthread_join(_host.thread, NULL);
    if (_host.result != FXM_API_SUCCESS)
        fprintf(stderr, "fxm stopped by itself: %s. A FATAL line in its log names the reason.\n",
                host_result(_host.result));
    return _host.result;
}

const char *host_find_card(uint64_t id, fxm_card_data_t *card)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;

    if (fxm_get_fxsv(id, &fxsv) == FXM_API_SUCCESS) {
        *card = fxsv.fsv_card;
        return "FXSV";
    }
    if (fxm_get_fxio(id, &fxio) == FXM_API_SUCCESS) {
        *card = fxio.fio_card;
        return "FXIO";
    }
    return NULL;
}

const char *host_channels(const fxm_card_data_t *card, char *text)
{
    size_t length = 0;

    snprintf(text, HOST_CHANNELS, "none");
    for (int p = 0; p < 2; p++)
        for (int m = 0; m < 2; m++)
            if (card->fcd_state[p][m] == 1)
                length += (size_t)snprintf(text + length, HOST_CHANNELS - length, "%sP%dM%d", length ? "," : "", p, m);
    return text;
}

bool host_parse_u32(const char *text, uint32_t *value)
{
    char *end = NULL;

    if (text[0] < '0' || text[0] > '9')
        return false;
    errno = 0;
    unsigned long long number = strtoull(text, &end, 0);
    *value = (uint32_t)number;
    return errno == 0 && *end == '\0' && number <= UINT32_MAX;
}
