// What the routes of the API work with. main owns everything here.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "daemon/config.h"
#include "daemon/counters.h"
#include "daemon/executor.h"
#include "daemon/history.h"
#include "daemon/http.h"
#include "daemon/jobs.h"
#include "daemon/library.h"
#include "daemon/log.h"
#include "daemon/model.h"
#include "daemon/ring.h"
#include "daemon/roles.h"
#include "daemon/setup.h"
#include "daemon/status.h"
#include "daemon/timing.h"
#include "fleet/status.h"

namespace fxm
{

struct services {
    std::string boot; // names this run of fxmd
    int64_t started_ms = 0;
    logger *log = nullptr;
    ring *events = nullptr;
    model *cards = nullptr;
    library *fabric = nullptr;
    executor *operations = nullptr;
    job_board *jobs = nullptr;
    history *past = nullptr; // null: switched off
    http_server *server = nullptr;
    register_timing *timing = nullptr;
    lasting_counters *totals = nullptr;
    port_watch *ports = nullptr;
    std::function<reload_result()> reload;    // throws config_error
    std::function<fleet::site_status()> site; // empty: of no fleet

    // The configuration in force; replaced whole by a reload.
    std::shared_ptr<const config> settings() const
    {
        std::lock_guard guard(mutex_);
        return settings_;
    }
    void set_settings(std::shared_ptr<const config> settings)
    {
        std::lock_guard guard(mutex_);
        settings_ = std::move(settings);
    }
    std::shared_ptr<const roles> who() const
    {
        std::lock_guard guard(mutex_);
        return roles_;
    }
    void set_roles(std::shared_ptr<const roles> value)
    {
        std::lock_guard guard(mutex_);
        roles_ = std::move(value);
    }

    std::atomic<uint64_t> gaps{0}; // that clients have been told

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<const config> settings_;
    std::shared_ptr<const roles> roles_;
};

} // namespace fxm
