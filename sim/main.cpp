// The simulator's only thread: a loop that waits for frames, commands and timers. Frames come first, because the far
// side measures the time to an answer.
#include <getopt.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "announce.h"
#include "command.h"
#include "frames.h"
#include "receive.h"
#include "text.h"
#include "timers.h"
#include "wire.h"

enum { DONE = 0, FAILED = 1, USAGE = 2 };

static const char _usage_text[] =
    "Usage: fxmsim --port0 IF [--port1 IF] [--scenario FILE] [--period MS] [--ethertype N]\n"
    "Simulates cards at the far end of one or two cables. Reads commands from standard input.\n"
    "  --port0 IF, --port1 IF   the interfaces at the cards' end of the cables\n"
    "  --scenario FILE          commands to run first\n"
    "  --period MS              how often each card announces itself on each of its channels (1000)\n"
    "  --ethertype N            the EtherType of the fabric (0x88B6)\n"
    "  --version                print the version\n"
    "  -h, --help               print this text\n"
    "Exit code: 0 done, 1 an interface or the scenario failed, 2 wrong usage.\n";

struct options_t {
    const char *port[PORTS] = {};
    const char *scenario = nullptr;
    u64 period = 1000;
};

static bool _refuse(const std::string &what)
{
    std::fprintf(stderr, "fxmsim: %s\nSee \"fxmsim --help\".\n", what.c_str());
    return false;
}

// False, with the exit code in `status`, if the program must end at once.
static bool _options(int argc, char **argv, options_t &options, int &status)
{
    enum { PORT0, PORT1, SCENARIO, PERIOD, ETHERTYPE, VERSION };
    static const option known[] = {
        {"port0", required_argument, nullptr, PORT0},
        {"port1", required_argument, nullptr, PORT1},
        {"scenario", required_argument, nullptr, SCENARIO},
        {"period", required_argument, nullptr, PERIOD},
        {"ethertype", required_argument, nullptr, ETHERTYPE},
        {"version", no_argument, nullptr, VERSION},
        {"help", no_argument, nullptr, 'h'},
        {},
    };
    status = USAGE;
    for (int c = 0; (c = getopt_long(argc, argv, "h", known, nullptr)) >= 0;) {
        u64 number = 0;
        switch (c) {
        case PORT0:
        case PORT1:
            options.port[c - PORT0] = optarg;
            break;
        case SCENARIO:
            options.scenario = optarg;
            break;
        case PERIOD:
            if (!text_number(optarg, UINT32_MAX, options.period) || options.period == 0)
                return _refuse(std::string("--period ") + optarg + ": expected milliseconds, at least 1");
            break;
        case ETHERTYPE:
            if (!text_number(optarg, UINT16_MAX, number))
                return _refuse(std::string("--ethertype ") + optarg + ": expected a 16-bit number");
            frame_ether_type = static_cast<u16>(number);
            break;
        case VERSION:
            std::puts("fxmsim " FXMSIM_VERSION);
            status = DONE;
            return false;
        case 'h':
            std::fputs(_usage_text, stdout);
            status = DONE;
            return false;
        default: // getopt_long has printed what is wrong
            std::fputs("See \"fxmsim --help\".\n", stderr);
            return false;
        }
    }
    if (optind < argc)
        return _refuse(std::string("unknown argument: ") + argv[optind]);
    if (!options.port[0])
        return _refuse("--port0 is missing");
    return true;
}

static volatile sig_atomic_t _stopped;

// The signals are blocked outside ppoll, so that one that arrives just before the wait still ends it.
static sigset_t _catch_signals()
{
    struct sigaction action {
    };
    action.sa_handler = [](int) { _stopped = 1; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    sigset_t stop;
    sigset_t before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, &before);
    return before;
}

static bool _say(std::string answer)
{
    // An error repeats a word of the command, which may hold any bytes, and must still be one line.
    std::replace_if(
        answer.begin(), answer.end(), [](char c) { return c >= 0 && c < ' '; }, '?');
    return std::fputs((answer + "\n").c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

// Runs the commands that standard input holds now. False at its end, on quit, and if an answer cannot be written.
static bool _take_input(std::string &pending)
{
    char chunk[4096];
    const ssize_t got = read(STDIN_FILENO, chunk, sizeof chunk);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
        return true;
    if (got > 0)
        pending.append(chunk, static_cast<size_t>(got));
    else if (!pending.empty())
        pending += '\n'; // the last line may have no line end

    size_t begin = 0;
    for (size_t end = 0; !command_quit && (end = pending.find('\n', begin)) != pending.npos; begin = end + 1)
        if (!_say(command_run(std::string_view(pending).substr(begin, end - begin))))
            return false;
    pending.erase(0, begin);
    // A line without an end must not grow for ever. Cut off here, it is still too long and is refused.
    if (pending.size() > COMMAND_MAX + 1)
        pending.resize(COMMAND_MAX + 1);
    return got > 0 && !command_quit;
}

static timespec _until(u64 due)
{
    const u64 now = time_now();
    const u64 ns = due > now ? due - now : 0;
    return {static_cast<time_t>(ns / (1000 * NS_PER_MS)), static_cast<long>(ns % (1000 * NS_PER_MS))};
}

static void _loop(const sigset_t &while_waiting)
{
    std::string pending;
    // poll ignores a descriptor of -1.
    pollfd ready[] = {{wire_fd(0), POLLIN, 0}, {wire_fd(1), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};

    while (!_stopped) {
        const u64 due = std::min(announce_due(), timers_due());
        const timespec wait = _until(due);
        if (ppoll(ready, std::size(ready), due == NEVER ? nullptr : &wait, &while_waiting) < 0)
            continue; // a signal
        for (unsigned port = 0; port < PORTS; port++)
            if (ready[port].revents)
                wire_receive(port, receive_frame);
        timers_run(time_now());
        announce_run(time_now());
        if (ready[PORTS].revents && !_take_input(pending))
            return;
    }
}

int main(int argc, char **argv)
{
    options_t options;
    int status = DONE;
    std::string why;

    if (!_options(argc, argv, options, status))
        return status;
    for (unsigned port = 0; port < PORTS; port++)
        if (options.port[port] && !wire_open(port, options.port[port], why)) {
            std::fprintf(stderr, "fxmsim: %s\n", why.c_str());
            return FAILED;
        }
    announce_begin(static_cast<u32>(options.period));
    const sigset_t while_waiting = _catch_signals();
    if (options.scenario && !command_scenario(options.scenario, why)) {
        std::fprintf(stderr, "fxmsim: %s\n", why.c_str());
        return FAILED;
    }
    if (!command_quit && _say("ok ready, " + std::to_string(cards.size()) + " cards"))
        _loop(while_waiting);
    return DONE;
}
