#include "daemon/library.h"

#include <fmt/format.h>
#include <log4cxx/logger.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "fxm.h"

namespace fxm
{

const char *word(library_state state)
{
    constexpr const char *words[] = {"starting", "running", "restarting", "stopping"};
    return words[static_cast<size_t>(state)];
}

library::library(std::string dir, model *cards, ring *events, logger *log, std::function<void()> prepare)
    : dir_(std::move(dir)), cards_(cards), events_(events), log_(log), prepare_(std::move(prepare))
{
}

library::~library() { stop(); }

// Runs on the library's event thread.
static void on_event(uint64_t id, fxm_event_type_t type, uint64_t arg)
{
    uint8_t interrupts = 0;
    // The bits may be gone at the next tick.
    if (type == FXM_EVT_MAJORMINORERROR) {
        if (const auto data = read_record(id))
            interrupts = common(*data).fcd_int_vector;
    }
    reinterpret_cast<dirty_set *>(arg)->mark(id, static_cast<uint32_t>(type), interrupts);
}

// Starts the library. False, with the reason, if it did not come up; nothing runs then.
bool library::bring_up(std::string *fault)
{
    ended_ = false;
    manager_ = std::thread([this] {
        result_ = fxm_init_manager(dir_.c_str(), FXM_LOG_WARN);
        ended_ = true;
        changed_.notify_all();
    });
    // The kinds of events in one go: the first registration answers FXM_API_ENOSYS until the start is complete.
    int32_t kind = FXM_EVT_NEWDEVINFO;
    while (kind <= FXM_EVT_CHANNELSTATECHANGE && !ended_) {
        void *handle = nullptr;
        const int result = fxm_register_callback(kind, on_event, reinterpret_cast<uint64_t>(&cards_->dirty), &handle);
        if (result == FXM_API_SUCCESS)
            ++kind;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (ended_) {
        join();
        *fault = fmt::format("the library did not start (result {}); its lines above say why, and fxmctl doctor looks "
                             "at ports, rights and configuration",
                             result_.load());
        return false;
    }
    cards_->library_starts();
    fxm_start_manager();
    return true;
}

void library::join()
{
    if (manager_.joinable())
        manager_.join();
}

void library::set_state(library_state state, const std::string &reason)
{
    {
        std::lock_guard guard(mutex_);
        status_.state = state;
        status_.reason = reason;
        if (state != library_state::restarting)
            status_.next_start_ms = 0;
    }
    constexpr const char *names[] = {"FXM_API_SUCCESS", "FXM_API_EINVAL", "FXM_API_ERANGE", "FXM_API_ENOENT",
                                     "FXM_API_ENOLINK", "FXM_API_ENOMEM", "FXM_API_EPROTO", "FXM_API_ETIMEDOUT",
                                     "FXM_API_EBUSY",   "FXM_API_ENOSYS"};
    const std::string result = state == library_state::restarting && result_ != FXM_API_SUCCESS
                                   ? fmt::format("\"{}\"", names[std::clamp(result_.load(), 0, 9)])
                                   : "null";
    events_->append(event_draft{.type = event_type::library,
                                .card = 0,
                                .before = {},
                                .after = {},
                                .members = fmt::format(R"("state":"{}","result":{})", word(state), result)});
}

void library::start()
{
    prepare_(); // what it throws says how fxmd ends
    std::string fault;
    if (!bring_up(&fault))
        throw std::runtime_error(fault);
    set_state(library_state::running, "");
    supervisor_ = std::thread([this] { supervise(); });
}

// False when the stop has been requested meanwhile.
bool library::pause(std::chrono::milliseconds length)
{
    std::unique_lock guard(mutex_);
    status_.next_start_ms = clock_ms() + length.count();
    return !changed_.wait_for(guard, length, [this] { return stopping_; });
}

void library::supervise()
{
    auto length = FIRST_PAUSE;
    for (;;) {
        const auto began = std::chrono::steady_clock::now();
        {
            std::unique_lock guard(mutex_);
            // The end is polled as well: it is announced without the lock.
            while (!stopping_ && !ended_)
                changed_.wait_for(guard, std::chrono::milliseconds(100));
            if (stopping_)
                return;
        }
        join();
        const int result = result_;
        {
            std::lock_guard guard(mutex_);
            status_.last_result = result;
        }
        if (std::chrono::steady_clock::now() - began > LAST_PAUSE)
            length = FIRST_PAUSE;
        std::string reason = fmt::format("the library stopped by itself (result {})", result);
        log_->error("{}; a port may have been deleted. It starts again in {} ms.", reason, length.count());
        set_state(library_state::restarting, reason);
        cards_->library_ended();
        for (;;) {
            if (!pause(length))
                return;
            length = std::min(length * 2, LAST_PAUSE);
            try {
                prepare_();
                if (bring_up(&reason))
                    break;
            } catch (const std::exception &failure) {
                reason = failure.what();
            }
            log_->error("{}. Next attempt in {} ms.", reason, length.count());
            set_state(library_state::restarting, reason);
        }
        {
            std::lock_guard guard(mutex_);
            ++status_.restarts;
        }
        log_->info("the library runs again");
        set_state(library_state::running, "");
    }
}

void library::stop()
{
    {
        std::lock_guard guard(mutex_);
        if (stopping_)
            return;
        stopping_ = true;
        status_.state = library_state::stopping;
    }
    changed_.notify_all();
    if (supervisor_.joinable())
        supervisor_.join();
    fxm_fini_manager();
    join();
}

int library::set_log_level(int level)
{
    // The library filters first. Its lines before it has read its own level are filtered by the logger, see the log
    // properties that fxmd writes.
    const int result = fxm_set_loglevel(level);
    if (result == FXM_API_SUCCESS)
        log4cxx::Logger::getLogger("logfile")->setLevel(level > FXM_LOG_WARN ? log4cxx::Level::getTrace()
                                                                             : log4cxx::Level::getWarn());
    return result;
}

int library::write_report(bool verbose, const std::string &file)
{
    std::lock_guard guard(report_mutex_);
    // The logger appends, so a file made empty holds this report alone.
    if (truncate(file.c_str(), 0) != 0)
        log_->warning("cannot empty {}: {}", file, strerror(errno));
    // The library also writes a report at each start, stop and interval; those find the logger off.
    const log4cxx::LoggerPtr report = log4cxx::Logger::getLogger("statslogfile");
    report->setLevel(log4cxx::Level::getInfo());
    const int result = fxm_stdump(verbose ? 1 : 0);
    report->setLevel(log4cxx::Level::getOff());
    return result;
}

library_status library::status() const
{
    std::lock_guard guard(mutex_);
    return status_;
}

} // namespace fxm
