#include "daemon/setup.h"

#include <fmt/format.h>
#include <sys/random.h>
#include <systemd/sd-daemon.h>

namespace fxm
{

std::string random_word()
{
    uint32_t value = 0;
    if (getrandom(&value, sizeof(value), 0) != sizeof(value))
        value = static_cast<uint32_t>(clock_ms());
    return fmt::format("{:08x}", value);
}

role_settings role_settings_of(const config &settings)
{
    return {settings.group_view, settings.group_operate, settings.group_admin, settings.token_file};
}

log_level level_of(const config &settings)
{
    for (const log_level level : {log_level::error, log_level::warning, log_level::debug}) {
        if (settings.log_level == word(level))
            return level;
    }
    return log_level::info;
}

// The socket that the service manager has opened, or -1.
static int handed_socket()
{
    for (int i = 0; i < sd_listen_fds(1); ++i) {
        if (sd_is_socket_unix(SD_LISTEN_FDS_START + i, SOCK_STREAM, 1, nullptr, 0) > 0)
            return SD_LISTEN_FDS_START + i;
    }
    return -1;
}

http_server::options web_of(const config &settings, const roles &who)
{
    http_server::options web;
    web.socket_path = settings.socket;
    web.socket_group = who.group_of(role::operate);
    web.listen = settings.listen;
    web.max_clients = settings.max_clients;
    web.socket_fd = handed_socket();
    return web;
}

std::shared_ptr<const config> read_again(const std::string &file, config_of what, const config &before,
                                         reload_result *told)
{
    const config next = load_config(file, what);
    for (const changed_key &key : changed_keys(before, next))
        (key.reloadable ? told->applied : told->needs_restart).push_back(key.name);
    return std::make_shared<const config>(reloaded(before, next));
}

void log_reload(const reload_result &told, logger *log)
{
    for (const std::string &key : told.needs_restart)
        log->warning("a restart of fxmd is needed to change {}", key);
    log->info("configuration read again, {} keys applied", told.applied.size());
}

} // namespace fxm
