// A fleet as its list names it, and what fxmctl makes of the list: certificates, and the configuration of the servers.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "ctl/commands.h"

namespace fxm
{

struct fleet_list {
    struct server {
        std::string name;
        std::string address; // an IP address or the name of a machine
    };
    struct user {
        std::string name;
        std::string role; // the most that it may ask for
    };
    std::string name; // of the cluster
    std::vector<std::string> sites;
    std::vector<server> servers;
    std::vector<user> users;
    std::vector<std::string> readers;           // keep their place in the stream of events
    std::string certificates = "/etc/nats";     // on the servers
    std::string store = "/var/lib/nats";        // on the servers, with a directory for each below
    unsigned store_gib = 20, memory_mib = 1024; // of each server
};

// Throws with every error of the file, one a line.
fleet_list load_fleet_list(const std::string &file);

bool is_ip_address(const std::string &text);
std::string with_port(const std::string &address, unsigned port); // 10.0.0.1:4222, [fd00::1]:4222

// --------------------------------------------------------------------------------------------------------- certificates

// Whoever has a certificate. Its file is NAME.pem.
struct fleet_member {
    std::string name;
    std::string what;    // "site", for people
    std::string address; // of a server; otherwise empty
};

std::vector<fleet_member> members_of(const fleet_list &list);

// In the certificate of each server and in no other, so that nobody else may pass for a server.
std::string name_of_servers(const fleet_list &list);

struct certificate_state {
    std::string fault;    // why it cannot be used; empty: it can
    int64_t until_ms = 0; // where there is no fault
};

// Looks at the certificate and the key of a member, or of the authority itself.
certificate_state look_at_certificate(const fleet_list &list, const std::filesystem::path &dir,
                                      const fleet_member &member);
certificate_state look_at_authority(const std::filesystem::path &dir);

int make_certificates(session *all, const fleet_list &list, const std::filesystem::path &dir, unsigned days);

// ------------------------------------------------------------------------------------------------------- configuration

std::string server_configuration(const fleet_list &list, const fleet_list::server &server);
int write_configuration(session *all, const fleet_list &list, const std::filesystem::path &dir);

std::optional<std::string> text_of(const std::filesystem::path &file); // nothing if it is not there
// Writes to a temporary name, and renames that. Never over another file, unless `replace`.
void write_whole(const std::filesystem::path &file, const std::string &text, unsigned mode, bool replace);

// -------------------------------------------------------------------------------------------------------------- doctor

int run_fleet_doctor(session *all, const std::string &list_file, const std::filesystem::path &dir);

} // namespace fxm
