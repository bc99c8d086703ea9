// Who has made a request, for jobs and for the audit.
#pragma once

#include <cstdint>
#include <string>

namespace fxm
{

struct caller {
    uint32_t uid = 0;
    int32_t pid = 0;
    std::string role;
};

} // namespace fxm
