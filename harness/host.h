// The library as a host runs it: an installation directory, fxm_init_manager on a thread, and what the library writes.
#ifndef HARNESS_HOST_H
#define HARNESS_HOST_H

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "fxm.h"

// ---------------------------------------------------------------------------------------------------- logs and dumps

// One log file, read as it grows. A line is its level and its text: "INFO fxm_start_manager: (IN)"; in the logs of
// syslogfile and statslogfile the text alone.
class log_t
{
  public:
    log_t() = default;
    explicit log_t(std::filesystem::path file) : path(std::move(file)) {}

    const std::vector<std::string> &lines();
    size_t count(const std::string &line);      // lines that are this one
    size_t count_with(const std::string &text); // lines in which it occurs
    std::string tail(size_t number = 12);       // the last lines, for messages

  private:
    std::filesystem::path path;
    std::streamoff at = 0;
    std::string partial;
    std::vector<std::string> all;
};

using dump_t = std::vector<std::string>;

size_t whole_dumps(log_t *stats_log);                     // dumps that are over
dump_t read_dump(log_t *stats_log, uint32_t verbose = 0); // asks for a status dump

bool has_line(const dump_t &dump, const std::string &line);

// The lines of one section, without its title and its end line.
dump_t section(const dump_t &dump, const std::string &title);

// The number behind the first line that starts so.
uint64_t number_after(const dump_t &dump, const std::string &start);

// A counter of the "send/receive statistics", by its name, such as "FXM_STATS_R_DEV".
uint64_t frames_counted(const dump_t &dump, int port, const std::string &name);

struct account_t {
    uint32_t in_use, alloc, free;
};
account_t memory(const dump_t &dump, const std::string &account); // "fxsv", "idlist", ...

// -------------------------------------------------------------------------------------------------------- the library

// A temporary installation directory, whose log properties send each logger to a file of its name.
class installation_t
{
  public:
    installation_t();
    ~installation_t();
    installation_t(const installation_t &) = delete;
    installation_t &operator=(const installation_t &) = delete;

    void configure(const std::string &lines) const; // writes conf/fxm.conf

    std::filesystem::path dir;
};

// A call on a thread of its own.
using call_t = std::future<int>;
call_t call(const std::function<int()> &function);
bool has_ended(const call_t &running);
int result_of(call_t &running); // waits for its return; a call that hangs ends the program

struct event_t {
    int32_t type;
    uint64_t id;
    bool operator==(const event_t &) const = default;
};
std::ostream &operator<<(std::ostream &out, const event_t &event);

// The event's kinds, all for one card, in order.
std::vector<event_t> events_of(uint64_t id, const std::vector<int32_t> &types);

// "CDDD": the channels of a card as the status dump shows them.
std::string channels(const fxm_card_data_t &card);

// The result of fxm_init_manager for a start that is to be refused. A library that comes up all the same is stopped when
// the wait is over.
int refused_start(const char *dir, int32_t log_level);

// fxm_init_manager on a thread.
class manager_t
{
  public:
    manager_t() = default;
    ~manager_t();
    manager_t(const manager_t &) = delete;
    manager_t &operator=(const manager_t &) = delete;

    // Calls it. The library comes up meanwhile, or the call returns: result() says what.
    void launch(const std::string &dir, int32_t log_level);

    // Launches it and waits until the library answers; `dir` is that of an installation_t. False: the call has returned
    // instead.
    bool start(const std::string &dir, int32_t log_level);

    bool started() const { return thread.joinable(); } // and its result was not taken yet
    bool returned() const { return done.load(); }

    int result(); // waits for it to return
    int stop();   // asks for the stop first

  private:
    std::thread thread;
    std::atomic<bool> done{false};
    int value = -1;
};

#endif
