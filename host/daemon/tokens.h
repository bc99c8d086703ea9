// The file of tokens for the loopback address: lines such as "view TOKEN".
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace fxm
{

struct token_line {
    std::string role; // view, operate or admin
    std::string token;
};

// Throws std::system_error if the file cannot be opened, and std::runtime_error with FILE:LINE if its content or its
// mode is wrong.
std::vector<token_line> read_tokens(const std::filesystem::path &file);

} // namespace fxm
