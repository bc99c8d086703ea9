// Looks for what keeps a fleet from working: its list, certificates, servers and sites.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <boost/asio/ip/tcp.hpp>

#include <algorithm>
#include <chrono>
#include <set>

#include "ctl/findings.h"
#include "ctl/fleet.h"

namespace fxm
{

namespace fs = std::filesystem;
namespace json = boost::json;

constexpr int64_t DAY_MS = 86'400'000;
constexpr int64_t FEW_DAYS = 30;
constexpr int64_t LARGE_OFFSET_MS = 1000;
constexpr int64_t LONG_QUEUE = 1000; // a batch
constexpr auto SERVER_ANSWERS_WITHIN = std::chrono::seconds(3);

static void judge_certificate(const fs::path &file, const certificate_state &state, const std::string &anew,
                              report *out)
{
    const std::string about = "certificate " + file.string();
    const int64_t days = (state.until_ms - now_ms()) / DAY_MS;
    if (!fs::exists(file))
        out->wrong(about, "is missing", "fxmctl fleet certs makes it");
    else if (!state.fault.empty())
        out->wrong(about, state.fault, anew);
    else if (days < FEW_DAYS)
        out->warn(about, fmt::format("{} days left", days), anew);
    else
        out->ok(about, fmt::format("{} days left", days));
}

static void check_certificates(const fleet_list &list, const fs::path &dir, report *out)
{
    judge_certificate(dir / "ca.pem", look_at_authority(dir),
                      "make all certificates anew in another directory: fxmctl fleet certs --dir DIR", out);
    for (const fleet_member &member : members_of(list)) {
        const fs::path file = dir / (member.name + ".pem");
        judge_certificate(file, look_at_certificate(list, dir, member),
                          fmt::format("mv {0} {0}.old, fxmctl fleet certs, and copy the new file", file.string()), out);
    }
}

static void check_configurations(const fleet_list &list, const fs::path &dir, report *out)
{
    for (const fleet_list::server &server : list.servers) {
        const fs::path file = dir / (server.name + ".conf");
        const std::string about = "configuration " + file.string();
        const auto now = text_of(file);
        if (!now)
            out->wrong(about, "is missing", "fxmctl fleet config writes it");
        else if (*now != server_configuration(list, server))
            out->wrong(about, "is not what the list gives",
                       "fxmctl fleet config --dry-run shows the difference; write it, copy it and reload the server");
        else
            out->ok(about, "is what the list gives");
    }
}

// -------------------------------------------------------------------------------------------------------------- servers

static std::string word_of(const json::object &from, std::string_view name)
{
    const json::value *value = from.if_contains(name);
    return value != nullptr && value->is_string() ? std::string(value->get_string().c_str()) : std::string();
}

static bool is_true(const json::object &from, std::string_view name)
{
    const json::value *value = from.if_contains(name);
    return value != nullptr && value->is_bool() && value->get_bool();
}

// What a server says of itself to whoever connects; throws with the reason.
static json::object ask_server(const fleet_list::server &server)
{
    boost::asio::ip::tcp::iostream stream;
    stream.expires_after(SERVER_ANSWERS_WITHIN);
    stream.connect(server.address, "4222");
    std::string line;
    constexpr std::string_view WORD = "INFO ";
    if (!stream || !std::getline(stream, line))
        throw std::runtime_error(stream.error() == boost::asio::error::operation_aborted ? "no answer within 3 s"
                                                                                         : stream.error().message());
    boost::system::error_code error;
    json::value said = json::parse(line.starts_with(WORD) ? line.substr(WORD.size()) : "", error);
    if (error || !said.is_object())
        throw std::runtime_error("what answers at port 4222 is no NATS server");
    return std::move(said.get_object());
}

static void judge_server(const fleet_list &list, const fleet_list::server &server, const json::object &said,
                         const std::set<std::string> &running, report *out)
{
    const std::string about = fmt::format("server {} ({})", server.name, server.address);
    const std::string copy = fmt::format("copy {}.conf there again, and restart the server", server.name);
    const auto wrong = [&](const std::string &what, const std::string &advice) { out->wrong(about, what, advice); };
    if (const std::string name = word_of(said, "server_name"); name != server.name)
        return wrong(fmt::format("says that it is {}", name), copy);
    if (!is_true(said, "tls_required"))
        return wrong("takes connections without TLS", copy);
    if (!is_true(said, "jetstream"))
        return wrong("JetStream is off", copy + "; its log says why if it is on there");
    if (list.servers.size() > 1) {
        if (const std::string name = word_of(said, "cluster"); name != list.name)
            return wrong(fmt::format("is of the cluster \"{}\", not of {}", name, list.name), copy);
        const json::value *others = said.if_contains("connect_urls");
        for (const fleet_list::server &other : list.servers) {
            const json::value url(with_port(other.address, 4222));
            const bool known =
                others != nullptr && others->is_array() &&
                std::find(others->get_array().begin(), others->get_array().end(), url) != others->get_array().end();
            if (other.name != server.name && running.contains(other.name) && !known)
                return wrong(fmt::format("has no route to {}, which runs", other.name),
                             "let port 6222 through between the two; their logs say more");
        }
    }
    out->ok(about, fmt::format("runs NATS {}", word_of(said, "version")));
}

static void check_servers(const fleet_list &list, report *out)
{
    std::vector<std::pair<const fleet_list::server *, json::object>> answers;
    std::set<std::string> running, versions;
    for (const fleet_list::server &server : list.servers) {
        try {
            answers.emplace_back(&server, ask_server(server));
            running.insert(server.name);
            versions.insert(word_of(answers.back().second, "version"));
        } catch (const std::exception &failure) {
            out->wrong(fmt::format("server {} ({})", server.name, server.address),
                       fmt::format("cannot be reached: {}", failure.what()),
                       "on that machine: systemctl status nats-server; between: let port 4222 through");
        }
    }
    for (const auto &[server, said] : answers)
        judge_server(list, *server, said, running, out);
    if (running.size() * 2 <= list.servers.size())
        out->wrong(
            "servers",
            fmt::format("{} of {} run; nothing is stored until more than half do", running.size(), list.servers.size()),
            "sites keep their events until then; start the others");
    if (versions.size() > 1)
        out->warn("servers", fmt::format("have different versions: {}", fmt::join(versions, ", ")),
                  "bring all to the same one");
}

// ----------------------------------------------------------------------------------------------------------------- sites

static int64_t number_of(const json::object &from, std::string_view name)
{
    const json::value *value = from.if_contains(name);
    boost::system::error_code error;
    const auto number = value != nullptr ? value->to_number<int64_t>(error) : 0;
    return error ? 0 : number;
}

static void judge_site(const json::object &site, bool is_listed, report *out)
{
    const std::string name = word_of(site, "site"), about = "site " + name, state = word_of(site, "state");
    const int64_t offset = number_of(site, "offset_ms"), waiting = number_of(site, "waiting");
    if (!is_listed)
        out->warn(about, "is not in the list", "add it to sites, or take its certificate away");
    if (state == "refused")
        return out->wrong(about, "the servers or the room refuse what it sends",
                          "fxmctl log there has the reason; compare its name, certificate and version");
    if (state == "silent")
        return out->wrong(about, fmt::format("silent for {}", format_duration(number_of(site, "age_ms"))),
                          "there: fxmctl status says whether it reaches the servers");
    if (std::abs(offset) >= LARGE_OFFSET_MS)
        out->warn(about,
                  fmt::format("its clock is {} {}", format_duration(std::abs(offset)), offset < 0 ? "late" : "early"),
                  "let a time service set the clocks of both machines");
    if (waiting >= LONG_QUEUE)
        out->warn(about, fmt::format("{} events wait there", with_commas(static_cast<uint64_t>(waiting))),
                  "fxmctl status there says whether they become fewer");
    if (state != "live")
        return out->warn(about, fmt::format("is {}", state), "look again in a minute");
    out->ok(about, fmt::format("live, version {}", word_of(site, "version")));
}

static void check_sites(session *all, const fleet_list &list, report *out)
{
    json::object answer;
    try {
        answer = all->api().get("/v1/sites");
    } catch (const ctl_error &failure) {
        return out->warn("sites", fmt::format("not asked: {}", failure.what()),
                         "run this where the operations room runs, or name it with --socket or --url");
    }
    std::set<std::string> seen;
    for (const json::value &entry : array(answer, "sites")) {
        const std::string name = word_of(entry.as_object(), "site");
        seen.insert(name);
        judge_site(entry.as_object(), std::find(list.sites.begin(), list.sites.end(), name) != list.sites.end(), out);
    }
    for (const std::string &name : list.sites) {
        if (!seen.contains(name))
            out->wrong("site " + name, "has never been heard of",
                       "fxmctl fleet config says what belongs on its machine; then restart fxmd there");
    }
}

int run_fleet_doctor(session *all, const std::string &list_file, const fs::path &dir)
{
    report found;
    std::optional<fleet_list> list;
    // What cannot be looked at is a finding, too.
    const auto look_at = [&found](const char *about, const auto &check) {
        try {
            check();
        } catch (const ctl_error &failure) {
            found.wrong(about, failure.what(), failure.hint);
        }
    };
    look_at("list", [&] {
        list = load_fleet_list(list_file);
        found.ok("list", fmt::format("{} is good: {} servers, {} sites, {} users", list_file, list->servers.size(),
                                     list->sites.size(), list->users.size()));
    });
    if (list) {
        look_at("certificates", [&] { check_certificates(*list, dir, &found); });
        look_at("configuration", [&] { check_configurations(*list, dir, &found); });
        check_servers(*list, &found);
        look_at("sites", [&] { check_sites(all, *list, &found); });
    }
    found.print(all->how.json, all->how.colour);
    return found.good() ? EXIT_DONE : EXIT_FAILED;
}

} // namespace fxm
