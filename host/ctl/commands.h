// The commands of fxmctl. Each adds itself to the command line; what it does runs after the line has been read.
#pragma once

#include <boost/json.hpp>

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ctl/client.h"
#include "ctl/output.h"

namespace fxm
{

// What all commands share. `run` is set by the chosen command and returns the exit code.
struct session {
    endpoint where;
    output_options how;
    std::function<int()> run;

    client &api(); // made at first use

  private:
    std::unique_ptr<client> api_;
};

void add_room_commands(CLI::App *app, session *all);  // sites
void add_view_commands(CLI::App *app, session *all);  // status, ports, cards, show, tree, topology, stats, log, history
void add_watch_commands(CLI::App *app, session *all); // watch, wait
void add_register_commands(CLI::App *app, session *all);  // reg
void add_eeprom_commands(CLI::App *app, session *all);    // eeprom
void add_card_commands(CLI::App *app, session *all);      // vlan, monitor, delete, reset, page
void add_snapshot_commands(CLI::App *app, session *all);  // snapshot, diff
void add_capture_command(CLI::App *app, session *all);    // capture
void add_admin_commands(CLI::App *app, session *all);     // jobs, loglevel, status-dump, reload, doctor
void add_fleet_commands(CLI::App *app, session *all);     // fleet
void add_completion_command(CLI::App *app, session *all); // completion

// Prints what may stand for the last word of a command line, one candidate a line. It prints no error, and waits for fxmd for a moment at most.
int complete(session *all, const CLI::App *app, const std::vector<std::string> &words);

// ---------------------------------------------------------------------------------------------------- help of commands
// How far a command reaches, which says what can go wrong with it.
enum class reach {
    local,  // this program alone
    fxmd,   // what fxmd knows of itself and of all cards
    record, // what fxmd knows of one card
    card    // the card itself
};

// Ends the help of a command with its examples and its exit codes. `failed` is what 1 means.
void explain(CLI::App *command, reach far, const std::string &examples, const std::string &failed = "failed");

// ----------------------------------------------------------------------------------------------- reading documents
std::string text(const boost::json::object &from, std::string_view name); // "" for null
int64_t number(const boost::json::object &from, std::string_view name);   // 0 for null
bool flag(const boost::json::object &from, std::string_view name);
bool is_null(const boost::json::object &from, std::string_view name);
const boost::json::array &array(const boost::json::object &from, std::string_view name);
const boost::json::object &object(const boost::json::object &from, std::string_view name);
boost::json::object parse_line(std::string_view line);

// ------------------------------------------------------------------------------------------------------ for commands
constexpr const char *FILTER_HELP = "words such as state=lost vlan=100-199 class=fxio gen=40g id=02:00:* int=0x04; "
                                    "KEY!=VALUE, and values with commas between";

std::string card_path(const std::string &id); // "/v1/cards/02:...", of a room "/v1/cards/SITE/02:..."; EXIT_USAGE
std::string card_words(session *all, const std::string &id); // "02:00:00:00:10:00 (FXSV, vlan 100)"
std::string upper(std::string_view text);

void print_room_status(const boost::json::object &status); // of a room, over all sites

// With -j the document itself, with --ndjson the entries of its array `list` or else the document, otherwise what `show`
// prints.
int print_document(session *all, const std::string &path, const query &arguments,
                   const std::function<void(const boost::json::object &)> &show, const char *list = nullptr);

// Submits a job, follows it with a bar, and returns its document. Ctrl-C cancels it. Throws for a job that failed,
// after `ended` has seen the document.
boost::json::object run_job(session *all, const boost::json::object &request, const std::string &title,
                            const std::function<void(const boost::json::object &)> &ended = {});

// Set by the first Ctrl-C of a command that has called catch_interrupt, and by SIGTERM if it wants that too.
void catch_interrupt(bool with_sigterm = false);
bool interrupted();

// Words of an EEPROM or registers, four on a line behind the address of the first one.
void print_words(int64_t start, const boost::json::array &words);
void print_job_result(const boost::json::object &job);

// FIRST..END or FIRST-END, END being the address behind the last word. Nothing if the text is no range; EXIT_USAGE if it
// is one that is empty or has no numbers.
std::optional<std::pair<uint32_t, uint32_t>> parse_range(const std::string &text);

struct operation_options {
    std::optional<uint32_t> retries, interval_ms;
    bool livecheck = false;

    void add_to(CLI::App *command);
    void add_to(boost::json::object *body) const;
    void add_to(query *arguments) const;
};

} // namespace fxm
