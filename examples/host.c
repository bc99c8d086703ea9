/* What every host of the library needs; see host.h. Main thread, except _run, which is the manager's own. */
#include "host.h"

#include <errno.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

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

/* fxm_init_manager has one result for all that goes wrong, and a first start goes wrong for few reasons: name them. */
static void _explain_start(int result)
{
    char path[4096];
    fprintf(stderr, "fxm did not start in %s: %s\n", _host.dir, host_result(result));
    snprintf(path, sizeof path, "%s/conf/fxm_log4c_win.properties", _host.dir);
    if (result == FXM_API_EINVAL)
        fprintf(stderr, "%s is not a directory: give the installation directory with --dir.\n", _host.dir);
    else if (result == FXM_API_ENOENT)
        fprintf(stderr, "None of its ports exists: compare ether_port in %s/conf/fxm.conf with `ip link`.\n",
                _host.dir);
    else if (result == FXM_API_EPROTO && access(path, R_OK) != 0)
        fprintf(stderr, "Cannot read %s: %s. Copy the sample of the same name there.\n", path, strerror(errno));
    else if (result == FXM_API_EPROTO && geteuid() != 0)
        fprintf(stderr,
                "Raw sockets need root or CAP_NET_RAW: run it with sudo. If it has that right, the log tells.\n");
    else if (result == FXM_API_EPROTO)
        fprintf(stderr,
                "Its log names the reason: a bad line of fxm.conf, or a port that cannot be opened. The log files are"
                " those of %s.\n",
                path);
}

bool host_start(const char *dir)
{
    uint64_t *list = NULL;
    uint32_t count = 0;

    /* Blocked before the library makes its threads, which inherit it, the signals stay pending until host_stop_asked
     * fetches them: no handler is needed, and a word on its way to an EEPROM is not torn off. */
    const sigset_t signals = _stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, NULL);
    free(_host.dir);
    _host.dir = strdup(dir);
    atomic_store(&_host.running, true);
    if (_host.dir == NULL || pthread_create(&_host.thread, NULL, _run, NULL) != 0) {
        fprintf(stderr, "No memory for the manager's thread.\n");
        atomic_store(&_host.running, false);
        return false;
    }
    /* Every function answers FXM_API_ENOSYS until start-up is complete, and for ever when it has failed: so look at the
     * thread too. */
    int result;
    do {
        host_stop_asked(10);
        result = fxm_get_fxsvids(&list, &count);
    } while (result == FXM_API_ENOSYS && host_running());
    if (result != FXM_API_ENOSYS) {
        fxm_free_idlist(list);
        return true;
    }
    pthread_join(_host.thread, NULL);
    _explain_start(_host.result);
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
        fprintf(stderr, "fxm stopped with %s. Its log has a FATAL line with the reason.\n", host_result(_host.result));
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
    char digits[13] = "";
    size_t length = 0;

    if (strncmp(text, "0x", 2) == 0)
        text += 2;
    for (size_t i = 0; text[i] != '\0'; i++) {
        if (text[i] == ':' && i % 3 == 2)
            continue;
        if (length == 12 || strchr("0123456789abcdefABCDEF", text[i]) == NULL)
            return false;
        digits[length++] = text[i];
    }
    *id = strtoull(digits, NULL, 16);
    return length == 12;
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

static bool _refuse(int *status, const host_usage_t *usage, const char *what, const char *on)
{
    fprintf(stderr, "%s: %s\n\n%s", what, on, usage->text);
    *status = HOST_USAGE;
    return false;
}

bool host_tool_arguments(int argc, char **argv, const host_usage_t *usage, host_tool_t *tool, int *status)
{
    static const struct option options[] = {
        {"dir", required_argument, NULL, 'd'},
        {"wait", required_argument, NULL, 'w'},
        {"retries", required_argument, NULL, 'r'},
        {"interval", required_argument, NULL, 'i'},
        {"livecheck", no_argument, NULL, 'l'},
        {"verify", no_argument, NULL, 'v'},
        {"force", no_argument, NULL, 'f'},
        {"help", no_argument, NULL, 'h'},
        {NULL, 0, NULL, 0},
    };
    static fxm_retry_param_t retry;

    *tool = (host_tool_t){.dir = HOST_DIR, .wait = WAIT_DEFAULT};
    retry = (fxm_retry_param_t){RETRIES_DEFAULT, INTERVAL_DEFAULT};
    for (int option; (option = getopt_long(argc, argv, "", options, NULL)) != -1;) {
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
        default: /* getopt_long has said what is wrong */
            fputs(usage->text, stderr);
            *status = HOST_USAGE;
            return false;
        }
        if (number != NULL && !host_parse_u32(optarg, number))
            return _refuse(status, usage, "Not a number", optarg);
        if ((flag & ~usage->flags) != 0)
            return _refuse(status, usage, "This tool has no such option", argv[optind - 1]);
        tool->flags |= flag;
    }
    if (retry.retry_int == 0)
        return _refuse(status, usage, "An interval is 1 ms or more", "--interval 0");
    if (argc - optind < 2)
        return _refuse(status, usage, "Missing", argc == optind ? "the card's id and a command" : "a command");
    if (!host_parse_id(argv[optind], &tool->id))
        return _refuse(status, usage, "Not a card id (0x020000001000 or 02:00:00:00:10:00)", argv[optind]);
    const char *word = argv[optind + 1];
    while (usage->commands[tool->command].word != NULL && strcmp(usage->commands[tool->command].word, word) != 0)
        tool->command++;
    if (usage->commands[tool->command].word == NULL)
        return _refuse(status, usage, "Unknown command", word);
    if (argc - optind - 2 != usage->commands[tool->command].argc)
        return _refuse(status, usage, "Wrong number of arguments for", word);
    tool->argv = argv + optind + 2;
    return true;
}

bool host_tool_start(const host_tool_t *tool)
{
    fxm_card_data_t card;
    char channels[HOST_CHANNELS];

    if (!host_start(tool->dir))
        return false;
    fxm_start_manager();
    for (uint64_t waited = 0; waited <= tool->wait * 100ull && host_running() && !host_stop_asked(10); waited++)
        if (host_find_card(tool->id, &card) != NULL && strcmp(host_channels(&card, channels), "none") != 0)
            return true;
    if (host_running() && !host_stop_asked(0))
        fprintf(stderr,
                "Card 0x%.12llx has not announced itself in %u seconds. See what is there with fxm-monitor, or wait "
                "longer with --wait.\n",
                (unsigned long long)tool->id, tool->wait);
    host_stop();
    return false;
}

int host_tool_report(const host_tool_t *tool, const char *what, int result)
{
    const char *advice = "";

    if (result == FXM_API_SUCCESS)
        return HOST_DONE;
    if (result == FXM_API_ENOLINK)
        advice = " Its channels are down: --livecheck looks for one on which it answers.";
    else if (result == FXM_API_ETIMEDOUT)
        advice = " Try again with more --retries or a longer --interval.";
    else if (result == FXM_API_EBUSY)
        advice = " Try again later, or take the lock with --force.";
    fprintf(stderr, "%s on card 0x%.12llx failed: %s.%s\n", what, (unsigned long long)tool->id, host_result(result),
            advice);
    return HOST_FAILED;
}
