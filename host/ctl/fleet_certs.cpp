// The certificates of a fleet, by the program openssl.
#include <fmt/format.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "ctl/fleet.h"
#include "ctl/program.h"

namespace fxm
{

namespace fs = std::filesystem;
namespace json = boost::json;

constexpr unsigned AUTHORITY_DAYS = 3650;

std::vector<fleet_member> members_of(const fleet_list &list)
{
    std::vector<fleet_member> all;
    for (const fleet_list::server &server : list.servers)
        all.push_back({server.name, "server", server.address});
    for (const std::string &site : list.sites)
        all.push_back({site, "site", ""});
    for (const fleet_list::user &user : list.users)
        all.push_back({user.name, "user", ""});
    for (const std::string &reader : list.readers)
        all.push_back({reader, "reader", ""});
    return all;
}

std::string name_of_servers(const fleet_list &list) { return "servers." + list.name; }

// ----------------------------------------------------------------------------------------------------------------- looking

static program_result openssl(std::vector<std::string> words)
{
    words.insert(words.begin(), "openssl");
    return run_program(words, "openssl");
}

static std::string openssl_reason(const program_result &done)
{
    // "error 10 at 0 depth lookup: certificate has expired", or the last line of a list of errors.
    std::string_view text = done.errors;
    if (const size_t lookup = text.find("lookup: "); lookup != std::string_view::npos)
        text = text.substr(lookup + 8);
    else if (const size_t last = text.find_last_of('\n', text.size() < 2 ? 0 : text.size() - 2);
             last != std::string_view::npos)
        text = text.substr(last + 1);
    return std::string(text.substr(0, text.find('\n')));
}

static std::string public_key_in(const std::string &text)
{
    const size_t begin = text.find("-----BEGIN PUBLIC KEY");
    return begin == std::string::npos ? "" : text.substr(begin, text.find("-----END", begin) - begin);
}

// A certificate with its key; with `member`, for what it is used.
static certificate_state look(const fs::path &certificate, const fs::path &key, const fs::path &authority,
                              const fleet_list *list, const fleet_member *member)
{
    std::vector<std::string> question{"x509",    "-in",      certificate.string(), "-noout",   "-subject", "-nameopt",
                                      "RFC2253", "-enddate", "-dateopt",           "iso_8601", "-pubkey"};
    const bool is_server = member != nullptr && !member->address.empty();
    if (is_server)
        question.insert(question.end(), {is_ip_address(member->address) ? "-checkip" : "-checkhost", member->address});
    const program_result shown = openssl(question);
    if (shown.status != 0)
        return {"it is no certificate: " + openssl_reason(shown)};
    const program_result checked = openssl({"verify", "-CAfile", authority.string(), "-no-CApath", "-no-CAstore",
                                            "-purpose", member == nullptr ? "any" : "sslclient", certificate.string()});
    if (checked.status != 0)
        return {fmt::format("{} does not vouch for it: {}", authority.filename().string(), openssl_reason(checked))};
    if (member != nullptr && shown.output.find(fmt::format("subject=CN={}\n", member->name)) == std::string::npos)
        return {fmt::format("it is not for {}", member->name)};
    if (is_server && shown.output.find("does match certificate") == std::string::npos)
        return {fmt::format("it is not for the address {}", member->address)};
    if (is_server && openssl({"x509", "-in", certificate.string(), "-noout", "-checkhost", name_of_servers(*list)})
                             .output.find("does match certificate") == std::string::npos)
        return {fmt::format("it is not for a server of the fleet {}", list->name)};
    // The authority may keep its key elsewhere.
    if (member != nullptr || fs::exists(key)) {
        const program_result own = openssl({"pkey", "-in", key.string(), "-pubout"});
        if (own.status != 0 || public_key_in(own.output) != public_key_in(shown.output))
            return {fmt::format("{} has not the key of this certificate", key.filename().string())};
    }
    tm date{};
    const size_t end = shown.output.find("notAfter=");
    if (end == std::string::npos ||
        strptime(shown.output.c_str() + end, "notAfter=%Y-%m-%d %H:%M:%SZ", &date) == nullptr)
        return {"openssl does not say until when it is valid; this takes version 3 or later"};
    return {"", static_cast<int64_t>(timegm(&date)) * 1000};
}

certificate_state look_at_certificate(const fleet_list &list, const fs::path &dir, const fleet_member &member)
{
    const fs::path file = dir / (member.name + ".pem");
    return look(file, file, dir / "ca.pem", &list, &member);
}

certificate_state look_at_authority(const fs::path &dir)
{
    return look(dir / "ca.pem", dir / "ca.key", dir / "ca.pem", nullptr, nullptr);
}

// ------------------------------------------------------------------------------------------------------------------ making

// A directory for what is not finished, gone at the end.
class workshop
{
  public:
    explicit workshop(const fs::path &dir) : path_((dir / ".fxmctl-XXXXXX").string())
    {
        if (mkdtemp(path_.data()) == nullptr)
            throw ctl_error(EXIT_FAILED, fmt::format("cannot write to {}: {}", dir.string(), strerror(errno)));
    }
    ~workshop()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    workshop(const workshop &) = delete;
    workshop &operator=(const workshop &) = delete;
    fs::path file(const char *name) const { return fs::path(path_) / name; }

  private:
    std::string path_;
};

static void must(const program_result &done, const std::string &what)
{
    if (done.status != 0)
        throw ctl_error(EXIT_FAILED, fmt::format("openssl could not make {}: {}", what, openssl_reason(done)));
}

static std::vector<std::string> certificate_order(const workshop &place, const std::string &subject, unsigned days,
                                                  const std::string &extensions)
{
    // The system's own configuration would make each of them an authority.
    write_whole(place.file("conf"),
                "[req]\ndistinguished_name = subject\nx509_extensions = use\n[subject]\n[use]\n"
                "subjectKeyIdentifier = hash\n" +
                    extensions,
                0600, true);
    return {"req",
            "-x509",
            "-sha256",
            "-config",
            place.file("conf").string(),
            "-subj",
            "/CN=" + subject,
            "-days",
            std::to_string(days),
            "-out",
            place.file("certificate").string()};
}

static void make_key(const workshop &place, const std::string &what)
{
    must(openssl({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
                  place.file("key").string()}),
         what);
}

static void make_authority(const fleet_list &list, const fs::path &dir)
{
    const workshop place(dir);
    const fs::path key = dir / "ca.key";
    if (!fs::exists(key)) {
        make_key(place, key.string());
        write_whole(key, text_of(place.file("key")).value_or(""), 0600, false);
    }
    auto order = certificate_order(place, list.name + " fleet", AUTHORITY_DAYS,
                                   "basicConstraints = critical, CA:TRUE, pathlen:0\n"
                                   "keyUsage = critical, keyCertSign, cRLSign\n");
    order.insert(order.end(), {"-key", key.string()});
    must(openssl(order), "ca.pem");
    write_whole(dir / "ca.pem", text_of(place.file("certificate")).value_or(""), 0644, false);
}

static void make_member(const fleet_list &list, const fs::path &dir, const fleet_member &member, unsigned days)
{
    const workshop place(dir);
    const fs::path file = dir / (member.name + ".pem");
    std::string extensions = "basicConstraints = critical, CA:FALSE\nkeyUsage = critical, digitalSignature\n";
    // A server is the client of another one.
    if (member.address.empty())
        extensions += "extendedKeyUsage = clientAuth\n";
    else
        extensions += fmt::format("extendedKeyUsage = serverAuth, clientAuth\nsubjectAltName = {}:{}, DNS:{}\n",
                                  is_ip_address(member.address) ? "IP" : "DNS", member.address, name_of_servers(list));
    make_key(place, file.string());
    auto order = certificate_order(place, member.name, days, extensions);
    order.insert(order.end(), {"-key", place.file("key").string(), "-CA", (dir / "ca.pem").string(), "-CAkey",
                               (dir / "ca.key").string()});
    must(openssl(order), file.string());
    write_whole(file, text_of(place.file("certificate")).value_or("") + text_of(place.file("key")).value_or(""), 0600,
                false);
}

static std::string day_of(int64_t ms)
{
    const time_t seconds = ms / 1000;
    tm date{};
    char text[16];
    gmtime_r(&seconds, &date);
    strftime(text, sizeof(text), "%Y-%m-%d", &date);
    return text;
}

int make_certificates(session *all, const fleet_list &list, const fs::path &dir, unsigned days)
{
    if (!all->how.dry_run && !fs::is_directory(dir)) {
        std::error_code error;
        if (fs::create_directories(dir, error))
            fs::permissions(dir, fs::perms::owner_all, error);
        if (error)
            throw ctl_error(EXIT_FAILED,
                            fmt::format("cannot make the directory {}: {}", dir.string(), error.message()));
    }
    openssl({"version"}); // throws before the first file if it is not there
    json::array files;
    table shown({"FILE", "OF", "STATE", "VALID UNTIL"});
    std::string faults;
    const auto take = [&](const std::string &name, const std::string &what, const std::string &advice, const auto &make,
                          const auto &look_at) {
        const fs::path file = dir / (name + ".pem");
        const bool is_there = fs::exists(file);
        if (!is_there && !all->how.dry_run)
            make();
        const certificate_state now = is_there || !all->how.dry_run ? look_at() : certificate_state{};
        const char *state = !now.fault.empty() ? "unusable" : is_there ? "kept" : all->how.dry_run ? "missing" : "made";
        if (!now.fault.empty())
            faults += fmt::format("\n{}: {}; {}", file.string(), now.fault, advice);
        shown.add({file.string(), what, state, now.until_ms == 0 ? "-" : day_of(now.until_ms)});
        files.push_back(
            json::object{{"file", file.string()},
                         {"state", state},
                         {"until_ms", now.until_ms == 0 ? json::value(nullptr) : json::value(now.until_ms)}});
    };
    take(
        "ca", "the fleet", "without it every certificate must be made anew: begin in another directory",
        [&] { make_authority(list, dir); }, [&] { return look_at_authority(dir); });
    for (const fleet_member &member : faults.empty() ? members_of(list) : std::vector<fleet_member>()) {
        take(
            member.name, member.address.empty() ? member.what : member.what + " " + member.address,
            "move it away, and run this again",
            [&] {
                if (!fs::exists(dir / "ca.key"))
                    throw ctl_error(
                        EXIT_FAILED,
                        fmt::format("{}.pem cannot be made: there is no {}", member.name, (dir / "ca.key").string()),
                        "bring the key of ca.pem back for this");
                make_member(list, dir, member, days);
            },
            [&] { return look_at_certificate(list, dir, member); });
    }
    if (all->how.json)
        put(json::serialize(json::object{{"schema", "fxm/1"}, {"files", std::move(files)}}) + "\n");
    else
        shown.print({}, false);
    if (!faults.empty())
        throw ctl_error(EXIT_FAILED, "not every certificate can be used:" + faults);
    return EXIT_DONE;
}

} // namespace fxm
