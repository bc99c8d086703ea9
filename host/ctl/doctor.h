// Looks for what keeps fxmd or the fabric from working, without fxmd's help.
#pragma once

#include <string>

namespace fxm
{

struct doctor_options {
    std::string config_file;
    std::string socket;
    bool json = false;
    bool colour = false;
};

// Prints a line for each check: what was looked at, what was found, and what to type. 0 if all is well, 1 otherwise.
int run_doctor(const doctor_options &how);

} // namespace fxm
