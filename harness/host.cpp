#include "host.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "wait.h"

namespace fs = std::filesystem;

// ----------------------------------------------------------------------------------------------------- logs and dumps

const std::vector<std::string> &log_t::lines()
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return all; // not made yet
    file.seekg(at);
    std::stringstream fresh;
    fresh << file.rdbuf();
    partial += fresh.str();
    at += static_cast<std::streamoff>(fresh.str().size());
    size_t begin = 0;
    for (size_t end = partial.find('\n'); end != std::string::npos; end = partial.find('\n', begin)) {
        all.push_back(partial.substr(begin, end - begin));
        begin = end + 1;
    }
    partial.erase(0, begin);
    return all;
}

size_t log_t::count(const std::string &line)
{
    lines();
    return static_cast<size_t>(std::count(all.begin(), all.end(), line));
}

size_t log_t::count_with(const std::string &text)
{
    lines();
    return static_cast<size_t>(std::count_if(
        all.begin(), all.end(), [&](const std::string &line) { return line.find(text) != std::string::npos; }));
}

std::string log_t::tail(size_t number)
{
    lines();
    std::string text;
    for (size_t i = all.size() - std::min(number, all.size()); i < all.size(); ++i)
        text += "  | " + all[i] + "\n";
    return text;
}

// The configuration ends a dump, and behind its last value stands the end line.
size_t whole_dumps(log_t *stats_log)
{
    const std::vector<std::string> &lines = stats_log->lines();
    size_t number = 0;
    for (size_t i = 0; i + 1 < lines.size(); ++i)
        number += lines[i].starts_with("    ether_type ") ? 1 : 0;
    return number;
}

dump_t read_dump(log_t *stats_log, uint32_t verbose)
{
    // The dump that the library writes when it comes up is over before another one begins: lines of two would mix.
    const auto complete = [&] {
        const size_t begun = stats_log->count_with("*** ");
        return begun > 0 && whole_dumps(stats_log) == begun;
    };
    if (!poll_until(complete))
        harness_failed("no whole dump:\n" + stats_log->tail());
    const auto before = static_cast<std::ptrdiff_t>(stats_log->lines().size());
    const int result = fxm_stdump(verbose);
    if (result != FXM_API_SUCCESS)
        harness_failed("fxm_stdump has returned " + std::to_string(result));
    const std::vector<std::string> &lines = stats_log->lines();
    return {lines.begin() + before, lines.end()};
}

bool has_line(const dump_t &dump, const std::string &line)
{
    return std::find(dump.begin(), dump.end(), line) != dump.end();
}

dump_t section(const dump_t &dump, const std::string &title)
{
    const auto begin = std::find(dump.begin(), dump.end(), title);
    if (begin == dump.end()) {
        harness_failed("no section \"" + title + "\" in the dump");
        return {};
    }
    return {begin + 1, std::find(begin, dump.end(), " ")};
}

uint64_t number_after(const dump_t &dump, const std::string &start)
{
    const auto line = std::find_if(dump.begin(), dump.end(), [&](const auto &text) { return text.starts_with(start); });
    if (line == dump.end()) {
        harness_failed("no line \"" + start + "\" in the dump");
        return 0;
    }
    return std::stoull(line->substr(start.size()));
}

uint64_t frames_counted(const dump_t &dump, int port, const std::string &name)
{
    const dump_t lines = section(dump, "  - Fenxar message send/receive statistics");
    const auto first = std::find(lines.begin(), lines.end(), "    + Port" + std::to_string(port));
    char start[64];
    snprintf(start, sizeof(start), "      %-20s : ", name.c_str());
    return number_after({first, lines.end()}, start);
}

account_t memory(const dump_t &dump, const std::string &account)
{
    for (const std::string &line : section(dump, "  - Memory")) {
        std::istringstream words(line);
        std::string name;
        account_t value{};
        if (words >> name >> value.in_use >> value.alloc >> value.free && name == account)
            return value;
    }
    harness_failed("no memory account " + account + " in the dump");
    return {};
}

// ------------------------------------------------------------------------------------------------------- installation

installation_t::installation_t()
{
    std::string name = fs::temp_directory_path() / "fxm-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        harness_failed("cannot make a directory " + name + ": " + strerror(errno));
        return;
    }
    dir = name;
    fs::create_directory(dir / "conf");
    std::ofstream properties(dir / "conf/fxm_log4c_win.properties");
    properties << "log4j.rootLogger=OFF\n";
    for (const std::string logger : {"logfile", "syslogfile", "statslogfile"}) {
        const std::string appender = "log4j.appender." + logger;
        properties << "log4j.logger." << logger << "=TRACE, " << logger << "\n"
                   << "log4j.additivity." << logger << "=false\n"
                   << appender << "=org.apache.log4j.FileAppender\n"
                   << appender << ".File=" << (dir / logger).string() << "\n"
                   << appender << ".layout=org.apache.log4j.PatternLayout\n"
                   << appender << ".layout.ConversionPattern=" << (logger == "logfile" ? "%p " : "") << "%m%n\n";
    }
}

installation_t::~installation_t()
{
    std::error_code ignored;
    if (!dir.empty())
        fs::remove_all(dir, ignored);
}

void installation_t::configure(const std::string &lines) const { std::ofstream(dir / "conf/fxm.conf") << lines; }

// --------------------------------------------------------------------------------------------------- calls and events

call_t call(const std::function<int()> &function) { return std::async(std::launch::async, function); }

bool has_ended(const call_t &running) { return running.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

int result_of(call_t &running)
{
    // A call that hangs leaves no place where the program could go on.
    if (!poll_until([&] { return has_ended(running); })) {
        fprintf(stderr, "a call has not returned\n");
        abort();
    }
    return running.get();
}

int refused_start(const char *dir, int32_t log_level)
{
    call_t start = call([=] { return fxm_init_manager(dir, log_level); });
    if (!poll_until([&] { return has_ended(start); }))
        fxm_fini_manager();
    return result_of(start);
}

std::ostream &operator<<(std::ostream &out, const event_t &event)
{
    static const char *const names[] = {"NEWDEVINFO",      "UPDATEDEVINFO",   "CONNECTIONCHANGE",
                                        "MAJORMINORERROR", "PATHSTATECHANGE", "CHANNELSTATECHANGE"};
    char id[32];
    snprintf(id, sizeof(id), " 0x%.12llx", static_cast<unsigned long long>(event.id));
    return out << (event.type >= 0 && event.type < 6 ? names[event.type] : "?") << id;
}

std::vector<event_t> events_of(uint64_t id, const std::vector<int32_t> &types)
{
    std::vector<event_t> events(types.size());
    std::transform(types.begin(), types.end(), events.begin(), [id](int32_t type) { return event_t{type, id}; });
    return events;
}

std::string channels(const fxm_card_data_t &card)
{
    std::string text;
    for (const auto &states : card.fcd_state)
        text += {states[0] == 1 ? 'C' : 'D', states[1] == 1 ? 'C' : 'D'};
    return text;
}

// ------------------------------------------------------------------------------------------------------------ manager

manager_t::~manager_t()
{
    if (started())
        stop();
}

void manager_t::launch(const std::string &dir, int32_t log_level)
{
    if (started())
        return harness_failed("a manager runs already");
    done = false;
    thread = std::thread([this, dir, log_level] {
        value = fxm_init_manager(dir.c_str(), log_level);
        done = true;
    });
}

bool manager_t::start(const std::string &dir, int32_t log_level)
{
    // The library writes a dump when it comes up, whatever its log level. To ask it over and over would fill its log.
    log_t stats(fs::path(dir) / "statslogfile");
    const size_t before = whole_dumps(&stats);
    launch(dir, log_level);
    // A level that does not exist is refused once the library is up, and changes nothing.
    const auto is_up = [&] {
        return returned() || (whole_dumps(&stats) > before && fxm_set_loglevel(99) != FXM_API_ENOSYS);
    };
    if (!poll_until(is_up))
        harness_failed("the library does not come up");
    return !returned();
}

int manager_t::result()
{
    // A library that hangs leaves no place where a program could go on.
    if (!poll_until([&] { return returned(); })) {
        fprintf(stderr, "fxm_init_manager has not returned\n");
        abort();
    }
    thread.join();
    return value;
}

int manager_t::stop()
{
    if (!started()) {
        harness_failed("no manager runs");
        return -1;
    }
    fxm_fini_manager();
    return result();
}
