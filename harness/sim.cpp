#include "sim.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <sstream>
#include <vector>

#include "wait.h"

void sim_t::start(const std::string &options)
{
    std::istringstream words(options);
    std::vector<std::string> args = {FXMSIM};
    args.insert(args.end(), std::istream_iterator<std::string>(words), {});
    std::vector<char *> argv(args.size() + 1);
    std::transform(args.begin(), args.end(), argv.begin(), [](std::string &arg) { return arg.data(); });

    signal(SIGPIPE, SIG_IGN); // that it has died shows when it does not answer
    int to[2];
    int back[2];
    if (pipe2(to, O_CLOEXEC) != 0 || pipe2(back, O_CLOEXEC) != 0)
        return harness_failed(std::string("no pipe: ") + strerror(errno));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, back[1], STDOUT_FILENO);
    const int err = posix_spawn(&id, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(to[0]);
    close(back[1]);
    in = to[1];
    out = back[0];
    text.clear();
    if (err != 0)
        return harness_failed(args[0] + ": " + strerror(err));
    const std::string answer = read_line("(start)");
    if (!answer.starts_with("ok ready"))
        harness_failed("fxmsim " + options + ": " + answer);
}

// The next line that it prints; empty when it prints none.
std::string sim_t::read_line(const std::string &command)
{
    size_t end = 0;
    bool open = true;
    const auto whole_line = [&] {
        pollfd waiting = {out, POLLIN, 0};
        char buffer[4096];
        while ((end = text.find('\n')) == std::string::npos && open && poll(&waiting, 1, 100) > 0) {
            const ssize_t got = read(out, buffer, sizeof(buffer));
            open = got > 0;
            text.append(buffer, open ? static_cast<size_t>(got) : 0);
        }
        return end != std::string::npos || !open;
    };
    if (!poll_until(whole_line) || !open) {
        harness_failed("fxmsim does not answer: " + command);
        return "";
    }
    std::string line = text.substr(0, end);
    text.erase(0, end + 1);
    return line;
}

std::string sim_t::command(const std::string &line)
{
    if (dprintf(in, "%s\n", line.c_str()) < 0)
        harness_failed(std::string("fxmsim takes no command: ") + strerror(errno));
    const std::string answer = read_line(line);
    if (answer != "ok" && !answer.starts_with("ok "))
        harness_failed(line + "\n" + answer);
    return answer.size() > 3 ? answer.substr(3) : "";
}

void sim_t::stop()
{
    if (id <= 0)
        return;
    close(in); // it ends with its input
    int status = 0;
    if (!poll_until([&] { return waitpid(id, &status, WNOHANG) == id; })) {
        harness_failed("fxmsim does not end");
        kill(id, SIGKILL);
        waitpid(id, &status, 0);
    }
    close(out);
    id = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        harness_failed("fxmsim has ended with status " + std::to_string(status));
}
