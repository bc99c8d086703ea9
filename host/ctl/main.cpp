// fxmctl: reads the command line, runs one command, and turns a failure into one line and an exit code.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cstdlib>

#include "ctl/commands.h"
#include "fleet/names.h"
#include "fxm.h"

static std::string default_socket()
{
    const char *path = getenv("FXM_SOCKET");
    return path != nullptr && *path != '\0' ? path : "/run/fxm/fxmd.sock";
}

// The parser says only that a command is missing.
static std::string unknown_command(const CLI::App &app, int argc, char **argv)
{
    if (!app.get_subcommands().empty())
        return "";
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--socket" || word == "--url" || word == "--token-file" || word == "--fleet" || word == "--site")
            ++i;
        else if (!word.starts_with('-'))
            return word;
    }
    return "";
}

static int run(fxm::session *all)
{
    int result = fxm::EXIT_FAILED;
    try {
        result = all->run();
        fxm::flush();
        return result;
    } catch (const fxm::ctl_error &failure) {
        fflush(stdout);
        const bool names_help = failure.hint.find("--help") != std::string::npos;
        fmt::print(stderr, "fxmctl: {}{}{}{}\n", failure.what(), failure.hint.empty() ? "" : "; ", failure.hint,
                   failure.exit == fxm::EXIT_USAGE && !names_help ? "; see fxmctl --help" : "");
        return failure.exit;
    } catch (const std::exception &failure) {
        fmt::print(stderr, "fxmctl: {}\n", failure.what());
        return fxm::EXIT_FAILED;
    }
}

int main(int argc, char **argv)
{
    CLI::App app("Shows and operates a Fenxar fabric through fxmd.", "fxmctl");
    fxm::session all;
    all.where.socket = default_socket();
    bool no_colour = false;
    app.set_version_flag("--version", "fxmctl " FXM_VERSION);
    app.add_option("--socket", all.where.socket, "the socket of fxmd; also $FXM_SOCKET")->capture_default_str();
    app.add_option("--url", all.where.url, "the loopback address of fxmd instead, such as http://127.0.0.1:8610");
    app.add_option("--token-file", all.where.token_file, "a file with the token for --url");
    std::string fleet;
    app.add_option("--fleet", fleet, "the socket or loopback address of a room instead: all sites of a fleet");
    app.add_option("--site", all.where.site, "the site of that room; without it lists and events are of all");
    app.add_flag("-j,--json", all.how.json, "print the JSON of the API");
    app.add_flag("--ndjson", all.how.ndjson, "print lists as one JSON document a line");
    app.add_flag("--no-color", no_colour, "no colours, even on a terminal");
    app.add_flag("-y,--yes", all.how.yes, "write without asking");
    app.add_flag("--dry-run", all.how.dry_run, "of a write: show what would change, and write nothing");
    app.fallthrough();
    app.require_subcommand(1);
    fxm::add_room_commands(&app, &all);
    fxm::add_view_commands(&app, &all);
    fxm::add_watch_commands(&app, &all);
    fxm::add_register_commands(&app, &all);
    fxm::add_eeprom_commands(&app, &all);
    fxm::add_card_commands(&app, &all);
    fxm::add_snapshot_commands(&app, &all);
    fxm::add_capture_command(&app, &all);
    fxm::add_admin_commands(&app, &all);
    fxm::add_fleet_commands(&app, &all);
    fxm::add_completion_command(&app, &all);
    app.footer(
        "Exit code: 0 done, 1 failed, 2 wrong usage, 3 no such card, 4 the card did not answer or a wait ran out,\n"
        "5 busy or claimed by another manager, 6 no permission, 7 fxmd is not running.\n"
        "Examples: fxmctl status; fxmctl cards state=error; fxmctl reg 02:00:00:00:10:00 eeprom.lock");
    // A line that is being typed is seldom right, so it is not parsed.
    if (argc > 1 && std::string_view(argv[1]) == "__complete")
        return fxm::complete(&all, &app, {argv + 2, argv + argc});
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &failure) {
        if (failure.get_exit_code() == 0)
            return app.exit(failure);
        const std::string unknown = unknown_command(app, argc, argv);
        fmt::print(stderr, "fxmctl: {}; see fxmctl --help\n",
                   unknown.empty() ? failure.what() : fmt::format("there is no command \"{}\"", unknown));
        return fxm::EXIT_USAGE;
    }
    if (!all.where.site.empty() && (fleet.empty() || !fxm::fleet::is_site(all.where.site))) {
        fmt::print(stderr, "fxmctl: --site {}: {}; see fxmctl --help\n", all.where.site,
                   fleet.empty() ? "it takes --fleet" : "a site is at most 32 of a-z, 0-9 and -");
        return fxm::EXIT_USAGE;
    }
    if (!fleet.empty())
        use_room(&all.where, fleet);
    all.how.colour = !no_colour && isatty(STDOUT_FILENO) != 0 && getenv("NO_COLOR") == nullptr;
    return run(&all);
}
