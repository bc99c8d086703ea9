// Who has made a request, for jobs and for the audit.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fxm
{

enum class role : int { none, view, operate, admin };
const char *word(role value);
role role_of(std::string_view name); // none for any other word than those of the others

struct caller {
    uint32_t uid = 0;
    int32_t pid = 0;
    std::string role;
    std::string user; // of the fleet; empty: somebody on this machine
};

// For the log: "uid=1000 pid=812 role=operate", "user=alice role=operate".
std::string words(const caller &who);

} // namespace fxm
