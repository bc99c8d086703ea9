// The configuration of fxmd: one TOML file, checked whole. One table in config_keys.cpp has every key with its type, range,
// default and description; the sample file and the messages come from it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace fxm
{

struct config {
    std::vector<std::string> ports;
    bool eeprom_writer = false;
    uint32_t max_cards = 0;
    int64_t forget_after_ms = 0; // 0: never
    std::string run_dir;
    std::string state_dir;

    std::string socket;
    std::string listen;     // empty: no loopback address
    std::string token_file; // empty: none
    std::string group_view, group_operate, group_admin;
    uint32_t max_clients = 0;

    bool history_enabled = false;
    uint32_t history_days = 0;
    uint32_t history_max_events = 0;

    std::string log_level;

    std::vector<std::string> fleet_urls; // empty: no fleet
    std::string fleet_site;
    std::string fleet_ca, fleet_certificate; // files; empty: without TLS
    std::string fleet_allow;                 // the most that a request of the fleet may do: the word of a role

    std::map<std::string, std::string> library; // keys of the library's own configuration that the file sets
};

// what() has a line for each error: "FILE:LINE: KEY = VALUE: what is expected".
class config_error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

// What a file is for: an fxmd with ports, or an operations room, which has a part of the keys.
enum class config_of { fxmd, room };

config load_config(const std::filesystem::path &file, config_of what = config_of::fxmd); // throws config_error

// Of all management frames: what `settings` has set, or the default.
uint16_t ether_type_of(const config &settings);

// A file with every key, its description and its default.
std::string sample_config(config_of what = config_of::fxmd);

struct changed_key {
    std::string name;
    bool reloadable;
};
std::vector<changed_key> changed_keys(const config &before, const config &next);

// `before` with those values of `next` that need no restart.
config reloaded(const config &before, const config &next);

} // namespace fxm
