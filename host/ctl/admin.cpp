// Jobs, and what administers fxmd.
#include <fmt/format.h>

#include <iostream>

#include "common/registers.h"
#include "ctl/commands.h"
#include "ctl/doctor.h"

namespace fxm
{

namespace json = boost::json;

static std::string progress_words(const json::object &job)
{
    return number(job, "total") != 0 ? fmt::format("{}/{}", number(job, "done"), number(job, "total")) : "-";
}

static void print_jobs(const json::object &document)
{
    table shown({"JOB", "KIND", "CARD", "STATE", "DONE", "CREATED", "UID"});
    for (const json::value &entry : array(document, "jobs")) {
        const json::object &job = entry.as_object();
        shown.add({std::to_string(number(job, "job")), text(job, "kind"), text(job, "card"), text(job, "state"),
                   progress_words(job), format_time(number(job, "created_ms")), std::to_string(number(job, "uid"))});
    }
    if (shown.rows() == 0)
        put("No job has run in the last hour.\n");
    else
        shown.print({"JOB", "DONE", "UID"}, false);
}

static void print_job(const json::object &job)
{
    put(fmt::format("job {} {} of {}: {}, {}\n", number(job, "job"), text(job, "kind"), text(job, "card"),
                    text(job, "state"), progress_words(job)));
    if (!is_null(job, "error"))
        put(fmt::format("  {}\n", text(object(job, "error"), "message")));
    if (!is_null(job, "result"))
        put(fmt::format("  {}\n", json::serialize(object(job, "result"))));
}

static int reload(session *all)
{
    const json::object done = all->api().send("POST", "/v1/reload", {});
    if (all->how.json) {
        put(json::serialize(done) + "\n");
        return EXIT_DONE;
    }
    const auto names = [](const json::array &list) {
        std::string words;
        for (const json::value &name : list)
            words += (words.empty() ? "" : ", ") + std::string(name.as_string().c_str());
        return words;
    };
    const std::string applied = names(array(done, "applied"));
    put(fmt::format("applied: {}\n", applied.empty() ? "nothing has changed" : applied));
    if (!array(done, "needs_restart").empty())
        put(fmt::format("needs a restart of fxmd: {}\n", names(array(done, "needs_restart"))));
    return EXIT_DONE;
}

// ---------------------------------------------------------------------------------------------------------- completion

// The words that may come next, one a line. `words` are those before the one that is being typed.
static bool every(const CLI::App *) { return true; }

static int complete(session *all, CLI::App *app, const std::vector<std::string> &words)
{
    const CLI::App *command = app;
    std::string name;
    for (const std::string &word : words) {
        for (const CLI::App *next : command->get_subcommands(every)) {
            if (next->get_name() == word) {
                command = next;
                name += (name.empty() ? "" : " ") + word;
                break;
            }
        }
    }
    for (const CLI::App *next : command->get_subcommands(every)) {
        if (!next->get_name().starts_with("_"))
            put(next->get_name() + "\n");
    }
    for (const CLI::Option *option : command->get_options()) {
        for (const std::string &word : option->get_lnames())
            put("--" + word + "\n");
    }
    if (name == "cards" || name == "watch") {
        for (const char *key : {"state=", "class=", "gen=", "vlan=", "id=", "partner=", "vendor=", "device=", "int="})
            put(std::string(key) + "\n");
    }
    if (name == "reg") {
        for (const register_info &info : register_table())
            put(std::string(info.name) + "\n");
    }
    const bool takes_card =
        command->get_option_no_throw("card") != nullptr || command->get_option_no_throw("--card") != nullptr;
    if (!takes_card)
        return EXIT_DONE;
    try {
        all->api().stream("/v1/cards", {{"fields", "id"}, {"limit", "1000"}}, [](std::string_view line) {
            put(text(parse_line(line), "id") + "\n");
            return true;
        });
    } catch (const ctl_error &) {
        // Without fxmd there is nothing to complete, and nobody reads a message here.
    }
    return EXIT_DONE;
}

static constexpr const char *bash_completion = R"(# bash completion of fxmctl: source <(fxmctl completion bash)
_fxmctl() {
    local current words
    current=${COMP_WORDS[COMP_CWORD]}
    # A colon ends a word for bash, and ids have colons.
    if declare -F _get_comp_words_by_ref >/dev/null; then _get_comp_words_by_ref -n : cur; current=$cur; fi
    words=$(fxmctl __complete -- "${COMP_WORDS[@]:1:COMP_CWORD-1}" 2>/dev/null)
    COMPREPLY=($(compgen -W "$words" -- "$current"))
    if declare -F __ltrim_colon_completions >/dev/null; then __ltrim_colon_completions "$current"; fi
}
complete -o default -F _fxmctl fxmctl
)";

void add_admin_commands(CLI::App *app, session *all)
{
    struct arguments {
        std::string level, config = "/etc/fxm/fxmd.toml", shell;
        uint64_t job = 0;
        bool verbose = false;
        std::vector<std::string> words;
    };
    auto given = std::make_shared<arguments>();

    auto *jobs = app->add_subcommand("jobs", "the jobs of the last hour");
    jobs->callback([all, jobs] {
        if (jobs->get_subcommands().empty())
            all->run = [all] { return print_document(all, "/v1/jobs", {}, print_jobs); };
    });
    auto *show = jobs->add_subcommand("show", "one job with its result");
    show->add_option("job", given->job, "its number")->required();
    show->callback([all, given] {
        all->run = [all, given] { return print_document(all, fmt::format("/v1/jobs/{}", given->job), {}, print_job); };
    });
    auto *cancel = jobs->add_subcommand("cancel", "ends a job after the word at which it is");
    cancel->add_option("job", given->job, "its number")->required();
    cancel->callback([all, given] {
        all->run = [all, given] {
            const json::object job = all->api().send("DELETE", fmt::format("/v1/jobs/{}", given->job), {});
            if (all->how.json)
                put(json::serialize(job) + "\n");
            else
                print_job(job);
            return EXIT_DONE;
        };
    });

    auto *level = app->add_subcommand("loglevel", "sets the level of the library's log until the next start");
    level->add_option("level", given->level, "fatal, error, warning, info, debug or trace")->required();
    level->callback([all, given] {
        all->run = [all, given] {
            const json::object done = all->api().send("PUT", "/v1/log/level", {{"level", given->level}});
            put(all->how.json ? json::serialize(done) + "\n"
                              : fmt::format("log level of the library: {}\n", given->level));
            return EXIT_DONE;
        };
    });
    auto *report = app->add_subcommand("status-dump", "makes the library write its report to its log");
    report->add_flag("--verbose", given->verbose, "with every field of every card");
    report->callback([all, given] {
        all->run = [all, given] {
            all->api().send("POST", "/v1/log/status-dump", {{"verbose", given->verbose}});
            return EXIT_DONE;
        };
    });
    auto *reloading = app->add_subcommand("reload", "makes fxmd read its configuration again");
    reloading->callback([all] { all->run = [all] { return reload(all); }; });

    auto *doctor =
        app->add_subcommand("doctor", "looks for what keeps fxmd or the fabric from working, and says what to do");
    doctor->add_option("--config", given->config, "the configuration of fxmd")->capture_default_str();
    doctor->callback([all, given] {
        all->run = [all, given] {
            return run_doctor({given->config, all->where.socket, all->how.json, all->how.colour});
        };
    });

    auto *completion = app->add_subcommand("completion", "prints the completion of a shell");
    completion->add_option("shell", given->shell, "bash")->required()->check(CLI::IsMember({"bash"}));
    completion->footer("Example: source <(fxmctl completion bash)");
    completion->callback([all] {
        all->run = [] {
            put(bash_completion);
            return EXIT_DONE;
        };
    });
    auto *completing = app->add_subcommand("__complete", "")->group("");
    completing->add_option("words", given->words, "");
    completing->callback(
        [all, app, given] { all->run = [all, app, given] { return complete(all, app, given->words); }; });
}

} // namespace fxm
