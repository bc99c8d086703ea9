// Every frame layout, in the order of the wire.
#include "frames.h"

#include <cstring>

u16 frame_ether_type = 0x88b6;

// MACs and groups of status bytes are numbers whose most significant byte comes first on the wire.
enum order_t : u8 { BE, LE };

struct field_t {
    size_t at;
    unsigned size;
    order_t order;
};

// The header has two layouts, which differ only in the order of VLAN tag and EtherType.

static constexpr field_t TO{0, 6, BE};
static constexpr field_t FROM{6, 6, BE};

struct tag_fields_t {
    field_t tpid, tci, ether_type;
};

static constexpr tag_fields_t _tag_fields[] = {
    {{12, 2, BE}, {14, 2, BE}, {16, 2, BE}}, // NORMAL
    {{14, 2, BE}, {16, 2, BE}, {12, 2, BE}}, // CHANGE
};

static constexpr u16 TPID = 0x8100;
static constexpr u16 TCI_PRIORITY = 0xe000;
static constexpr u16 TCI_PRIORITY_4 = 0x8000;
static constexpr u16 TCI_VLAN = 0x0fff;

static constexpr field_t SUBTYPE{18, 1, BE};

// DEVINFO and NOTIFY.

enum : u8 { SUBTYPE_DEVINFO = 0x10, SUBTYPE_NOTIFY = 0x11, SUBTYPE_DEVINFO_40G = 0x18, SUBTYPE_NOTIFY_40G = 0x19 };

static constexpr field_t SAY_UNREAD_19{19, 1, BE};
static constexpr field_t SAY_FLOW{20, 1, BE};
static constexpr field_t SAY_GENERATION{21, 1, BE};
static constexpr field_t SAY_FLAGS{22, 1, BE};
static constexpr field_t SAY_CLASS{23, 1, BE};
static constexpr field_t SAY_LINK{24, 1, BE};
static constexpr field_t SAY_SW0{25, 1, BE};
static constexpr field_t SAY_SW1{26, 1, BE};
static constexpr field_t SAY_SW2{27, 1, BE}; // the interrupt vector

enum : u8 { FLAG_FAULT_A = 0x01, FLAG_FAULT_B = 0x02, FLAG_UIDSW = 0x04, FLAG_POWER = 0x08 };

// FXSV
static constexpr size_t UP_PORT = 28;
static constexpr size_t DOWN_PORT_FIRST = 48;
static constexpr size_t DOWN_PORT_STEP = 28;
static constexpr unsigned DOWN_PORTS_1G = 8;
// FXSV, in a down port
static constexpr field_t DOWN_STATUS{0, 2, BE};
static constexpr field_t DOWN_IO_MAC{2, 6, BE};
static constexpr size_t DOWN_CONFIG = 8;
// FXSV, in the configuration block of an up or down port
static constexpr field_t BRIDGE_PRIMARY{0, 1, BE};
static constexpr field_t BRIDGE_SECONDARY{1, 1, BE};
static constexpr field_t BRIDGE_SUBORDINATE{2, 1, BE};
static constexpr field_t BRIDGE_COMMAND{3, 1, BE};
static constexpr field_t BRIDGE_MEM_BASE{4, 2, LE};
static constexpr field_t BRIDGE_MEM_LIMIT{6, 2, LE};
static constexpr field_t BRIDGE_PRE_BASE{8, 2, LE};
static constexpr field_t BRIDGE_PRE_LIMIT{10, 2, LE};
static constexpr field_t BRIDGE_PRE_BASE_UPPER{12, 4, LE};
static constexpr field_t BRIDGE_PRE_LIMIT_UPPER{16, 4, LE};

// FXIO
static constexpr field_t IO_SUBSTATE{28, 2, BE};
static constexpr field_t IO_SERVER{30, 6, BE};
static constexpr field_t IO_DEVICE{36, 2, LE};
static constexpr field_t IO_VENDOR{38, 2, LE};
static constexpr field_t IO_UNREAD_40{40, 1, BE};
static constexpr field_t IO_CLASS{41, 3, LE};
static constexpr field_t IO_MR{44, 2, BE}; // of a multi-root card only
static constexpr size_t IO_END = 44;
static constexpr size_t IO_END_MULTI_ROOT = 46;

// Completion: the answer to a Register Read.

enum : u8 { SUBTYPE_COMPLETION = 0x20 };

static constexpr field_t COMPLETION_UNREAD_19{19, 4, BE};
static constexpr field_t COMPLETION_TAG{23, 1, BE};
static constexpr field_t COMPLETION_VALUE{24, 4, LE};

// Commands to a card.

enum : u8 { SUBTYPE_RESET = 0x30, SUBTYPE_VLAN = 0x80, SUBTYPE_WRITE = 0x90, SUBTYPE_READ = 0x91, SUBTYPE_PAGE = 0x92 };

static constexpr field_t RESET_STATUS{23, 1, BE};
static constexpr field_t VLAN_NEW{24, 2, BE};
static constexpr field_t READ_TAG{23, 1, BE};
static constexpr field_t ACCESS_ADDRESS{24, 4, BE}; // of a read and a write, encoded
static constexpr field_t WRITE_VALUE{28, 4, LE};
static constexpr field_t PAGE_NUMBER{24, 4, BE};
static constexpr size_t PAGE_DATA = 28;
static constexpr size_t PAGE_END = 156;

static constexpr size_t ETHERNET_MIN = 60;

// The encoded address keeps the lower 12 bits of the register address and carries the upper 10 from bit 16 on.
static constexpr u32 ENCODED_LOW = 0x00000fff;
static constexpr u32 ENCODED_HIGH = 0x03ff0000;

static u64 _get(const u8 *frame, field_t field)
{
    u64 value = 0;
    for (unsigned i = 0; i < field.size; i++)
        value = value << 8 | frame[field.at + (field.order == BE ? i : field.size - 1 - i)];
    return value;
}

static void _put(u8 *frame, field_t field, u64 value)
{
    for (unsigned i = 0; i < field.size; i++, value >>= 8)
        frame[field.at + (field.order == BE ? field.size - 1 - i : i)] = static_cast<u8>(value);
}

static void _put_header(u8 *frame, const card_t &card, u64 from, u64 to, u8 subtype)
{
    const tag_fields_t &tag = _tag_fields[card.layout];
    _put(frame, TO, to);
    _put(frame, FROM, from);
    _put(frame, tag.tpid, TPID);
    _put(frame, tag.tci, TCI_PRIORITY_4 | (card.vlan & TCI_VLAN));
    _put(frame, tag.ether_type, frame_ether_type);
    _put(frame, SUBTYPE, subtype);
}

// Address windows as firmware would assign them: every down port has its own, and those of the up port span them all.
// No two ports share a value in any field, so that swapped fields are noticed.
static void _put_bridge(u8 *block, std::array<u8, 3> bus, unsigned first, unsigned last)
{
    _put(block, BRIDGE_PRIMARY, bus[0]);
    _put(block, BRIDGE_SECONDARY, bus[1]);
    _put(block, BRIDGE_SUBORDINATE, bus[2]);
    _put(block, BRIDGE_COMMAND, 0x07);
    _put(block, BRIDGE_MEM_BASE, 0xc000 + first * 0x100);
    _put(block, BRIDGE_MEM_LIMIT, 0xc0f0 + last * 0x100);
    _put(block, BRIDGE_PRE_BASE, 0x0001 + first * 0x1000);
    _put(block, BRIDGE_PRE_LIMIT, 0x0ff1 + last * 0x1000);
    _put(block, BRIDGE_PRE_BASE_UPPER, 0x00000020 + first);
    _put(block, BRIDGE_PRE_LIMIT_UPPER, 0x00000020 + last);
}

static size_t _put_server_body(u8 *frame, const card_t &card)
{
    const unsigned ports = card.is_40g ? DOWN_PORTS : DOWN_PORTS_1G;

    _put_bridge(frame + UP_PORT, card.bus, 0, ports - 1);
    for (unsigned i = 0; i < ports; i++) {
        u8 *entry = frame + DOWN_PORT_FIRST + i * DOWN_PORT_STEP;
        _put(entry, DOWN_STATUS, card.down[i].status);
        _put(entry, DOWN_IO_MAC, card.down[i].io_mac);
        if (card.down[i].status & STATUS_CONNECTED) {
            const u8 bus = static_cast<u8>(card.bus[1] + 1 + i);
            _put_bridge(entry + DOWN_CONFIG, {card.bus[1], bus, bus}, i, i);
        }
    }
    return DOWN_PORT_FIRST + ports * DOWN_PORT_STEP;
}

static size_t _put_device_body(u8 *frame, const card_t &card)
{
    _put(frame, IO_SUBSTATE, card.substate);
    _put(frame, IO_SERVER, card.server);
    _put(frame, IO_DEVICE, card.device);
    _put(frame, IO_VENDOR, card.vendor);
    _put(frame, IO_UNREAD_40, 0xa5); // must not be interpreted
    _put(frame, IO_CLASS, card.pci_class);
    if (!card_is_multi_root(card))
        return IO_END;
    _put(frame, IO_MR, card.mr);
    return IO_END_MULTI_ROOT;
}

static u8 _announced_flags(const card_t &card)
{
    u8 flags = 0;
    if (card.cls == FXIO) {
        // On a multi-root card the two flags are swapped.
        const bool swapped = card_is_multi_root(card);
        if (swapped ? card.fault1 : card.fault0)
            flags |= FLAG_FAULT_A;
        if (swapped ? card.fault0 : card.fault1)
            flags |= FLAG_FAULT_B;
    }
    if (card.uidsw)
        flags |= FLAG_UIDSW;
    if (card.power)
        flags |= FLAG_POWER;
    return flags;
}

// The multicast address to which cards announce themselves.
static constexpr u64 GROUP = 0x0300ffffffff;

size_t frame_announcement(u8 *frame, const card_t &card, unsigned mac, bool notify)
{
    u8 subtype = notify ? SUBTYPE_NOTIFY : SUBTYPE_DEVINFO;
    if (card.is_40g)
        subtype = notify ? SUBTYPE_NOTIFY_40G : SUBTYPE_DEVINFO_40G;

    std::memset(frame, 0, FRAME_ROOM);
    _put_header(frame, card, card.id | (mac ? MAC_SECOND : 0), GROUP, subtype);
    _put(frame, SAY_UNREAD_19, 0xa5); // must not be interpreted
    _put(frame, SAY_FLOW, card.flow);
    _put(frame, SAY_GENERATION, card.is_40g ? 1 : 0);
    _put(frame, SAY_FLAGS, _announced_flags(card));
    _put(frame, SAY_CLASS, card.cls);
    _put(frame, SAY_LINK, card.link);
    _put(frame, SAY_SW0, card.sw[0]);
    _put(frame, SAY_SW1, card.sw[1]);
    _put(frame, SAY_SW2, card.sw[2]);
    const size_t size = card.cls == FXSV ? _put_server_body(frame, card) : _put_device_body(frame, card);
    return size < ETHERNET_MIN ? ETHERNET_MIN : size;
}

size_t frame_completion(u8 *frame, const card_t &card, u64 from, u64 to, u8 tag, u32 value)
{
    std::memset(frame, 0, FRAME_ROOM);
    _put_header(frame, card, from, to, SUBTYPE_COMPLETION);
    _put(frame, COMPLETION_UNREAD_19, 0xa5a5a5a5); // must not be interpreted
    _put(frame, COMPLETION_TAG, tag);
    _put(frame, COMPLETION_VALUE, value);
    return ETHERNET_MIN;
}

static bool _header_is(const u8 *frame, layout_t layout)
{
    const tag_fields_t &tag = _tag_fields[layout];
    return _get(frame, tag.tpid) == TPID && (_get(frame, tag.tci) & TCI_PRIORITY) == TCI_PRIORITY_4 &&
           _get(frame, tag.ether_type) == frame_ether_type;
}

static bool _address(const u8 *frame, u32 &address)
{
    const u32 encoded = static_cast<u32>(_get(frame, ACCESS_ADDRESS));
    address = (encoded & ENCODED_HIGH) >> 4 | (encoded & ENCODED_LOW);
    return (encoded & ~(ENCODED_HIGH | ENCODED_LOW)) == 0;
}

bool frame_command(const u8 *frame, size_t size, command_t &command)
{
    // This covers all fields but those of a page, whose length is checked below.
    if (size < ETHERNET_MIN)
        return false;
    if (_header_is(frame, NORMAL))
        command.layout = NORMAL;
    else if (_header_is(frame, CHANGE))
        command.layout = CHANGE;
    else
        return false;
    command.to = _get(frame, TO);
    command.from = _get(frame, FROM);
    command.vlan = static_cast<u16>(_get(frame, _tag_fields[command.layout].tci) & TCI_VLAN);

    switch (_get(frame, SUBTYPE)) {
    case SUBTYPE_RESET:
        command.kind = COMMAND_RESET;
        command.status = static_cast<u8>(_get(frame, RESET_STATUS));
        return true;
    case SUBTYPE_VLAN:
        command.kind = COMMAND_VLAN;
        command.new_vlan = static_cast<u16>(_get(frame, VLAN_NEW) & TCI_VLAN);
        return true;
    case SUBTYPE_WRITE:
        command.kind = COMMAND_WRITE;
        command.value = static_cast<u32>(_get(frame, WRITE_VALUE));
        return _address(frame, command.address);
    case SUBTYPE_READ:
        command.kind = COMMAND_READ;
        command.tag = static_cast<u8>(_get(frame, READ_TAG));
        return _address(frame, command.address);
    case SUBTYPE_PAGE:
        command.kind = COMMAND_PAGE;
        command.page = static_cast<u32>(_get(frame, PAGE_NUMBER));
        command.data = frame + PAGE_DATA;
        return size >= PAGE_END && command.page < PAGES;
    default:
        return false;
    }
}
