// An operations room as a program: the API and the page over what the room knows.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "daemon/executor.h"
#include "daemon/http.h"
#include "daemon/services.h"
#include "fleet/room.h"

namespace fxm::fleet
{

class room_daemon
{
  public:
    // Throws what keeps it from running.
    room_daemon(std::string config_file, const std::shared_ptr<const config> &settings);
    ~room_daemon();
    room_daemon(const room_daemon &) = delete;
    room_daemon &operator=(const room_daemon &) = delete;

    void start();
    void stop();
    reload_result reload();
    void keep_alive() const; // tells the service manager that it lives, if it does
    void notify_status() const;
    void drop_visitors() {} // nobody claims a port of a room
    logger &log() { return log_; }
    bool library_failed() const { return false; }

  private:
    void handle(const http_request &request, const http_server::responder &answer);

    const std::string config_file_;
    logger log_;
    services all_;
    executor operations_;
    std::unique_ptr<room> room_;
    std::unique_ptr<http_server> server_;
    std::mutex reload_mutex_;
    bool running_ = false;
};

} // namespace fxm::fleet
