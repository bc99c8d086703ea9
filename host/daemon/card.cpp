#include "daemon/card.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "common/card_id.h"
#include "common/error.h"

namespace fxm
{

// ------------------------------------------------------------------------------------------------------------ records

std::optional<record> read_record(uint64_t id)
{
    auto server = std::make_unique<fxm_fxsv_t>();
    if (fxm_get_fxsv(id, server.get()) == FXM_API_SUCCESS)
        return record(std::move(server));
    fxm_fxio_t device;
    if (fxm_get_fxio(id, &device) == FXM_API_SUCCESS)
        return record(device);
    return std::nullopt;
}

const fxm_fxsv_t *fxsv(const record &data)
{
    const auto *server = std::get_if<std::unique_ptr<fxm_fxsv_t>>(&data);
    return server != nullptr ? server->get() : nullptr;
}

const fxm_fxio_t *fxio(const record &data) { return std::get_if<fxm_fxio_t>(&data); }

const fxm_card_data_t &common(const record &data)
{
    const fxm_fxsv_t *server = fxsv(data);
    return server != nullptr ? server->fsv_card : std::get<fxm_fxio_t>(data).fio_card;
}

record copy(const record &data)
{
    if (const fxm_fxsv_t *server = fxsv(data))
        return std::make_unique<fxm_fxsv_t>(*server);
    return *fxio(data);
}

void take_channels_down(record *data)
{
    auto *server = std::get_if<std::unique_ptr<fxm_fxsv_t>>(data);
    fxm_card_data_t &card = server != nullptr ? (*server)->fsv_card : std::get<fxm_fxio_t>(*data).fio_card;
    memset(card.fcd_state, 0, sizeof(card.fcd_state));
}

int64_t seen_ms(const record &data)
{
    uint64_t last = 0;
    for (const auto &port : common(data).fcd_recvtime) {
        for (const uint64_t time : port)
            last = std::max(last, time);
    }
    return static_cast<int64_t>(last);
}

static uint64_t pack(const uint8_t (&mac)[6])
{
    uint64_t id = 0;
    for (const uint8_t byte : mac)
        id = id << 8 | byte;
    return id;
}

static bool is_connected(const uint8_t (&status)[2]) { return (status[1] & FXM_CONNECTED_BIT) != 0; }

// A 1G/10G card has the first eight of the record's down ports.
static unsigned down_port_count(const fxm_fxsv_t &server)
{
    return server.fsv_card.fcd_type == 0 ? FXM_DOWN_PORTS / 2 : FXM_DOWN_PORTS;
}

health health_of(const card &card)
{
    if (!card.monitored)
        return health::unmonitored;
    const fxm_card_data_t &data = common(card.data);
    if (data.fcd_int_vector != 0)
        return health::error;
    unsigned up = 0;
    unsigned down = 0;
    for (size_t p = 0; p < 2; ++p) {
        for (size_t m = 0; m < 2; ++m) {
            up += data.fcd_state[p][m] != 0 ? 1 : 0;
            down += data.fcd_state[p][m] == 0 && data.fcd_recvtime[p][m] != 0 ? 1 : 0;
        }
    }
    if (up == 0)
        return health::lost;
    const fxm_fxio_t *device = fxio(card.data);
    const bool fault = device != nullptr && (device->fio_link0fault != 0 || device->fio_link1fault != 0);
    return down != 0 || fault ? health::degraded : health::well;
}

facts facts_of(const card &card)
{
    const fxm_card_data_t &data = common(card.data);
    facts result;
    result.id = card.id;
    result.vlan = data.fcd_vlan_id;
    result.state = health_of(card);
    result.is_40g = data.fcd_type != 0;
    result.int_vector = data.fcd_int_vector;
    if (const fxm_fxsv_t *server = fxsv(card.data)) {
        result.kind = card_class::fxsv;
        for (unsigned i = 0; i < down_port_count(*server); ++i) {
            const fxm_down_port_t &port = server->fsv_down_port[i];
            if (is_connected(port.fdp_port_status))
                result.partners[result.partner_count++] = pack(port.fdp_io_mac);
        }
    } else {
        const fxm_fxio_t &device = *fxio(card.data);
        result.kind = card_class::fxio;
        result.vendor = device.fio_vendor_id;
        result.device = device.fio_device_id;
        if (is_connected(device.fio_substate))
            result.partners[result.partner_count++] = pack(device.fio_sermacaddr);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------------- JSON of a member

using text = std::string;

template <typename... Args> static void put(text *out, Args &&...args)
{
    fmt::format_to(std::back_inserter(*out), std::forward<Args>(args)...);
}

static void put_id(text *out, uint64_t id)
{
    *out += '"';
    append_id(out, id);
    *out += '"';
}

static void put_bool(text *out, bool value) { *out += value ? "true" : "false"; }

static void put_time(text *out, int64_t time)
{
    if (time == 0)
        *out += "null";
    else
        put(out, FMT_COMPILE("{}"), time);
}

static const char *channel_word(const fxm_card_data_t &card, size_t p, size_t m)
{
    if (card.fcd_state[p][m] != 0)
        return "\"up\"";
    return card.fcd_recvtime[p][m] != 0 ? "\"down\"" : "null";
}

static void put_channels(text *out, const fxm_card_data_t &card)
{
    put(out, FMT_COMPILE(R"({{"p0m0":{},"p0m1":{},"p1m0":{},"p1m1":{}}})"), channel_word(card, 0, 0),
        channel_word(card, 0, 1), channel_word(card, 1, 0), channel_word(card, 1, 1));
}

static void put_partners(text *out, const card &card)
{
    const facts known = facts_of(card);
    *out += '[';
    for (size_t i = 0; i < known.partner_count; ++i) {
        if (i != 0)
            *out += ',';
        put_id(out, known.partners[i]);
    }
    *out += ']';
}

// What only one class has.
template <typename Put> static void put_fxio(text *out, const card &card, Put put_value)
{
    if (const fxm_fxio_t *device = fxio(card.data))
        put_value(*device);
    else
        *out += "null";
}

struct member {
    const char *name;
    bool changes; // an event names its old and new value
    void (*put)(text *out, const card &card);
};

template <int Port, int Mac> static void put_channel(text *out, const card &c)
{
    *out += channel_word(common(c.data), Port, Mac);
}

// In the order of the document. The parts of `channels` stand behind it: events name them, and a list can.
static constexpr member members[] = {
    {"id", false, [](text *out, const card &c) { put_id(out, c.id); }},
    {"class", true, [](text *out, const card &c) { *out += fxsv(c.data) != nullptr ? "\"fxsv\"" : "\"fxio\""; }},
    {"generation", true,
     [](text *out, const card &c) { *out += common(c.data).fcd_type != 0 ? "\"40G\"" : "\"1/10G\""; }},
    {"vlan", true, [](text *out, const card &c) { put(out, FMT_COMPILE("{}"), common(c.data).fcd_vlan_id); }},
    {"health", true, [](text *out, const card &c) { put(out, FMT_COMPILE("\"{}\""), word(health_of(c))); }},
    {"monitored", true, [](text *out, const card &c) { put_bool(out, c.monitored); }},
    {"channels", false, [](text *out, const card &c) { put_channels(out, common(c.data)); }},
    {"int_vector", true, [](text *out, const card &c) { put(out, FMT_COMPILE("{}"), common(c.data).fcd_int_vector); }},
    {"version", true, [](text *out, const card &c) { put(out, FMT_COMPILE("{}"), common(c.data).fcd_ver); }},
    {"layout", true,
     [](text *out, const card &c) { *out += common(c.data).fcd_vlan_mode != 0 ? "\"type-first\"" : "\"tag-first\""; }},
    {"seen_ms", false, [](text *out, const card &c) { put_time(out, seen_ms(c.data)); }},
    {"updated_ms", false,
     [](text *out, const card &c) { put_time(out, static_cast<int64_t>(common(c.data).fcd_updatetime)); }},
    {"partners", true, put_partners},
    {"down_port_count", true,
     [](text *out, const card &c) {
         if (const fxm_fxsv_t *server = fxsv(c.data))
             put(out, FMT_COMPILE("{}"), down_port_count(*server));
         else
             *out += "null";
     }},
    {"vendor", true,
     [](text *out, const card &c) {
         put_fxio(out, c, [&](const fxm_fxio_t &d) { put(out, FMT_COMPILE("\"{:04x}\""), d.fio_vendor_id); });
     }},
    {"device", true,
     [](text *out, const card &c) {
         put_fxio(out, c, [&](const fxm_fxio_t &d) { put(out, FMT_COMPILE("\"{:04x}\""), d.fio_device_id); });
     }},
    {"pci_class", true,
     [](text *out, const card &c) {
         put_fxio(out, c, [&](const fxm_fxio_t &d) { put(out, FMT_COMPILE("\"{:06x}\""), d.fio_class_code); });
     }},
    {"multi_root", true,
     [](text *out, const card &c) {
         put_fxio(out, c, [&](const fxm_fxio_t &d) {
             if (d.fio_card.fcd_ver == FXM_VER_MULTIROOT)
                 put(out, FMT_COMPILE("{}"), d.fio_mr_resource_num);
             else
                 *out += "null";
         });
     }},
    {"channels.p0m0", true, put_channel<0, 0>},
    {"channels.p0m1", true, put_channel<0, 1>},
    {"channels.p1m0", true, put_channel<1, 0>},
    {"channels.p1m1", true, put_channel<1, 1>},
};
// So many of them make the document.
constexpr auto WHOLE = static_cast<size_t>(std::count_if(std::begin(members), std::end(members), [](const member &m) {
    return std::string_view(m.name).find('.') == std::string_view::npos;
}));

// The members behind those, in the full document alone.
static void put_received(text *out, const fxm_card_data_t &card)
{
    constexpr const char *names[] = {"p0m0", "p0m1", "p1m0", "p1m1"};
    for (size_t i = 0; i < 4; ++i) {
        put(out, FMT_COMPILE("{}\"{}\":"), i == 0 ? '{' : ',', names[i]);
        put_time(out, static_cast<int64_t>(card.fcd_recvtime[i / 2][i % 2]));
    }
    *out += '}';
}

static void put_bridge(text *out, const fxm_pci_config_t &bridge)
{
    // The two low bytes of a base or limit are those of the 32-bit register; the upper half has a register of its own.
    put(out,
        FMT_COMPILE(R"({{"primary_bus":{},"secondary_bus":{},"subordinate_bus":{},"command":{},"memory_base":{},)"
                    R"("memory_limit":{},"prefetchable_base":{},"prefetchable_limit":{},"prefetchable_base_upper":{},)"
                    R"("prefetchable_limit_upper":{}}})"),
        bridge.fcp_pri_bus_num, bridge.fcp_sec_bus_num, bridge.fcp_sub_bus_num, bridge.fcp_command,
        bridge.fcp_memory_base, bridge.fcp_memory_limit, bridge.fcp_pre_memory_base, bridge.fcp_pre_memory_limit,
        bridge.fcp_pre_base_upper, bridge.fcp_pre_limit_upper);
}

static void put_down_port(text *out, unsigned number, const fxm_down_port_t &port)
{
    const uint64_t partner = pack(port.fdp_io_mac);
    put(out, FMT_COMPILE(R"({{"port":{},"connected":{},"partner":)"), number,
        is_connected(port.fdp_port_status) ? "true" : "false");
    if (partner != 0)
        put_id(out, partner);
    else
        *out += "null";
    put(out, FMT_COMPILE(R"(,"status":[{},{}],"bridge":)"), port.fdp_port_status[0], port.fdp_port_status[1]);
    if (is_connected(port.fdp_port_status))
        put_bridge(out, port.fdp_config);
    else
        *out += "null";
    *out += '}';
}

// One member of the details that the two classes share.
static const member shared_details[] = {
    {"flow_id", true, [](text *out, const card &c) { put(out, FMT_COMPILE("{}"), common(c.data).fcd_flowid); }},
    {"link_status", true, [](text *out, const card &c) { put(out, FMT_COMPILE("{}"), common(c.data).fcd_linkstatus); }},
    {"status", true,
     [](text *out, const card &c) {
         const auto &status = common(c.data).fcd_swstatus;
         put(out, FMT_COMPILE("[{},{},{}]"), status[0], status[1], status[2]);
     }},
    {"uid_switch", true, [](text *out, const card &c) { put_bool(out, common(c.data).fcd_uidsw != 0); }},
    {"power", true, [](text *out, const card &c) { put_bool(out, common(c.data).fcd_power != 0); }},
    {"port0_link", true, [](text *out, const card &c) { put_bool(out, common(c.data).fcd_port0_link != 0); }},
    {"port1_link", true, [](text *out, const card &c) { put_bool(out, common(c.data).fcd_port1_link != 0); }},
    {"received_ms", false, [](text *out, const card &c) { put_received(out, common(c.data)); }},
    {"up_port", true,
     [](text *out, const card &c) {
         if (const fxm_fxsv_t *server = fxsv(c.data))
             put_bridge(out, server->fsv_up_port);
         else
             *out += "null";
     }},
    {"down_ports", false,
     [](text *out, const card &c) {
         *out += '[';
         if (const fxm_fxsv_t *server = fxsv(c.data)) {
             for (unsigned i = 0; i < down_port_count(*server); ++i) {
                 if (i != 0)
                     *out += ',';
                 put_down_port(out, i, server->fsv_down_port[i]);
             }
         }
         *out += ']';
     }},
    {"server", true,
     [](text *out, const card &c) {
         const fxm_fxio_t *device = fxio(c.data);
         if (device != nullptr && pack(device->fio_sermacaddr) != 0)
             put_id(out, pack(device->fio_sermacaddr));
         else
             *out += "null";
     }},
    {"connected", true,
     [](text *out, const card &c) {
         put_fxio(out, c, [&](const fxm_fxio_t &d) { put_bool(out, is_connected(d.fio_substate)); });
     }},
    {"substate", true,
     [](text *out, const card &c) {
         put_fxio(out, c,
                  [&](const fxm_fxio_t &d) { put(out, FMT_COMPILE("[{},{}]"), d.fio_substate[0], d.fio_substate[1]); });
     }},
    {"link_faults", true,
     [](text *out, const card &c) {
         put_fxio(out, c, [&](const fxm_fxio_t &d) {
             put(out, FMT_COMPILE("[{},{}]"), d.fio_link0fault != 0, d.fio_link1fault != 0);
         });
     }},
    {"pcie_presence", true,
     [](text *out, const card &c) {
         put_fxio(out, c, [&](const fxm_fxio_t &d) { put_bool(out, d.fio_pcie_presence != 0); });
     }},
};

// ---------------------------------------------------------------------------------------------------------- documents

member_set member_set::all()
{
    member_set result;
    for (size_t i = 1; i < WHOLE; ++i)
        result.members_.push_back(i);
    return result;
}

member_set member_set::parse(std::string_view names)
{
    member_set result;
    while (!names.empty()) {
        const std::string_view name = names.substr(0, names.find(','));
        names.remove_prefix(std::min(names.size(), name.size() + 1));
        size_t i = 0;
        while (i < std::size(members) && name != members[i].name)
            ++i;
        if (i == std::size(members)) {
            text known;
            for (const member &member : members)
                known += (known.empty() ? "" : ", ") + text(member.name);
            throw api_error("FXM_API_EINVAL", fmt::format("a list of cards has no member \"{}\"", name),
                            "fields: " + known);
        }
        if (i != 0)
            result.members_.push_back(i);
    }
    return result;
}

std::vector<std::string_view> member_set::names() const
{
    std::vector<std::string_view> made;
    for (const size_t i : members_)
        made.emplace_back(members[i].name);
    return made;
}

static void put_member(text *out, const member &member, const card &card)
{
    put(out, FMT_COMPILE(",\"{}\":"), member.name);
    member.put(out, card);
}

void write_card(text *out, const card &card, const member_set &shown)
{
    *out += "\"id\":";
    put_id(out, card.id);
    for (const size_t i : shown.members_)
        put_member(out, members[i], card);
}

void write_names(text *out, const member_set &shown)
{
    *out += "[\"id\"";
    for (const size_t i : shown.members_)
        put(out, FMT_COMPILE(",\"{}\""), members[i].name);
    *out += ']';
}

void write_row(text *out, const card &card, const member_set &shown)
{
    *out += '[';
    put_id(out, card.id);
    for (const size_t i : shown.members_) {
        *out += ',';
        members[i].put(out, card);
    }
    *out += ']';
}

void write_details(text *out, const card &card)
{
    for (const member &member : shared_details)
        put_member(out, member, card);
}

card blank_card(card_class kind)
{
    card made;
    if (kind == card_class::fxsv)
        made.data = std::make_unique<fxm_fxsv_t>();
    else
        made.data = fxm_fxio_t{};
    return made;
}

void write_brief(text *out, const card &card)
{
    using values = std::vector<text>; // of a blank card; nothing for what always stands there
    const auto each = [](auto see) {
        for (size_t i = 1; i < WHOLE; ++i)
            see(members[i]);
        for (const member &member : shared_details)
            see(member);
    };
    static const std::array<values, class_words.size()> blanks = [&] {
        std::array<values, class_words.size()> made;
        for (size_t kind = 0; kind < made.size(); ++kind) {
            const fxm::card blank = blank_card(static_cast<card_class>(kind));
            each([&](const member &member) {
                const std::string_view name = member.name;
                member.put(&made[kind].emplace_back(), blank);
                if (name == "class" || name == "health")
                    made[kind].back().clear();
            });
        }
        return made;
    }();
    auto blank = blanks[static_cast<size_t>(fxsv(card.data) != nullptr ? card_class::fxsv : card_class::fxio)].begin();
    write_card(out, card, {});
    each([&](const member &member) {
        const size_t before = out->size();
        put(out, FMT_COMPILE(",\"{}\":"), member.name);
        const size_t value = out->size();
        member.put(out, card);
        if (std::string_view(*out).substr(value) == *blank++)
            out->resize(before);
    });
}

// ------------------------------------------------------------------------------------------------------------ changes

static void put_change(text *out, std::string_view name, std::string_view before, std::string_view after)
{
    if (before != after)
        put(out, FMT_COMPILE("{}\"{}\":[{},{}]"), out->empty() ? "" : ",", name, before, after);
}

static void put_down_port_changes(text *out, unsigned number, const fxm_down_port_t &before,
                                  const fxm_down_port_t &after)
{
    if (memcmp(&before, &after, sizeof(before)) == 0)
        return;
    const auto part = [&](const char *name, auto put_part) {
        text old_text;
        text new_text;
        put_part(&old_text, before);
        put_part(&new_text, after);
        put_change(out, fmt::format("down_ports.{}.{}", number, name), old_text, new_text);
    };
    part("connected", [](text *to, const fxm_down_port_t &port) { put_bool(to, is_connected(port.fdp_port_status)); });
    part("partner", [](text *to, const fxm_down_port_t &port) {
        if (pack(port.fdp_io_mac) != 0)
            put_id(to, pack(port.fdp_io_mac));
        else
            *to += "null";
    });
    part("status", [](text *to, const fxm_down_port_t &port) {
        put(to, FMT_COMPILE("[{},{}]"), port.fdp_port_status[0], port.fdp_port_status[1]);
    });
    part("bridge", [](text *to, const fxm_down_port_t &port) {
        if (is_connected(port.fdp_port_status))
            put_bridge(to, port.fdp_config);
        else
            *to += "null";
    });
}

void write_changes(text *out, const card &before, const card &after)
{
    text changes;
    text old_text;
    text new_text;
    const auto compare = [&](const member &member) {
        if (!member.changes)
            return;
        old_text.clear();
        new_text.clear();
        member.put(&old_text, before);
        member.put(&new_text, after);
        put_change(&changes, member.name, old_text, new_text);
    };
    for (const member &member : members)
        compare(member);
    for (const member &member : shared_details)
        compare(member);
    const fxm_fxsv_t *old_server = fxsv(before.data);
    const fxm_fxsv_t *new_server = fxsv(after.data);
    if (old_server != nullptr && new_server != nullptr) {
        for (unsigned i = 0; i < FXM_DOWN_PORTS; ++i)
            put_down_port_changes(&changes, i, old_server->fsv_down_port[i], new_server->fsv_down_port[i]);
    }
    *out += changes;
}

} // namespace fxm
