// Runs other programs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fxm
{

struct program_result {
    int status = 0; // its exit code, or 128 and the signal that ended it
    std::string output;
    std::string errors;
};

// Runs words[0] with the other words, no shell between, and waits for its end. Throws if it is not there; `package` has it.
program_result run_program(const std::vector<std::string> &words, const char *package, std::string_view input = {});

} // namespace fxm
