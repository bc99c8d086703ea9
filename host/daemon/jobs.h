// What talks to a card for long: dumps, comparisons and restores of EEPROMs, dumps of registers, a VLAN that is waited
// for. Jobs of one card run one after the other; each is made of small steps, so that it can show progress and be
// cancelled, and so that others get their turn at the card.
#pragma once

#include <boost/json.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "daemon/caller.h"
#include "daemon/executor.h"
#include "daemon/operation.h"
#include "daemon/ring.h"

namespace fxm
{

struct job_counts {
    uint32_t queued = 0, running = 0, done = 0, failed = 0, cancelled = 0; // of those that are kept
};

// What a job shall do; the API has checked it.
struct job_request {
    std::string kind; // of docs/api.md
    uint64_t card = 0;
    caller who;
    operation how;
    bool dry_run = false;
    bool force = false;
    uint32_t start = 0, end = 0;     // addresses, the second one behind the last
    uint32_t address = 0, value = 0; // of a write; the VLAN
    std::vector<uint32_t> words;     // of a comparison or a restore

    bool writes_eeprom() const { return kind == "eeprom-restore" || kind == "eeprom-write"; }
};

class job_board
{
  public:
    using audit_function = std::function<void(const caller &who, uint64_t card, const std::string &what,
                                              const std::string &before, const std::string &after)>;

    static constexpr size_t MOST_KEPT = 1000;
    static constexpr size_t MOST_QUEUED = 100; // for one card
    static constexpr size_t MOST_RUNNING = 64;
    static constexpr int64_t KEPT_MS = int64_t{3600} * 1000;
    static constexpr uint32_t MOST_REGISTERS = 65536; // of one dump
    static constexpr size_t MOST_WORDS = 4 << 20; // in all requests and results; beyond, the oldest results go early

    job_board(ring *events, bool eeprom_writer, audit_function audit);
    ~job_board();
    job_board(const job_board &) = delete;
    job_board &operator=(const job_board &) = delete;

    void set_eeprom_writer(bool allowed) { eeprom_writer_ = allowed; }

    // Each returns a JOB document. submit throws api_error if the job is not allowed or there are too many, get and
    // cancel for an unknown job.
    boost::json::object submit(job_request asked);
    boost::json::object get(uint64_t number);
    boost::json::object cancel(uint64_t number);
    boost::json::array list();
    job_counts counts() const;

    // Cancels what runs, drops what waits, and returns when nothing runs. After it nothing is taken any more.
    void close();

  private:
    struct job;
    using job_ptr = std::shared_ptr<job>;

    void run(const job_ptr &work);
    void end(const job_ptr &work, const char *state);
    void end_locked(job *work, const char *state);
    void progress(job *work, uint32_t done, uint32_t total);
    void announce(job &work);
    boost::json::object document(const job &work, bool whole) const;
    static boost::json::value result_of(const job &work);
    void forget_old();
    void check_writer() const;
    job_ptr find(uint64_t number) const;

    void read_words(job *work);
    void restore_eeprom(job *work);
    void write_eeprom(job *work);
    void dump_registers(job *work);
    void set_vlan(job *work);
    uint32_t read_word(job *work, uint32_t address);
    void write_word(job *work, uint32_t address, uint32_t before, uint32_t after);

    ring *events_;
    std::atomic<bool> eeprom_writer_;
    const audit_function audit_;

    mutable std::mutex mutex_; // guards jobs_, next_, and in a job what its declaration says
    std::map<uint64_t, job_ptr> jobs_;
    uint64_t next_ = 1;
    executor threads_{MOST_RUNNING, 1, MOST_QUEUED};
};

} // namespace fxm
