#include "daemon/tokens.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace fxm
{

constexpr size_t SHORTEST_TOKEN = 16;

std::vector<token_line> read_tokens(const std::filesystem::path &file)
{
    struct stat status {
    };
    errno = 0;
    std::ifstream in(file);
    if (!in || stat(file.c_str(), &status) != 0)
        throw std::system_error(errno, std::generic_category(), fmt::format("cannot read {}", file.string()));
    if (!S_ISREG(status.st_mode))
        throw std::runtime_error(fmt::format("{} is not a file", file.string()));
    if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0)
        throw std::runtime_error(fmt::format("everybody may read or write {0}: chmod 640 {0}", file.string()));
    std::vector<token_line> lines;
    size_t number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        std::istringstream words(line);
        token_line entry;
        std::string rest;
        words >> entry.role >> entry.token >> rest;
        if (entry.role.empty() || entry.role.starts_with('#'))
            continue;
        const bool known = entry.role == "view" || entry.role == "operate" || entry.role == "admin";
        if (!known || entry.token.size() < SHORTEST_TOKEN || !rest.empty())
            throw std::runtime_error(
                fmt::format("{}:{}: expected view, operate or admin, and a token of {} characters or more",
                            file.string(), number, SHORTEST_TOKEN));
        lines.push_back(std::move(entry));
    }
    if (lines.empty())
        throw std::runtime_error(
            fmt::format("{} holds no token; write a line such as: view $(openssl rand -hex 16)", file.string()));
    return lines;
}

} // namespace fxm
