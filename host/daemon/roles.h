// Who may do what. The names of groups are looked up once; a request is judged without any look-up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon/http.h"
#include "daemon/log.h"

namespace fxm
{

struct role_settings {
    std::string group_view, group_operate, group_admin;
    std::string token_file; // lines "ROLE TOKEN"; empty: no tokens
};

class roles
{
  public:
    // Throws std::runtime_error if the token file is wrong. A group that does not exist is a warning.
    roles(const role_settings &settings, logger *log);

    role of(const http_request &request) const;

    // What somebody without `needed` is told to do.
    std::string hint(role needed, bool local) const;

    std::optional<uint32_t> group_of(role value) const;

  private:
    struct group {
        std::string name;
        std::optional<uint32_t> gid;
    };
    group groups_[4]; // by role
    std::vector<std::pair<std::string, role>> tokens_;
    uint32_t own_uid_;
};

} // namespace fxm
