// Jobs, and what administers fxmd.
#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>

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
                   progress_words(job), format_seconds(number(job, "created_ms")), std::to_string(number(job, "uid"))});
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
        print_job_result(job);
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

static bool every(const CLI::App *) { return true; }

// Where the cursor is: behind which command and how many of its arguments, or behind an option that wants a value.
struct cursor {
    const CLI::App *command;
    std::string name; // "eeprom restore"
    size_t arguments = 0;
    std::string option;
};

static cursor find_cursor(session *all, const CLI::App *app, const std::vector<std::string> &words)
{
    cursor at{app, "", 0, ""};
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (word.starts_with('-')) {
            const CLI::Option *option = at.command->get_option_no_throw(word);
            if (option == nullptr)
                option = app->get_option_no_throw(word);
            if (option == nullptr || option->get_items_expected_max() == 0)
                continue;
            if (i + 1 == words.size()) {
                at.option = word;
                return at;
            }
            ++i;
            if (word == "--socket")
                all->where.socket = words[i];
            if (word == "--url")
                all->where.url = words[i];
            if (word == "--token-file")
                all->where.token_file = words[i];
            continue;
        }
        const auto commands = at.command->get_subcommands(every);
        const auto next = std::find_if(commands.begin(), commands.end(),
                                       [&word](const CLI::App *command) { return command->get_name() == word; });
        if (next == commands.end()) {
            ++at.arguments;
            continue;
        }
        at.command = *next;
        at.name += (at.name.empty() ? "" : " ") + word;
    }
    return at;
}

static void put_lines(std::initializer_list<const char *> words, const std::string &before = "")
{
    for (const char *word : words)
        put(before + word + '\n');
}

// Without fxmd there is nothing to complete, and nobody reads a message here.
static void put_ids(session *all, const std::string &before, const std::string &begun)
try {
    query arguments{{"fields", "id"}, {"limit", "1000"}};
    if (!begun.empty())
        arguments.emplace_back("id", begun + '*');
    all->api().stream("/v1/cards", arguments, [&before](std::string_view line) {
        put(before + text(parse_line(line), "id") + '\n');
        return true;
    });
} catch (const ctl_error &) {
}

static void put_jobs(session *all)
try {
    const json::object document = all->api().get("/v1/jobs");
    for (const json::value &job : array(document, "jobs"))
        put(std::to_string(number(job.as_object(), "job")) + '\n');
} catch (const ctl_error &) {
}

static void put_filter(session *all, const std::string &begun)
{
    const size_t equals = begun.find('=');
    const std::string key = begun.substr(0, equals == std::string::npos ? 0 : equals);
    const std::string before = begun.substr(0, begun.find_last_of("=,") + 1);
    if (key.empty())
        put_lines({"state=", "class=", "gen=", "vlan=", "id=", "partner=", "vendor=", "device=", "int="});
    else if (key.starts_with("state"))
        put_lines({"well", "degraded", "error", "lost", "unmonitored"}, before);
    else if (key.starts_with("class"))
        put_lines({"fxsv", "fxio"}, before);
    else if (key.starts_with("gen"))
        put_lines({"1g", "40g"}, before);
    else if (key.starts_with("id") || key.starts_with("partner"))
        put_ids(all, before, begun.substr(before.size()));
}

// The words that may stand at the cursor, one a line. The last of `words` is the one that is being typed.
static int complete(session *all, const CLI::App *app, std::vector<std::string> words)
{
    const std::string begun = words.empty() ? "" : words.back();
    if (!words.empty())
        words.pop_back();
    const cursor at = find_cursor(all, app, words);
    if (at.option == "--card")
        put_ids(all, "", begun);
    else if (at.option == "--type")
        put_lines({"change", "job", "port", "library"});
    if (!at.option.empty())
        return EXIT_DONE;
    if (begun.starts_with('-')) {
        for (const CLI::App *source : {at.command, app}) {
            for (const CLI::Option *option : source->get_options()) {
                for (const std::string &word : option->get_lnames())
                    put("--" + word + '\n');
            }
            if (at.command == app)
                break;
        }
        return EXIT_DONE;
    }
    for (const CLI::App *next : at.command->get_subcommands(every)) {
        if (!next->get_name().starts_with('_') && at.arguments == 0)
            put(next->get_name() + '\n');
    }
    if (at.name == "cards" || at.name == "watch")
        put_filter(all, begun);
    else if (at.name == "jobs show" || at.name == "jobs cancel")
        put_jobs(all);
    else if (at.name == "loglevel")
        put_lines({"fatal", "error", "warning", "info", "debug", "trace"});
    else if (at.name == "completion")
        put_lines({"bash"});
    else if (at.arguments == 0 && at.command->get_option_no_throw("card") != nullptr)
        put_ids(all, "", begun);
    else if (at.name == "wait" && at.arguments == 1)
        put_lines({"connected", "unconnected", "well", "degraded", "error", "lost", "seen", "gone", "vlan="});
    else if (at.name == "reg" && at.arguments == 1) {
        for (const register_info &info : register_table()) {
            if (info.of != generation::only_40g) // its names are those of the other generation
                put(std::string(info.name) + '\n');
        }
    }
    return EXIT_DONE;
}

static constexpr const char *bash_completion = R"bash(# bash completion of fxmctl: source <(fxmctl completion bash)
_fxmctl() {
    local line=${COMP_LINE:0:COMP_POINT} words word
    local current=${line##*[[:space:]]} breaks=${COMP_WORDBREAKS//[^:=]/} replaced=''
    read -ra words <<<"$line"
    [ -n "$current" ] || words+=('')
    # Ids have colons and filters have equals signs. Bash ends a word there, and replaces only what is behind.
    [ -z "$breaks" ] || replaced=${current%"${current##*[$breaks]}"}
    COMPREPLY=()
    while IFS= read -r word; do
        [[ $word != "$current"* ]] || COMPREPLY+=("${word#"$replaced"}")
    done < <("${words[0]}" __complete -- "${words[@]:1}" 2>/dev/null)
    [[ ${#COMPREPLY[@]} -ne 1 || ${COMPREPLY[0]} != *= ]] || compopt -o nospace 2>/dev/null
}
complete -o default -F _fxmctl fxmctl
)bash";

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
    explain(jobs, reach::fxmd, "Examples: fxmctl jobs; fxmctl jobs show 7; fxmctl jobs cancel 7");
    jobs->callback([all, jobs] {
        if (jobs->get_subcommands().empty())
            all->run = [all] { return print_document(all, "/v1/jobs", {}, print_jobs, "jobs"); };
    });
    auto *show = jobs->add_subcommand("show", "one job with its result");
    show->add_option("job", given->job, "its number")->required();
    explain(show, reach::fxmd, "Example: fxmctl jobs show 7");
    show->callback([all, given] {
        all->run = [all, given] { return print_document(all, fmt::format("/v1/jobs/{}", given->job), {}, print_job); };
    });
    auto *cancel = jobs->add_subcommand("cancel", "ends a job after the word at which it is");
    cancel->add_option("job", given->job, "its number")->required();
    explain(cancel, reach::fxmd, "Example: fxmctl jobs cancel 7");
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
    explain(level, reach::fxmd, "Example: fxmctl loglevel debug");
    level->callback([all, given] {
        all->run = [all, given] {
            const json::object done = all->api().send("PUT", "/v1/log/level", {{"level", given->level}});
            put(all->how.json ? json::serialize(done) + "\n"
                              : fmt::format("log level of the library: {}\n", given->level));
            return EXIT_DONE;
        };
    });
    auto *report = app->add_subcommand("status-dump", "makes the library write a report of its state to a file");
    report->add_flag("--verbose", given->verbose, "with every field of every card");
    explain(report, reach::fxmd, "Example: fxmctl status-dump --verbose");
    report->callback([all, given] {
        all->run = [all, given] {
            const json::object done = all->api().send("POST", "/v1/log/status-dump", {{"verbose", given->verbose}});
            put(all->how.json ? json::serialize(done) + "\n"
                              : fmt::format("the report is in {}\n", text(done, "file")));
            return EXIT_DONE;
        };
    });
    auto *reloading = app->add_subcommand("reload", "makes fxmd read its configuration again");
    explain(reloading, reach::fxmd, "Example: fxmctl reload");
    reloading->callback([all] { all->run = [all] { return reload(all); }; });

    auto *doctor =
        app->add_subcommand("doctor", "looks for what keeps fxmd or the fabric from working, and says what to do");
    doctor->add_option("--config", given->config, "the configuration of fxmd")->capture_default_str();
    explain(doctor, reach::local, "Example: fxmctl doctor", "something is wrong");
    doctor->callback([all, given] {
        all->run = [all, given] {
            return run_doctor({given->config, all->where.socket, all->how.json, all->how.colour});
        };
    });

    auto *completion = app->add_subcommand("completion", "prints the completion of a shell");
    completion->add_option("shell", given->shell, "bash")->required()->check(CLI::IsMember({"bash"}));
    explain(completion, reach::local, "Example: source <(fxmctl completion bash)");
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
