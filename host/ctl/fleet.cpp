// The commands that set up a fleet: certificates and configuration from one list, and what is wrong with them.
#include "ctl/fleet.h"

#include <fmt/format.h>

namespace fxm
{

constexpr const char *LIST_EXAMPLE = "The list:\n"
                                     "    name = \"plant\"                  # of the cluster of servers\n"
                                     "    sites = [\"north\", \"south\"]      # each an fxmd\n"
                                     "    readers = [\"database\"]          # may be left out\n"
                                     "    [servers]                       # 1, 3 or 5\n"
                                     "    s1 = \"10.0.0.1\"\n"
                                     "    [users]                         # the most that each may ask for\n"
                                     "    room = \"view\"\n";

void add_fleet_commands(CLI::App *app, session *all)
{
    struct arguments {
        std::string list = "fleet.toml", dir = "fleet";
        unsigned days = 730;
    };
    auto given = std::make_shared<arguments>();
    auto *fleet = app->add_subcommand("fleet", "sets up the servers of a fleet, and looks for what is wrong with them");
    fleet->require_subcommand(1);
    explain(fleet, reach::local,
            std::string(LIST_EXAMPLE) + "Examples: fxmctl fleet certs; fxmctl fleet config --dry-run",
            "failed, or something is wrong");
    const auto add = [&](const char *name, const char *what) {
        auto *command = fleet->add_subcommand(name, what);
        command->add_option("--list", given->list, "the list of the fleet")->capture_default_str();
        command->add_option("--dir", given->dir, "where certificates and configurations are")->capture_default_str();
        return command;
    };

    auto *certs = add("certs", "makes the certificates that are missing; those that are there stay");
    certs->add_option("--days", given->days, "how long the new ones are valid")
        ->check(CLI::Range(1u, 3650u))
        ->capture_default_str();
    explain(certs, reach::local, "Example: fxmctl fleet certs --list fleet.toml");
    certs->callback([all, given] {
        all->run = [all, given] {
            return make_certificates(all, load_fleet_list(given->list), given->dir, given->days);
        };
    });

    auto *config = add("config", "writes the configuration of each server, and says where each file belongs");
    explain(config, reach::local, "Example: fxmctl fleet config --dry-run");
    config->callback([all, given] {
        all->run = [all, given] { return write_configuration(all, load_fleet_list(given->list), given->dir); };
    });

    auto *doctor = add("doctor", "looks at the list, certificates, configurations, servers and sites");
    explain(doctor, reach::local, "Example: fxmctl fleet doctor", "something is wrong");
    doctor->callback(
        [all, given] { all->run = [all, given] { return run_fleet_doctor(all, given->list, given->dir); }; });
}

} // namespace fxm
