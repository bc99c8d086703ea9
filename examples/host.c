/* What every host of the library needs; see host.h. Everything runs on the main thread, except _run. */
#include "host.h"

#include <errno.h>
#include <getopt.h>
#include <inttypes.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "explain.h"

#define WAIT_DEFAULT     10u /* seconds; cards announce themselves every second */
#define RETRIES_DEFAULT  10u
#define INTERVAL_DEFAULT 100u

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
        explain_ports(dir);
        return true;
    }
    pthread_join(_host.thread, NULL);
    explain_start(dir, _host.result);
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

bool host_parse_id(const char *text, uint64_t *id)
{
    const char separator = text[strcspn(text, ":-.")];
    size_t group = 12; /* digits between two separators */
    uint64_t value = 0;

    if (separator != '\0')
        group = separator == '.' ? 4 : 2;
    else if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text += 2;
    if (strlen(text) != 12 + 12 / group - 1)
        return false;
    for (size_t i = 0; text[i] != '\0'; i++) {
        const char digit[2] = {text[i], '\0'};
        if (i % (group + 1) == group) {
            if (text[i] != separator)
                return false;
            continue;
        }
        if (strspn(digit, "0123456789abcdefABCDEF") == 0)
            return false;
        value = value << 4 | strtoul(digit, NULL, 16);
    }
    *id = value;
    return true;
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

/* ------------------------------------------------------------------------- tools that work on one card and end */

void host_print_version(const char *program) { printf("%s %s\n", program, HOST_VERSION); }

static bool _refuse(int *status, const host_usage_t *usage, const char *what, const char *on)
{
    fprintf(stderr, "%s: %s: %s\nSee \"%s --help\".\n", usage->program, what, on, usage->program);
    *status = HOST_USAGE;
    return false;
}

bool host_tool_arguments(int argc, char **argv, const host_usage_t *usage, host_tool_t *tool, int *status)
{
    static const struct option options[] = {
        {"dir", required_argument, NULL, 'd'},     {"wait", required_argument, NULL, 'w'},
        {"retries", required_argument, NULL, 'r'}, {"interval", required_argument, NULL, 'i'},
        {"livecheck", no_argument, NULL, 'l'},     {"verify", no_argument, NULL, 'v'},
        {"force", no_argument, NULL, 'f'},         {"help", no_argument, NULL, 'h'},
        {"version", no_argument, NULL, 'V'},       {NULL, 0, NULL, 0},
    };
    static fxm_retry_param_t retry;

    *tool = (host_tool_t){.dir = HOST_DIR, .wait = WAIT_DEFAULT};
    retry = (fxm_retry_param_t){RETRIES_DEFAULT, INTERVAL_DEFAULT};
    for (int option; (option = getopt_long(argc, argv, "h", options, NULL)) != -1;) {
        uint32_t flag = 0;
        uint32_t *number = NULL;
        switch (option) {
        case 'd':
            tool->dir = optarg;
            break;
        case 'w':
            number = &tool->wait;
            break;
        case 'r':
            number = &retry.retry_cnt;
            tool->retry = &retry;
            break;
        case 'i':
            number = &retry.retry_int;
            tool->retry = &retry;
            break;
        case 'l':
            flag = FXM_FLAG_LIVECHECK;
            break;
        case 'v':
            flag = FXM_FLAG_VERIFY;
            break;
        case 'f':
            flag = FXM_FLAG_FORCELOCK;
            break;
        case 'h':
            fputs(usage->text, stdout);
            *status = HOST_DONE;
            return false;
        case 'V':
            host_print_version(usage->program);
            *status = HOST_DONE;
            return false;
        default: /* getopt_long has printed what is wrong */
            fprintf(stderr, "See \"%s --help\".\n", usage->program);
            *status = HOST_USAGE;
            return false;
        }
        if (number != NULL && !host_parse_u32(optarg, number))
            return _refuse(status, usage, "not a 32-bit number", optarg);
        if ((flag & ~usage->flags) != 0)
            return _refuse(status, usage, "this tool has no such option", argv[optind - 1]);
        tool->flags |= flag;
    }
    if (retry.retry_int == 0)
        return _refuse(status, usage, "an interval is at least 1 ms", "--interval 0");
    if (argc - optind < 2)
        return _refuse(status, usage, "missing", argc == optind ? "the card's id and a command" : "a command");
    if (!host_parse_id(argv[optind], &tool->id))
        return _refuse(status, usage, "not a card id, such as 02:00:00:00:10:00", argv[optind]);
    const char *word = argv[optind + 1];
    while (usage->commands[tool->command].word != NULL && strcmp(usage->commands[tool->command].word, word) != 0)
        tool->command++;
    if (usage->commands[tool->command].word == NULL)
        return _refuse(status, usage, "unknown command", word);
    if (argc - optind - 2 != usage->commands[tool->command].argc)
        return _refuse(status, usage, "wrong number of arguments", word);
    tool->argv = argv + optind + 2;
    return true;
}

/* True once a channel of the card is up. The odd MAC of a 40G card is accepted for its id, the even one. */
static bool _is_reachable(host_tool_t *tool)
{
    fxm_card_data_t card;
    char channels[HOST_CHANNELS];
    uint64_t id = tool->id;

    if (host_find_card(id, &card) == NULL) {
        id &= ~1ull;
        if (host_find_card(id, &card) == NULL || card.fcd_type == 0)
            return false;
    }
    if (strcmp(host_channels(&card, channels), "none") == 0)
        return false;
    if (id != tool->id)
        fprintf(stderr, "0x%.12" PRIx64 " is the second MAC of the 40G card 0x%.12" PRIx64 ".\n", tool->id, id);
    tool->id = id;
    return true;
}

int host_tool_start(host_tool_t *tool)
{
    if (!host_start(tool->dir))
        return HOST_NOT_STARTED;
    fxm_start_manager();
    bool reachable = false;
    for (uint64_t waited = 0; waited <= tool->wait * 100ull && !reachable && host_running(); waited++) {
        if (host_stop_asked(10)) {
            host_stop();
            fprintf(stderr, "Interrupted before anything was sent to card 0x%.12" PRIx64 ".\n", tool->id);
            return HOST_INTERRUPTED;
        }
        reachable = _is_reachable(tool);
    }
    if (reachable)
        return HOST_DONE;
    if (host_running())
        fprintf(stderr,
                "Card 0x%.12" PRIx64 " has not announced itself within %u seconds. List the cards with fxm-monitor, or"
                " wait longer with --wait.\n",
                tool->id, tool->wait);
    host_stop();
    return HOST_FAILED;
}

int host_tool_report(const host_tool_t *tool, const char *what, int result)
{
    const char *advice = "";

    if (result == FXM_API_SUCCESS)
        return HOST_DONE;
    if (result == FXM_API_ENOLINK)
        advice = " Its channels are down. --livecheck looks for a channel on which it answers.";
    else if (result == FXM_API_ETIMEDOUT)
        advice = " Try again with more --retries or a longer --interval.";
    else if (result == FXM_API_EBUSY)
        advice = " Try again later, or take the lock with --force.";
    else if (result == FXM_API_EPROTO)
        advice = " The log has the reason.";
    fprintf(stderr, "%s on card 0x%.12" PRIx64 " failed: %s.%s\n", what, tool->id, host_result(result), advice);
    return HOST_FAILED;
}

int host_tool_end(int status)
{
    const bool stopped = host_stop() == FXM_API_SUCCESS;

    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "Cannot write to standard output: %s.\n", strerror(errno));
        return HOST_FAILED;
    }
    return stopped ? status : HOST_FAILED;
}
