// The fields, the values that they accept, and their places in the card.
#include "fields.h"

#include <algorithm>

#include "text.h"
#include "wire.h"

using std::string_view;

enum : unsigned { OF_FXSV = 1U << FXSV, OF_FXIO = 1U << FXIO, OF_BOTH = OF_FXSV | OF_FXIO };

struct field_rule_t {
    const char *name;
    unsigned of;
    const char *takes;
    bool (*set)(card_t &card, string_view value);
};

// A word from a list; its position is the value.
template <typename T> static bool _choice(string_view value, std::initializer_list<string_view> words, T &out)
{
    const auto found = std::find(words.begin(), words.end(), value);
    if (found == words.end())
        return false;
    out = static_cast<T>(found - words.begin());
    return true;
}

template <typename T> static bool _hex(string_view value, size_t digits, T &out)
{
    u64 number = 0;
    if (!text_hex(value, digits, number))
        return false;
    out = static_cast<T>(number);
    return true;
}

template <typename T> static bool _number(string_view value, u64 max, T &out)
{
    u64 number = 0;
    if (!text_number(value, max, number))
        return false;
    out = static_cast<T>(number);
    return true;
}

template <typename T> static bool _flag(string_view value, T bit, T &out)
{
    bool on = false;
    if (!text_bool(value, on))
        return false;
    out = static_cast<T>(on ? out | bit : out & ~bit);
    return true;
}

static bool _set_ports(card_t &card, string_view value)
{
    if (value != "0" && value != "1" && value != "0,1")
        return false;
    std::array<bool, PORTS> on{};
    for (unsigned port = 0; port < PORTS; port++) {
        on[port] = value.find(static_cast<char>('0' + port)) != value.npos;
        if (on[port] && !wire_is_open(port))
            return false;
    }
    card.on_port = on;
    return true;
}

static bool _set_sw(card_t &card, string_view value)
{
    u32 bytes = 0;
    if (!_hex(value, 6, bytes))
        return false;
    card.sw = {static_cast<u8>(bytes >> 16), static_cast<u8>(bytes >> 8), static_cast<u8>(bytes)};
    return true;
}

static bool _set_version(card_t &card, string_view value)
{
    u8 version = 0;
    if (!_number(value, SW1_VERSION, version))
        return false;
    card.sw[1] = static_cast<u8>((card.sw[1] & ~SW1_VERSION) | version);
    return true;
}

static bool _set_bus(card_t &card, string_view value)
{
    std::array<u8, 3> bus{};
    for (size_t i = 0; i < bus.size(); i++) {
        const size_t comma = value.find(',');
        if ((comma == value.npos) != (i == bus.size() - 1) || !_number(value.substr(0, comma), 0xff, bus[i]))
            return false;
        value.remove_prefix(std::min(comma, value.size() - 1) + 1);
    }
    card.bus = bus;
    return true;
}

static bool _set_generation(card_t &card, string_view value) { return _choice(value, {"1g", "40g"}, card.is_40g); }

static bool _set_lock(card_t &card, string_view value) { return _choice(value, {"bit", "id"}, card.lock); }

static bool _set_layout(card_t &card, string_view value) { return _choice(value, {"normal", "change"}, card.layout); }

static bool _set_forms(card_t &card, string_view value)
{
    return _choice(value, {"both", "split", "plain"}, card.eeprom.forms);
}

static bool _set_engine(card_t &card, string_view value)
{
    return _choice(value, {"normal", "busy", "stuck", "refuse", "hang"}, card.eeprom.kind);
}

static bool _set_down(down_port_t &down, string_view value)
{
    u64 mac = 0;
    if (value != "none" && !text_mac(value, mac))
        return false;
    down.io_mac = mac;
    down.status = static_cast<u16>(value == "none" ? down.status & ~STATUS_CONNECTED : down.status | STATUS_CONNECTED);
    return true;
}

static constexpr field_rule_t _field_rules[] = {
    {"gen", OF_BOTH, "1g or 40g", _set_generation},
    {"ports", OF_BOTH, "0, 1 or 0,1, and fxmsim must have an interface for each", _set_ports},
    {"vlan", OF_BOTH, "0 to 4095", [](card_t &c, string_view v) { return _number(v, 4095, c.vlan); }},
    {"layout", OF_BOTH, "normal or change", _set_layout},
    {"int", OF_BOTH, "two hexadecimal digits", [](card_t &c, string_view v) { return _hex(v, 2, c.sw[2]); }},
    {"flow", OF_BOTH, "two hexadecimal digits", [](card_t &c, string_view v) { return _hex(v, 2, c.flow); }},
    {"link", OF_BOTH, "two hexadecimal digits", [](card_t &c, string_view v) { return _hex(v, 2, c.link); }},
    {"sw", OF_BOTH, "six hexadecimal digits", _set_sw},
    {"ver", OF_BOTH, "0 to 15", _set_version},
    {"port0link", OF_BOTH, "yes or no", [](card_t &c, string_view v) { return _flag(v, SW1_PORT0_LINK, c.sw[1]); }},
    {"port1link", OF_BOTH, "yes or no", [](card_t &c, string_view v) { return _flag(v, SW1_PORT1_LINK, c.sw[1]); }},
    {"uidsw", OF_BOTH, "yes or no", [](card_t &c, string_view v) { return text_bool(v, c.uidsw); }},
    {"power", OF_BOTH, "yes or no", [](card_t &c, string_view v) { return text_bool(v, c.power); }},
    {"presence", OF_FXIO, "yes or no", [](card_t &c, string_view v) { return _flag(v, SW1_PRESENCE, c.sw[1]); }},
    {"connected", OF_FXIO, "yes or no",
     [](card_t &c, string_view v) { return _flag(v, STATUS_CONNECTED, c.substate); }},
    {"substate", OF_FXIO, "four hexadecimal digits", [](card_t &c, string_view v) { return _hex(v, 4, c.substate); }},
    {"server", OF_FXIO, "a MAC", [](card_t &c, string_view v) { return text_mac(v, c.server); }},
    {"vendor", OF_FXIO, "four hexadecimal digits", [](card_t &c, string_view v) { return _hex(v, 4, c.vendor); }},
    {"device", OF_FXIO, "four hexadecimal digits", [](card_t &c, string_view v) { return _hex(v, 4, c.device); }},
    {"class", OF_FXIO, "six hexadecimal digits", [](card_t &c, string_view v) { return _hex(v, 6, c.pci_class); }},
    {"mr", OF_FXIO, "0 to 65535", [](card_t &c, string_view v) { return _number(v, 0xffff, c.mr); }},
    {"fault0", OF_FXIO, "yes or no", [](card_t &c, string_view v) { return text_bool(v, c.fault0); }},
    {"fault1", OF_FXIO, "yes or no", [](card_t &c, string_view v) { return text_bool(v, c.fault1); }},
    {"bus", OF_FXSV, "P,S,B, each 0 to 255", _set_bus},
    {"locktype", OF_BOTH, "bit or id", _set_lock},
    {"forms", OF_BOTH, "both, split or plain", _set_forms},
    {"engine", OF_BOTH, "normal, busy, stuck, refuse or hang", _set_engine},
    {"looks", OF_BOTH, "a number", [](card_t &c, string_view v) { return _number(v, UINT32_MAX, c.eeprom.looks); }},
};

// downN and statusN.
static bool _is_numbered(string_view name, string_view prefix, unsigned &n)
{
    return name.starts_with(prefix) && _number(name.substr(prefix.size()), DOWN_PORTS - 1, n);
}

bool field_set(card_t &card, string_view assignment, std::string &why)
{
    const size_t equals = assignment.find('=');
    if (equals == assignment.npos) {
        why = std::string(assignment) + ": expected FIELD=VALUE";
        return false;
    }
    const string_view name = assignment.substr(0, equals);
    const string_view value = assignment.substr(equals + 1);
    unsigned of = 0;
    unsigned n = 0;
    const char *takes = "";

    if (_is_numbered(name, "down", n)) {
        of = OF_FXSV;
        takes = "a MAC or none";
        if (card.cls == FXSV && _set_down(card.down[n], value))
            return true;
    } else if (_is_numbered(name, "status", n)) {
        of = OF_FXSV;
        takes = "four hexadecimal digits";
        if (card.cls == FXSV && _hex(value, 4, card.down[n].status))
            return true;
    } else {
        for (const field_rule_t &rule : _field_rules)
            if (name == rule.name) {
                of = rule.of;
                takes = rule.takes;
                if ((of & 1U << card.cls) && rule.set(card, value))
                    return true;
            }
    }
    if (of == 0)
        why = std::string(name) + ": there is no such field";
    else if (!(of & 1U << card.cls))
        why = std::string(name) + ": no field of an " + (card.cls == FXSV ? "FXSV" : "FXIO") + " card";
    else
        why = std::string(assignment) + ": " + std::string(name) + " takes " + takes;
    return false;
}
