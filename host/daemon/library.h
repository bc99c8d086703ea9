// The library in fxmd: starts it, lets it report into the model, and starts it again, with growing pauses, when it has
// stopped by itself.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "daemon/log.h"
#include "daemon/model.h"
#include "daemon/ring.h"

namespace fxm
{

enum class library_state { starting, running, restarting, stopping };
const char *word(library_state state);

struct library_status {
    library_state state = library_state::starting;
    uint32_t restarts = 0;
    std::optional<int> last_result; // of the last run that ended by itself
    std::string reason;             // why it is not running, for people
    int64_t next_start_ms = 0;      // 0: no start is planned
};

class library
{
  public:
    // `dir` holds conf/. `prepare` is called before each start; it claims the ports and throws what keeps it from that.
    library(std::string dir, model *cards, ring *events, logger *log, std::function<void()> prepare);
    ~library();
    library(const library &) = delete;
    library &operator=(const library &) = delete;

    // Starts it and waits until it is up. Throws std::runtime_error if the first start fails; nothing runs then.
    void start();
    void stop(); // returns when it has stopped

    library_status status() const;

    // The level of the library's log until its next start; FXM_LOG_ codes. At start it is WARN, because at INFO every call
    // writes two lines. Returns an FXM_API_ code.
    static int set_log_level(int level);

    // Makes the library write the report of its state to `file`, that of its log properties; the last report is gone.
    // Returns an FXM_API_ code. Two reports at once are one after the other.
    int write_report(bool verbose, const std::string &file);

    static constexpr auto FIRST_PAUSE = std::chrono::milliseconds(1000);
    static constexpr auto LAST_PAUSE = std::chrono::milliseconds(60000);

  private:
    bool bring_up(std::string *fault);
    void supervise();
    bool pause(std::chrono::milliseconds length);
    void set_state(library_state state, const std::string &reason);
    void join();

    const std::string dir_;
    model *cards_;
    ring *events_;
    logger *log_;
    std::function<void()> prepare_;

    std::thread manager_; // runs fxm_init_manager
    std::atomic<bool> ended_{true};
    std::atomic<int> result_{0};

    mutable std::mutex mutex_; // guards status_ and stopping_
    std::condition_variable changed_;
    library_status status_;
    bool stopping_ = false;
    std::thread supervisor_;
    std::mutex report_mutex_; // held for one report
};

} // namespace fxm
