// The commands of fxmctl. Each adds itself to the command line; what it does runs after the line has been read.
#pragma once

#include <boost/json.hpp>

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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

void add_view_commands(CLI::App *app, session *all);  // status, ports, cards, show, tree, topology, stats, log, history
void add_watch_commands(CLI::App *app, session *all); // watch, wait
void add_register_commands(CLI::App *app, session *all); // reg
void add_eeprom_commands(CLI::App *app, session *all);   // eeprom
void add_card_commands(CLI::App *app, session *all);     // vlan, monitor, delete, reset, page
void add_snapshot_commands(CLI::App *app, session *all); // snapshot, diff
void add_admin_commands(CLI::App *app, session *all);    // jobs, loglevel, status-dump, reload, doctor, completion

// ----------------------------------------------------------------------------------------------- reading documents
std::string text(const boost::json::object &from, std::string_view name); // "" for null
int64_t number(const boost::json::object &from, std::string_view name);   // 0 for null
bool flag(const boost::json::object &from, std::string_view name);
bool is_null(const boost::json::object &from, std::string_view name);
const boost::json::array &array(const boost::json::object &from, std::string_view name);
const boost::json::object &object(const boost::json::object &from, std::string_view name);
boost::json::object parse_line(std::string_view line);

// ------------------------------------------------------------------------------------------------------ for commands
std::string card_path(const std::string &id);                // "/v1/cards/02:..."; throws EXIT_USAGE for what is no id
std::string card_words(session *all, const std::string &id); // "02:00:00:00:10:00 (FXSV, vlan 100)"
std::string upper(std::string_view text);

// With -j the document itself, otherwise what `show` prints.
int print_document(session *all, const std::string &path, const query &arguments,
                   const std::function<void(const boost::json::object &)> &show);

// Submits a job, follows it with a bar, and returns its document. Ctrl-C cancels it. Throws for a job that failed,
// after `ended` has seen the document.
boost::json::object run_job(session *all, const boost::json::object &request, const std::string &title,
                            const std::function<void(const boost::json::object &)> &ended = {});

// Set by the first Ctrl-C of a command that has called catch_interrupt.
void catch_interrupt();
bool interrupted();

struct operation_options {
    std::optional<uint32_t> retries, interval_ms;
    bool livecheck = false;

    void add_to(CLI::App *command);
    void add_to(boost::json::object *body) const;
    void add_to(query *arguments) const;
};

} // namespace fxm
