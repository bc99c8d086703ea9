#include "ctl/program.h"

#include <fmt/format.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ctl/client.h"

namespace fxm
{

// A file in memory: whatever a program reads or writes, neither side waits for the other.
class memory_file
{
  public:
    explicit memory_file(std::string_view content = {}) : fd_(memfd_create("fxmctl", MFD_CLOEXEC))
    {
        if (fd_ < 0)
            throw ctl_error(EXIT_FAILED, fmt::format("no memory for the output of a program: {}", strerror(errno)));
        while (!content.empty()) {
            const ssize_t written = write(fd_, content.data(), content.size());
            if (written < 0) {
                const int fault = errno;
                close(fd_);
                throw ctl_error(EXIT_FAILED, fmt::format("no memory for the input of a program: {}", strerror(fault)));
            }
            content.remove_prefix(static_cast<size_t>(written));
        }
        lseek(fd_, 0, SEEK_SET);
    }
    ~memory_file() { close(fd_); }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    int fd() const { return fd_; }
    std::string content() const
    {
        std::string all;
        char part[4096];
        for (ssize_t size = 0; (size = pread(fd_, part, sizeof(part), static_cast<off_t>(all.size()))) > 0;)
            all.append(part, static_cast<size_t>(size));
        return all;
    }

  private:
    const int fd_;
};

program_result run_program(const std::vector<std::string> &words, const char *package, std::string_view input)
{
    const memory_file in(input), out, errors;
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, in.fd(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, out.fd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, errors.fd(), STDERR_FILENO);
    pid_t pid = 0;
    const int fault = posix_spawnp(&pid, words[0].c_str(), &files, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (fault != 0)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot run the program {}: {}", words[0], strerror(fault)),
                        fault == ENOENT ? fmt::format("install the package {}", package) : "");
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out.content(), errors.content()};
}

} // namespace fxm
