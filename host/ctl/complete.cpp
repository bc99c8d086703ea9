// What the shells ask while a command line is typed. Each word comes from where it is defined: commands, options and
// the values that a help text lists from the parser, filters and registers from their tables, cards and jobs from fxmd.
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "common/filter.h"
#include "common/registers.h"
#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

// From the build; see packaging/completion.
extern const char *const bash_completion;
extern const char *const zsh_completion;

// A shell waits for the answer at every Tab.
constexpr suseconds_t FXMD_MAY_TAKE_US = 150000;

// Where the cursor is: behind which command and how many of its arguments, or behind an option that wants a value.
struct cursor {
    const CLI::App *command;
    size_t arguments = 0;
    const CLI::Option *option = nullptr;
};

struct candidates {
    std::string before; // the part of the word that stays
    std::string begun;  // the part behind it
    std::set<std::string> words;

    void offer(const std::string &word)
    {
        if (word.starts_with(begun))
            words.insert(before + word);
    }
    void print()
    {
        for (const std::string &word : words)
            put(word + '\n');
        flush();
        words.clear();
    }
    // Moves the part of the word up to `size` in front.
    void keep(size_t size)
    {
        before += begun.substr(0, size);
        begun.erase(0, size);
    }
};

static bool is_flag(const CLI::Option *option) { return option->get_items_expected_max() == 0; }

// Options of the commands above it fit a command, too.
static const CLI::Option *find_option(const CLI::App *command, const std::string &word)
{
    for (; command != nullptr; command = command->get_parent()) {
        for (const CLI::Option *option : command->get_options()) {
            if (option->check_name(word))
                return option;
        }
    }
    return nullptr;
}

static std::vector<const CLI::App *> commands_of(const CLI::App *command)
{
    return command->get_subcommands([](const CLI::App *) { return true; });
}

// What the options before the cursor say of the way to fxmd.
static void take_value(session *all, const std::string &option, const std::string &value)
{
    if (option == "socket")
        all->where.socket = value;
    else if (option == "url")
        all->where.url = value;
    else if (option == "token-file")
        all->where.token_file = value;
    else if (option == "fleet")
        use_room(&all->where, value);
    else if (option == "site")
        all->where.site = value;
}

static cursor find_cursor(session *all, const CLI::App *app, std::span<const std::string> words)
{
    cursor at{app};
    for (const std::string &word : words) {
        if (at.option != nullptr) {
            take_value(all, at.option->get_single_name(), word);
            at.option = nullptr;
        } else if (word.starts_with('-') && word.size() > 1) {
            const size_t equals = word.find('=');
            const CLI::Option *option = find_option(at.command, word.substr(0, equals));
            if (option == nullptr || is_flag(option))
                continue;
            if (equals == std::string::npos)
                at.option = option;
            else
                take_value(all, option->get_single_name(), word.substr(equals + 1));
        } else {
            const auto known = commands_of(at.command);
            const auto next = std::find_if(known.begin(), known.end(),
                                           [&word](const CLI::App *command) { return command->get_name() == word; });
            if (next != known.end() && at.arguments == 0)
                at.command = *next;
            else
                ++at.arguments;
        }
    }
    return at;
}

// The argument of that number, or the last one if it takes any number of words.
static const CLI::Option *argument_at(const CLI::App *command, size_t number)
{
    const CLI::Option *last = nullptr;
    for (const CLI::Option *option : command->get_options([](const CLI::Option *o) { return o->get_positional(); })) {
        last = option;
        if (number-- == 0)
            return option;
    }
    return last != nullptr && last->get_items_expected_max() > 1 ? last : nullptr;
}

// The plain words of a list such as "fatal, error or trace"; everything else in it is for people.
static void offer_list(std::string_view list, candidates *out)
{
    while (!list.empty()) {
        const size_t comma = std::min(list.find(", "), list.size());
        const size_t either = std::min(list.find(" or "), list.size());
        const std::string word(list.substr(0, std::min(comma, either)));
        if (word.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789") == std::string::npos)
            out->offer(word);
        list.remove_prefix(std::min(list.size(), word.size() + (comma < either ? 2 : 4)));
    }
}

static void offer_options(const CLI::App *command, candidates *out)
{
    for (; command != nullptr; command = command->get_parent()) {
        for (const CLI::Option *option : command->get_options()) {
            for (const std::string &word : option->get_lnames())
                out->offer("--" + word);
            for (const std::string &word : option->get_snames())
                out->offer("-" + word);
        }
    }
}

// The key of the filter whose value is being typed, if one is.
static std::string split_filter(candidates *out)
{
    const size_t equals = out->begun.find('=');
    if (equals == std::string::npos)
        return "";
    std::string key = out->begun.substr(0, equals);
    if (key.ends_with('!'))
        key.pop_back();
    out->keep(out->begun.find_last_of("=,") + 1);
    return key;
}

static void offer_filter(const std::string &key, candidates *out)
{
    for (const filter_key &known : filter_keys()) {
        if (key.empty())
            out->offer(std::string(known.name) + '=');
        else if (key == known.name)
            offer_list(known.values, out);
    }
}

static void ask_cards(session *all, candidates *out)
{
    query arguments{{"fields", "id"}, {"limit", "1000"}};
    if (!out->begun.empty())
        arguments.emplace_back("id", out->begun + '*');
    all->api().stream("/v1/cards", arguments, [out](std::string_view line) {
        out->offer(text(parse_line(line), "id"));
        return true;
    });
}

static void ask_sites(session *all, candidates *out)
{
    const json::object document = all->api().get("/v1/sites");
    for (const json::value &site : array(document, "sites"))
        out->offer(text(site.as_object(), "site"));
}

static void ask_jobs(session *all, candidates *out)
{
    const json::object document = all->api().get("/v1/jobs");
    for (const json::value &job : array(document, "jobs"))
        out->offer(std::to_string(number(job.as_object(), "job")));
}

// Ends the program when fxmd takes too long, with what it has printed until then.
static void limit_time(suseconds_t us)
{
    signal(SIGALRM, [](int) { _exit(EXIT_DONE); });
    const itimerval once{{0, 0}, {0, us}};
    setitimer(ITIMER_REAL, &once, nullptr);
}

static void complete_value(session *all, const std::string &what, candidates *out)
{
    const bool filtered = what == "filter" || what == "condition";
    const std::string key = filtered ? split_filter(out) : "";
    if (filtered)
        offer_filter(key, out);
    if (what == "register") {
        for (const register_info &info : register_table())
            out->offer(info.name);
    }
    out->print();
    limit_time(FXMD_MAY_TAKE_US);
    if (what == "card" || key == "id" || key == "partner")
        ask_cards(all, out);
    else if (what == "job")
        ask_jobs(all, out);
    else if (what == "site" && all->where.is_room)
        ask_sites(all, out);
    limit_time(0);
    out->print();
}

static void complete_word(session *all, const CLI::App *app, std::vector<std::string> words)
{
    candidates out;
    if (!words.empty()) {
        out.begun = words.back();
        words.pop_back();
    }
    cursor at = find_cursor(all, app, words);
    const size_t equals = out.begun.starts_with("--") ? out.begun.find('=') : std::string::npos;
    if (at.option == nullptr && equals != std::string::npos) {
        at.option = find_option(at.command, out.begun.substr(0, equals));
        if (at.option == nullptr || is_flag(at.option))
            return;
        out.keep(equals + 1);
    } else if (at.option == nullptr && out.begun.starts_with('-')) {
        offer_options(at.command, &out);
        out.print();
        return;
    }
    if (at.option == nullptr && at.arguments == 0) {
        for (const CLI::App *next : commands_of(at.command))
            out.offer(next->get_name());
    }
    const CLI::Option *value = at.option != nullptr ? at.option : argument_at(at.command, at.arguments);
    if (value != nullptr)
        offer_list(value->get_description(), &out);
    complete_value(all, value != nullptr ? value->get_single_name() : "", &out);
}

// Without fxmd there are fewer words, and nobody reads a message here.
int complete(session *all, const CLI::App *app, const std::vector<std::string> &words)
{
    try {
        complete_word(all, app, words);
    } catch (const std::exception &) { // the words before it have been printed
    }
    return EXIT_DONE;
}

void add_completion_command(CLI::App *app, session *all)
{
    auto shell = std::make_shared<std::string>();
    auto *completion = app->add_subcommand("completion", "prints the completion of a shell");
    completion->add_option("shell", *shell, "bash or zsh")->required()->check(CLI::IsMember({"bash", "zsh"}));
    explain(completion, reach::local, "Example: source <(fxmctl completion bash)");
    completion->callback([all, shell] {
        all->run = [shell] {
            put(*shell == "bash" ? bash_completion : zsh_completion);
            return EXIT_DONE;
        };
    });
}

} // namespace fxm
