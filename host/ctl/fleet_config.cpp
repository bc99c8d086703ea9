// The configuration of the servers: who may connect, and what each may send and hear.
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ctl/fleet.h"
#include "ctl/program.h"
#include "fleet/names.h"

namespace fxm
{

namespace fs = std::filesystem;
namespace json = boost::json;

constexpr unsigned CLIENTS = 4222, ROUTES = 6222;

// ---------------------------------------------------------------------------------------------------------------- files

std::optional<std::string> text_of(const fs::path &file)
{
    errno = 0;
    std::ifstream in(file);
    if (!in.is_open() && errno == ENOENT)
        return std::nullopt;
    std::ostringstream text;
    if (in.is_open() && in.peek() != std::ifstream::traits_type::eof())
        text << in.rdbuf();
    if (!in.is_open() || in.bad() || !text)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot read {}: {}", file.string(), strerror(errno)));
    return text.str();
}

void write_whole(const fs::path &file, const std::string &text, unsigned mode, bool replace)
{
    std::string temporary = (file.parent_path() / ".fxmctl-XXXXXX").string();
    const auto fail = [&file](int fault) {
        throw ctl_error(EXIT_FAILED, fmt::format("cannot write {}: {}", file.string(), strerror(fault)));
    };
    const int fd = mkstemp(temporary.data());
    if (fd < 0)
        fail(errno);
    int fault = fchmod(fd, mode) == 0 ? 0 : errno;
    for (std::string_view left = text; fault == 0 && !left.empty();) {
        const ssize_t written = write(fd, left.data(), left.size());
        if (written >= 0)
            left.remove_prefix(static_cast<size_t>(written));
        else if (errno != EINTR)
            fault = errno;
    }
    if (fault == 0 && fsync(fd) != 0)
        fault = errno;
    close(fd);
    if (fault == 0 &&
        renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, file.c_str(), replace ? 0 : RENAME_NOREPLACE) != 0)
        fault = errno;
    if (fault != 0) {
        unlink(temporary.c_str());
        fail(fault);
    }
}

// --------------------------------------------------------------------------------------------------------------- rights

struct rights {
    std::vector<std::string> publish, subscribe;
};

static rights rights_of_site(const fleet_list &list, const std::string &site)
{
    const std::string cards = fleet::cards_stream(fleet::BUCKET);
    const std::string keys = fmt::format("$KV.{}.{}.>", cards.substr(strlen("KV_")), site);
    rights may{{fleet::events_subject(site), fleet::beat_subject(site), keys, fleet::site_subject(site),
                fmt::format("$JS.API.DIRECT.GET.{}.{}", fleet::EVENTS_STREAM, fleet::events_subject(site)),
                fmt::format("$JS.API.DIRECT.GET.{}.{}", cards, keys)},
               {fleet::requests_subject(site), fleet::inbox_of(site) + ".>"}};
    for (const fleet_list::user &user : list.users) // their answers
        may.publish.push_back(fleet::inbox_of(user.name) + ".>");
    return may;
}

// Whoever reads the fleet makes the streams where they are missing.
static rights rights_of_user(const fleet_list::user &user)
{
    rights may{{}, {fleet::beat_subject("*"), fleet::inbox_of(user.name) + ".>"}};
    for (const char *role : {"view", "operate", "admin"}) {
        may.publish.push_back(fmt::format("fxm.api.*.{}.{}", role, user.name));
        if (user.role == role)
            break;
    }
    for (const std::string &stream :
         {std::string(fleet::EVENTS_STREAM), fleet::cards_stream(fleet::BUCKET), std::string(fleet::SITES_STREAM)}) {
        for (const char *subject : {"STREAM.INFO.{}", "STREAM.CREATE.{}", "CONSUMER.CREATE.{}", "CONSUMER.CREATE.{}.>",
                                    "CONSUMER.DELETE.{}.*", "DIRECT.GET.{}", "DIRECT.GET.{}.>"})
            may.publish.push_back("$JS.API." + fmt::format(fmt::runtime(subject), stream));
    }
    may.publish.emplace_back("$JS.FC.>"); // answers where a stream asks whether it may go on
    return may;
}

static rights rights_of_reader(const std::string &reader)
{
    rights may{{}, {fleet::inbox_of(reader) + ".>"}};
    for (const char *subject :
         {"$JS.API.STREAM.INFO.{}", "$JS.API.CONSUMER.CREATE.{}", "$JS.API.CONSUMER.DURABLE.CREATE.{}.*",
          "$JS.API.CONSUMER.INFO.{}.*", "$JS.API.CONSUMER.MSG.NEXT.{}.*", "$JS.ACK.{}.>"})
        may.publish.push_back(fmt::format(fmt::runtime(subject), fleet::EVENTS_STREAM));
    return may;
}

static std::string user_lines(const std::string &name, const std::string &what, const rights &may)
{
    // One right a line, so that a difference names it.
    const auto lines = [](const std::vector<std::string> &subjects) {
        std::string text;
        for (const std::string &subject : subjects)
            text += fmt::format("          \"{}\"\n", subject);
        return text;
    };
    return fmt::format("      # {}\n"
                       "      {{ user: \"CN={}\", permissions: {{\n"
                       "        publish: [\n{}        ]\n"
                       "        subscribe: [\n{}        ]\n"
                       "      }} }}\n",
                       what, name, lines(may.publish), lines(may.subscribe));
}

// -------------------------------------------------------------------------------------------------------- configuration

std::string server_configuration(const fleet_list &list, const fleet_list::server &server)
{
    // An address is also where the server listens; a name may mean another address at the machine that has it.
    const std::string here = is_ip_address(server.address) ? server.address : "0.0.0.0";
    const std::string tls =
        fmt::format("cert_file: \"{0}/{1}.pem\", key_file: \"{0}/{1}.pem\", ca_file: \"{0}/ca.pem\", "
                    "verify_and_map: true, timeout: 5",
                    list.certificates, server.name);
    std::string text = fmt::format("# Written by fxmctl fleet config for the server {0} of the fleet {1}.\n"
                                   "server_name: \"{0}\"\n"
                                   "listen: \"{2}\"\n"
                                   "client_advertise: \"{3}\"\n"
                                   "# The subject of its certificate is the user of a connection.\n"
                                   "tls {{ {4} }}\n"
                                   "# A server that is cut off must not hold up the election of another leader.\n"
                                   "write_deadline: \"2s\"\n"
                                   "jetstream {{ store_dir: \"{5}/{0}\", max_file_store: {6}GiB }}\n",
                                   server.name, list.name, with_port(here, CLIENTS), with_port(server.address, CLIENTS),
                                   tls, list.store, list.store_gib);
    if (list.servers.size() > 1) {
        std::string routes;
        for (const fleet_list::server &other : list.servers) {
            if (other.name != server.name)
                routes += fmt::format("    \"nats-route://{}\"\n", with_port(other.address, ROUTES));
        }
        text += fmt::format(
            "cluster {{\n"
            "  name: \"{}\"\n"
            "  listen: \"{}\"\n"
            "  cluster_advertise: \"{}\"\n"
            "  # Sites and users have certificates of the same authority; only those of servers have this name.\n"
            "  tls {{ {} }}\n"
            "  authorization {{ user: \"{}\" }}\n"
            "  routes: [\n{}  ]\n"
            "}}\n",
            list.name, with_port(here, ROUTES), with_port(server.address, ROUTES), tls, name_of_servers(list), routes);
    }
    text += "accounts {\n  FXM {\n    jetstream: enabled\n    users: [\n";
    for (const std::string &site : list.sites)
        text += user_lines(site, "a site", rights_of_site(list, site));
    for (const fleet_list::user &user : list.users)
        text += user_lines(user.name, fmt::format("a user, may ask for {}", user.role), rights_of_user(user));
    for (const std::string &reader : list.readers)
        text += user_lines(reader, "a reader of the events", rights_of_reader(reader));
    return text + "    ]\n  }\n}\n";
}

static std::string quoted_urls(const fleet_list &list)
{
    std::vector<std::string> urls;
    for (const fleet_list::server &server : list.servers)
        urls.push_back(fmt::format("\"nats://{}\"", with_port(server.address, CLIENTS)));
    return fmt::format("[{}]", fmt::join(urls, ", "));
}

static void show_places(const fleet_list &list, const fs::path &dir)
{
    const std::string from = dir.string();
    put("\nCopy these files. Each .pem but ca.pem holds a key: nobody else may read it.\n");
    for (const fleet_list::server &server : list.servers)
        put(fmt::format("\nServer {0} ({1}), owner nats (mode 600):\n"
                        "  {2}/{0}.conf  to /etc/nats-server.conf\n"
                        "  {2}/ca.pem, {2}/{0}.pem  to {3}/\n",
                        server.name, server.address, from, list.certificates));
    put(fmt::format("\nEach server, /etc/systemd/system/nats-server.service.d/fxm.conf:\n"
                    "  [Service]\n"
                    "  # It gives memory back before it has more than this.\n"
                    "  Environment=GOMEMLIMIT={}MiB\n"
                    "{}"
                    "then: systemctl daemon-reload && systemctl restart nats-server\n"
                    "Where only users and sites have changed: systemctl reload nats-server\n",
                    list.memory_mib,
                    list.store == "/var/lib/nats" ? "  StateDirectory=nats\n"
                                                  : fmt::format("and: install -d -o nats -g nats {}\n", list.store)));
    std::string reached; // its unit lets fxmd reach this machine alone
    for (const fleet_list::server &server : list.servers)
        reached += ' ' + (is_ip_address(server.address) ? server.address : "ADDRESS-OF-" + server.name);
    for (const std::string &site : list.sites)
        put(fmt::format("\nSite {0}, group fxm (mode 640):\n"
                        "  {1}/ca.pem  to /etc/fxm/fleet-ca.pem\n"
                        "  {1}/{0}.pem  to /etc/fxm/fleet-{0}.pem\n"
                        "  /etc/fxm/fxmd.toml:\n"
                        "  [fleet]\n"
                        "  urls = {2}\n"
                        "  site = \"{0}\"\n"
                        "  ca = \"/etc/fxm/fleet-ca.pem\"\n"
                        "  certificate = \"/etc/fxm/fleet-{0}.pem\"\n"
                        "  systemctl edit fxmd:\n"
                        "  [Service]\n"
                        "  IPAddressAllow={3}\n",
                        site, from, quoted_urls(list), reached.substr(1)));
    for (const fleet_member &member : members_of(list)) {
        if (member.what == "user" || member.what == "reader")
            put(fmt::format("\nThe {0} {1}: {2}/ca.pem and {2}/{1}.pem; servers {3}, inbox {4}\n", member.what,
                            member.name, from, quoted_urls(list), fleet::inbox_of(member.name)));
    }
}

int write_configuration(session *all, const fleet_list &list, const fs::path &dir)
{
    json::array files;
    std::error_code error;
    if (!all->how.dry_run && !fs::is_directory(dir) && !fs::create_directories(dir, error))
        throw ctl_error(EXIT_FAILED, fmt::format("cannot make the directory {}: {}", dir.string(), error.message()));
    for (const fleet_list::server &server : list.servers) {
        const fs::path file = dir / (server.name + ".conf");
        const std::string next = server_configuration(list, server);
        const auto now = text_of(file);
        const char *state = !now ? "new" : *now == next ? "same" : "changed";
        if (!all->how.json) {
            put(fmt::format("{:<8} {}\n", state, file.string()));
            if (now)
                put(run_program({"diff", "-U1", "--label", "before", "--label", "after", file.string(), "-"},
                                "diffutils", next)
                        .output);
        }
        if (!all->how.dry_run && now != next)
            write_whole(file, next, 0644, true);
        files.push_back(json::object{{"file", file.string()}, {"state", state}});
    }
    if (all->how.json)
        put(json::serialize(json::object{{"schema", "fxm/1"}, {"files", std::move(files)}}) + "\n");
    else if (all->how.dry_run)
        put("Nothing was written.\n");
    else
        show_places(list, dir);
    return EXIT_DONE;
}

} // namespace fxm
