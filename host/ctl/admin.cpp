// Jobs, and what administers fxmd.
#include <fmt/format.h>

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

void add_admin_commands(CLI::App *app, session *all)
{
    struct arguments {
        std::string level, config = "/etc/fxm/fxmd.toml";
        uint64_t job = 0;
        bool verbose = false;
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
            if (all->where.is_room)
                throw ctl_error(EXIT_USAGE, "doctor looks at the fxmd of this machine", "say fxmctl fleet doctor");
            return run_doctor({given->config, all->where.socket, all->how.json, all->how.colour});
        };
    });
}

} // namespace fxm
