// fxmd: puts the parts together, and waits for signals. The main thread alone handles them.
#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "common/card_id.h"
#include "common/claim.h"
#include "daemon/api.h"
#include "daemon/config.h"
#include "daemon/counters.h"
#include "daemon/library_files.h"
#include "daemon/sequence.h"
#include "daemon/services.h"
#include "daemon/setup.h"
#include "fxm.h"
#ifdef FXM_FLEET
#include "fleet/room_daemon.h"
#include "fleet/site.h"
#endif

namespace fxm
{

namespace fs = std::filesystem;

// Exit codes, the same as those of fxmctl.
enum exit_code { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2, EXIT_CLAIMED = 5 };

// Threads and queues for requests that talk to cards. A register access waits for its card at most, so eight for one
// card leave room for the others however many cards are dead.
constexpr size_t OPERATIONS = 128;
constexpr size_t OPERATIONS_PER_CARD = 8;
constexpr size_t OPERATIONS_QUEUED = 256;

// The file descriptor of signals; they are blocked in every thread.
class signal_queue
{
  public:
    signal_queue()
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : {SIGTERM, SIGINT, SIGHUP})
            sigaddset(&set, number);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        signal(SIGPIPE, SIG_IGN);
        fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~signal_queue() { close(fd_); }
    signal_queue(const signal_queue &) = delete;
    signal_queue &operator=(const signal_queue &) = delete;

    // 0: none has come in that time.
    int wait(int timeout_ms) const
    {
        pollfd entry{fd_, POLLIN, 0};
        signalfd_siginfo info{};
        if (poll(&entry, 1, timeout_ms) > 0 && read(fd_, &info, sizeof(info)) == sizeof(info))
            return static_cast<int>(info.ssi_signo);
        return 0;
    }

  private:
    int fd_;
};

static history_limits limits_of(const config &settings) { return {settings.history_days, settings.history_max_events}; }

struct options {
    std::string config_file;
    config_of what = config_of::fxmd;
    bool ignore_claim = false;
};

// Everything that runs, in the order in which it is made; it ends in the reverse order.
class daemon
{
  public:
    daemon(options given, const std::shared_ptr<const config> &settings)
        : given_(std::move(given)), log_(level_of(*settings)), sequence_(fs::path(settings->state_dir), &log_),
          events_(sequence_.start()), cards_(&events_, &log_, fs::path(settings->state_dir) / "unmonitored"),
          ports_(settings->ports, &events_, &log_),
          fabric_(settings->run_dir + "/library", &cards_, &events_, &log_, [this] { claim_ports(); }),
          operations_(OPERATIONS, OPERATIONS_PER_CARD, OPERATIONS_QUEUED,
                      [this](const std::string &what) { log_.error("an operation failed: {}", what); }),
          jobs_(&events_, settings->eeprom_writer,
                [this](const caller &who, uint64_t card, const std::string &what, const std::string &before,
                       const std::string &after) { audit(who, card, what, before, after); })
    {
        all_.boot = random_word();
        all_.started_ms = clock_ms();
        all_.log = &log_;
        all_.events = &events_;
        all_.cards = &cards_;
        all_.fabric = &fabric_;
        all_.operations = &operations_;
        all_.jobs = &jobs_;
        all_.timing = &timing_;
        all_.totals = &counters_;
        all_.ports = &ports_;
        all_.reload = [this] { return reload(); };
        all_.set_settings(settings);
        all_.set_roles(std::make_shared<const roles>(role_settings_of(*settings), &log_));
        cards_.set_forget_after(settings->forget_after_ms);
        cards_.on_tick = [this] { tick(); };
        limit_cards(settings->max_cards);
        if (settings->history_enabled)
            past_ = std::make_unique<history>(fs::path(settings->state_dir), limits_of(*settings), &events_, &log_,
                                              [this] { return sample(); });
        all_.past = past_.get();
        server_ = std::make_unique<http_server>(web_of(*settings, *all_.who()),
                                                [this](const http_request &request, http_server::responder answer) {
                                                    handle_request(all_, request, answer);
                                                });
        all_.server = server_.get();
        events_.on_append([this] { server_->events_appended(); });
        if (!settings->fleet_urls.empty())
            join_fleet(*settings);
    }

    ~daemon() { stop(); }
    daemon(const daemon &) = delete;
    daemon &operator=(const daemon &) = delete;

    // Throws what keeps it from running.
    void start()
    {
        const auto settings = all_.settings();
        write_library_files(*settings, settings->run_dir + "/library");
        fabric_.start();
        cards_.start();
        if (past_)
            past_->start();
        server_->start();
#ifdef FXM_FLEET
        if (site_)
            site_->start();
#endif
        running_ = true;
        log_.info("fxmd {} manages {} and serves {}", FXM_VERSION, fmt::join(settings->ports, " and "),
                  settings->socket);
    }

    void stop()
    {
        if (!std::exchange(running_, false))
            return;
#ifdef FXM_FLEET
        if (site_)
            site_->stop();
#endif
        // The library first: it ends all operations on cards.
        fabric_.stop();
        jobs_.close();
        operations_.close();
        server_->stop();
        cards_.stop();
        if (past_)
            past_->stop();
        log_.info("fxmd has stopped");
    }

    reload_result reload()
    {
        std::lock_guard guard(reload_mutex_);
        const auto before = all_.settings();
        reload_result result;
        auto next = read_again(given_.config_file, config_of::fxmd, *before, &result);
        auto judge = std::make_shared<const roles>(role_settings_of(*next), &log_);
        log_.set_level(level_of(*next));
        cards_.set_forget_after(next->forget_after_ms);
        limit_cards(next->max_cards);
        jobs_.set_eeprom_writer(next->eeprom_writer);
        if (past_)
            past_->set_limits(limits_of(*next));
        all_.set_roles(std::move(judge));
        all_.set_settings(std::move(next));
        log_reload(result, &log_);
        return result;
    }

    // Tells the service manager that the daemon lives, if it does.
    void keep_alive() const
    {
        constexpr int64_t STUCK_MS = 10000;
        const int64_t now = clock_ms();
        if (std::abs(now - ticked_ms_.load()) < STUCK_MS && std::abs(now - server_->turned_ms()) < STUCK_MS)
            sd_notify(0, "WATCHDOG=1");
    }

    void drop_visitors()
    {
        std::lock_guard guard(claims_mutex_);
        for (const auto &claim : claims_)
            claim->drop_visitors();
    }

    void notify_status() const
    {
        const card_totals totals = cards_.totals();
        sd_notifyf(0, "STATUS=library %s, %u cards: %u well, %u degraded, %u error, %u lost",
                   word(fabric_.status().state), totals.all(), totals.in(health::well), totals.in(health::degraded),
                   totals.in(health::error), totals.in(health::lost));
    }

    logger &log() { return log_; }
    bool library_failed() const { return fabric_.status().state == library_state::restarting; }

  private:
    // Each port belongs to one manager in its network namespace. A port that was deleted and made again has another
    // index, so the claims are taken anew before each start.
    void claim_ports()
    {
        std::lock_guard guard(claims_mutex_);
        claims_.clear();
        if (given_.ignore_claim)
            return;
        for (const std::string &name : all_.settings()->ports)
            claims_.push_back(std::make_unique<port_claim>(name));
    }

    // Throws what keeps this fxmd from being a site.
    void join_fleet(const config &settings)
    {
#ifdef FXM_FLEET
        site_ = std::make_unique<fleet::site>(fleet::member_options{settings.fleet_urls, settings.fleet_site,
                                                                    settings.fleet_ca, settings.fleet_certificate,
                                                                    role_of(settings.fleet_allow)},
                                              &all_);
        all_.site = [this] { return site_->status(); };
#else
        throw std::runtime_error(fmt::format("this fxmd was built without the fleet (FXM_FLEET), but fleet.urls is {}",
                                             fmt::join(settings.fleet_urls, ", ")));
#endif
    }

    // On the model's thread, several times a second.
    void tick()
    {
        ticked_ms_ = clock_ms();
        if (fabric_.status().state != library_state::stopping)
            ports_.poll();
        sequence_.reserve(events_.last_seq());
        // On every tick, so that no new start of the library is missed.
        const counters now = counters_.read(all_.settings()->ports);
        if (!refusal_told_ && now.refused != 0) {
            refusal_told_ = true;
            log_.warning("more than max_cards = {} cards announce themselves; further cards are ignored",
                         all_.settings()->max_cards);
        }
    }

    minute_sample sample()
    {
        minute_sample now;
        const card_totals totals = cards_.totals();
        now.well = totals.in(health::well);
        now.degraded = totals.in(health::degraded);
        now.error = totals.in(health::error);
        now.lost = totals.in(health::lost);
        now.unmonitored = totals.in(health::unmonitored);
        for (const port_counters &port : read_counters(all_.settings()->ports).ports)
            now.frames[port.number] = port.received;
        now.events = events_.last_seq();
        const register_timing::numbers registers = timing_.get()[register_timing::read];
        now.registers = registers.count;
        now.register_us = registers.sum_us;
        return now;
    }

    void audit(const caller &who, uint64_t card, const std::string &what, const std::string &before,
               const std::string &after)
    {
        log_.audit(fmt::format("write {} card={} {} old={} new={}", words(who), format_id(card), what, before, after));
    }

    const options given_;
    logger log_;
    services all_;
    sequence_store sequence_;
    ring events_;
    std::mutex claims_mutex_;
    std::vector<std::unique_ptr<port_claim>> claims_;
    model cards_;
    port_watch ports_;
    register_timing timing_;
    lasting_counters counters_;
    library fabric_;
    executor operations_;
    job_board jobs_;
    std::unique_ptr<history> past_;
    std::unique_ptr<http_server> server_;
#ifdef FXM_FLEET
    std::unique_ptr<fleet::site> site_;
#endif
    std::mutex reload_mutex_;
    std::atomic<int64_t> ticked_ms_{clock_ms()};
    bool refusal_told_ = false; // the model's thread alone
    bool running_ = false;
};

static void make_directory(const std::string &path)
{
    std::error_code error;
    fs::create_directories(path, error);
    if (error || access(path.c_str(), W_OK | X_OK) != 0)
        throw std::runtime_error(fmt::format("cannot write to the directory {}: {}", path,
                                             error ? error.message() : std::string("no permission")));
}

template <typename Daemon> static void wait_for_stop(const signal_queue &signals, Daemon *running)
{
    uint64_t watchdog_us = 0;
    const bool watched = sd_watchdog_enabled(0, &watchdog_us) > 0;
    const int step_ms = watched ? std::clamp(static_cast<int>(watchdog_us / 3000), 10, 1000) : 1000;
    for (;;) {
        const int number = signals.wait(step_ms);
        if (number == SIGTERM || number == SIGINT)
            return;
        if (number == SIGHUP) {
            sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld",
                       static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                  std::chrono::steady_clock::now().time_since_epoch())
                                                  .count()));
            try {
                running->reload();
            } catch (const std::exception &failure) {
                running->log().error("the configuration was not read again: {}", failure.what());
            }
            sd_notify(0, "READY=1");
        }
        if (watched)
            running->keep_alive();
        running->drop_visitors();
        running->notify_status();
    }
}

template <typename Daemon> static int serve(const signal_queue &signals, Daemon *running)
{
    running->start();
    sd_notify(0, "READY=1");
    wait_for_stop(signals, running);
    sd_notify(0, "STOPPING=1");
    const bool failed = running->library_failed();
    running->stop();
    return failed ? EXIT_FAILED : EXIT_DONE;
}

static int run(const options &given)
{
    std::shared_ptr<const config> settings;
    try {
        settings = std::make_shared<const config>(load_config(given.config_file, given.what));
    } catch (const config_error &failure) {
        fmt::print(stderr, "{}\n", failure.what());
        return EXIT_USAGE;
    }
    const signal_queue signals;
    try {
        if (given.what == config_of::room) {
#ifdef FXM_FLEET
            make_directory(fs::path(settings->socket).parent_path());
            // A million documents: in the heaps of threads each page of them would be a system call.
            constexpr int HEAP_STEP = 16 << 20;
            mallopt(M_ARENA_MAX, 1);
            mallopt(M_TOP_PAD, HEAP_STEP);
            fleet::room_daemon room(given.config_file, settings);
            return serve(signals, &room);
#else
            throw std::runtime_error("this fxmd was built without the fleet (FXM_FLEET), so it can be no room");
#endif
        }
        // Before anything else, so that a second manager ends at once.
        if (!given.ignore_claim) {
            for (const std::string &name : settings->ports)
                port_claim probe(name);
        }
        for (const std::string &path : {settings->run_dir, settings->run_dir + "/library/conf", settings->state_dir})
            make_directory(path);
        daemon running(given, settings);
        return serve(signals, &running);
    } catch (const claim_error &failure) {
        fmt::print(stderr, "fxmd: {}\n", failure.what());
        return EXIT_CLAIMED;
    } catch (const std::exception &failure) {
        fmt::print(stderr, "fxmd: {}\n", failure.what());
        return EXIT_FAILED;
    }
}

} // namespace fxm

int main(int argc, char **argv)
{
    CLI::App app("Owns the management ports of a Fenxar fabric and serves it to fxmctl and the API.", "fxmd");
    fxm::options given;
    bool check = false;
    bool print_config = false;
    bool ports = false;
    app.set_version_flag("--version", "fxmd " FXM_VERSION);
    bool fleet = false;
    app.add_option("--config", given.config_file, "the configuration file; with --fleet /etc/fxm/room.toml by default")
        ->default_str("/etc/fxm/fxmd.toml");
    app.add_flag("--fleet", fleet, "be the operations room of a fleet: no ports, and all its sites");
    app.add_flag("--check", check, "check the configuration file and end");
    app.add_flag("--ports", ports, "print the names of the configured ports, one a line, and end");
    app.add_flag("--print-config", print_config, "print a configuration file with all keys and defaults, and end");
    app.add_flag("--ignore-claim", given.ignore_claim,
                 "root only: run although another manager owns a port; both get wrong register values");
    app.footer("Runs in the foreground and logs to stderr. SIGHUP reads the configuration again; SIGTERM stops it.\n"
               "Exit code: 0 stopped on request, 1 failed, 2 wrong usage or configuration, 5 a port has another "
               "manager.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &failure) {
        return app.exit(failure) == 0 ? fxm::EXIT_DONE : fxm::EXIT_USAGE;
    }
    given.what = fleet ? fxm::config_of::room : fxm::config_of::fxmd;
    if (given.config_file.empty())
        given.config_file = fleet ? "/etc/fxm/room.toml" : "/etc/fxm/fxmd.toml";
    if (print_config) {
        std::cout << fxm::sample_config(given.what) << std::flush;
        return std::cout ? fxm::EXIT_DONE : fxm::EXIT_FAILED;
    }
    if (given.ignore_claim && geteuid() != 0) {
        std::cerr << "fxmd: only root may ignore the claim of another manager\n";
        return fxm::EXIT_USAGE;
    }
    if (check || ports) {
        try {
            const fxm::config config = fxm::load_config(given.config_file, given.what);
            if (check)
                std::cout << given.config_file << ": good\n";
            for (const std::string &name : ports ? config.ports : std::vector<std::string>())
                std::cout << name << '\n';
            return fxm::EXIT_DONE;
        } catch (const fxm::config_error &failure) {
            std::cerr << failure.what() << '\n';
            return fxm::EXIT_USAGE;
        }
    }
    return fxm::run(given);
}
