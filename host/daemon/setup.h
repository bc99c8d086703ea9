// What an fxmd and a room make of their configuration when they start, and when they read it again.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "daemon/config.h"
#include "daemon/http.h"
#include "daemon/log.h"
#include "daemon/roles.h"

namespace fxm
{

std::string random_word(); // that names a run
role_settings role_settings_of(const config &settings);
log_level level_of(const config &settings);
http_server::options web_of(const config &settings, const roles &who);

// What a reload has applied, and what waits for a restart.
struct reload_result {
    std::vector<std::string> applied;
    std::vector<std::string> needs_restart;
};

// Reads the file again. What needs a restart stays in the result as it is in `before`, so that the configuration in force
// tells the truth. Throws config_error.
std::shared_ptr<const config> read_again(const std::string &file, config_of what, const config &before,
                                         reload_result *told);
// The end of a reload, when everything is applied.
void log_reload(const reload_result &told, logger *log);

} // namespace fxm
