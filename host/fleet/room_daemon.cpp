#include "fleet/room_daemon.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <utility>

#include "daemon/api.h"
#include "fxm.h"

namespace fxm::fleet
{

// Requests to sites that wait at the same time, of all sites and of one.
constexpr size_t ASKED = 128;
constexpr size_t ASKED_OF_ONE = 64;
constexpr size_t ASKED_QUEUED = 256;

room_daemon::room_daemon(std::string config_file, const std::shared_ptr<const config> &settings)
    : config_file_(std::move(config_file)), log_(level_of(*settings)),
      operations_(ASKED, ASKED_OF_ONE, ASKED_QUEUED,
                  [this](const std::string &what) { log_.error("a request failed: {}", what); })
{
    all_.boot = random_word();
    all_.started_ms = clock_ms();
    all_.log = &log_;
    all_.operations = &operations_;
    all_.reload = [this] { return reload(); };
    all_.set_settings(settings);
    all_.set_roles(std::make_shared<const roles>(role_settings_of(*settings), &log_));
    server_ = std::make_unique<http_server>(
        web_of(*settings, *all_.who()),
        [this](const http_request &request, const http_server::responder &answer) { handle(request, answer); });
    all_.server = server_.get();
    room_ = std::make_unique<room>(member_options{settings->fleet_urls, settings->fleet_site, settings->fleet_ca,
                                                  settings->fleet_certificate, role_of(settings->fleet_allow)},
                                   &all_);
}

room_daemon::~room_daemon() { stop(); }

void room_daemon::start()
{
    server_->start();
    room_->start();
    running_ = true;
    const auto settings = all_.settings();
    log_.info("fxmd {} is the room {} and serves {}", FXM_VERSION, settings->fleet_site, settings->socket);
}

void room_daemon::stop()
{
    if (!std::exchange(running_, false))
        return;
    room_->stop();
    operations_.close();
    server_->stop();
    log_.info("fxmd has stopped");
}

reload_result room_daemon::reload()
{
    std::lock_guard guard(reload_mutex_);
    reload_result result;
    auto next = read_again(config_file_, config_of::room, *all_.settings(), &result);
    auto judge = std::make_shared<const roles>(role_settings_of(*next), &log_);
    log_.set_level(level_of(*next));
    all_.set_roles(std::move(judge));
    all_.set_settings(std::move(next));
    log_reload(result, &log_);
    return result;
}

void room_daemon::keep_alive() const
{
    constexpr int64_t STUCK_MS = 10000;
    if (std::abs(clock_ms() - server_->turned_ms()) < STUCK_MS && room_->turns())
        sd_notify(0, "WATCHDOG=1");
}

void room_daemon::notify_status() const
{
    size_t live = 0;
    const auto sites = room_->sites().sites();
    for (const site_numbers &site : sites)
        live += site.state == site_state::live ? 1 : 0;
    sd_notifyf(0, "STATUS=%s, %zu of %zu sites are live", room_->status().link.connected ? "connected" : "no server",
               live, sites.size());
}

void room_daemon::handle(const http_request &request, const http_server::responder &answer)
{
    handle_room_request(all_, *room_, request, answer);
}

} // namespace fxm::fleet
