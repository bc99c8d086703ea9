// The card: what it announces, what is behind its registers, and the table of all cards. Single thread.
#ifndef SIM_CARD_H
#define SIM_CARD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

// The widths of registers and MACs.
using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using u64 = uint64_t;

// Bit 0 of the last byte distinguishes the second MAC of a 40G card from the first, which is the card's id.
constexpr u64 MAC_SECOND = 1;
constexpr u64 MAC_GROUP = 0x010000000000; // group bit, in the first byte
constexpr u64 MAC_LAST = 0xffffffffffff;

constexpr unsigned PORTS = 2;
constexpr unsigned DOWN_PORTS = 16;
constexpr size_t PAGE_SIZE = 128;
constexpr u32 PAGES = 1024;

// A channel is a pair of port and MAC of the card: p0m0, p0m1, p1m0, p1m1. A set of channels is a mask of these bits.
constexpr unsigned channel_bit(unsigned port, unsigned mac) { return 1U << (port * 2 + mac); }
constexpr unsigned ALL_CHANNELS = 0xf;

enum class_t : u8 { FXSV, FXIO };       // as in the byte `host`
enum layout_t : u8 { NORMAL, CHANGE };  // VLAN tag first, EtherType first
enum lock_t : u8 { BIT_LOCK, ID_LOCK }; // as in bit 0 of the lock type register
enum forms_t : u8 { BOTH_FORMS, SPLIT_FORM, PLAIN_FORM };
enum engine_kind_t : u8 { ENGINE_NORMAL, ENGINE_BUSY, ENGINE_STUCK, ENGINE_REFUSE, ENGINE_HANG };

struct down_port_t {
    u64 io_mac = 0; // of the connected FXIO card
    u16 status = 0;
};

// The connection bit in the two status bytes of a down port and in the two sub-state bytes of an FXIO card.
constexpr u16 STATUS_CONNECTED = 0x0002;

// The EEPROM and the engine that moves its words.
struct eeprom_t {
    std::vector<u32> words; // empty, and all zero, until one is written
    engine_kind_t kind = ENGINE_NORMAL;
    forms_t forms = BOTH_FORMS;
    u32 looks = 0; // status reads that see an access running
    // The current access, or the last one until its status is cleared.
    enum { IDLE, RUNNING, FINISHED, REFUSED } state = IDLE;
    u32 looks_left = 0;
    u32 command = 0;
    u32 address = 0; // as the engine received it, in either form
    u32 word = 0;    // to be stored by a write
};

enum fault_kind_t : u8 {
    FAULT_DROP,
    FAULT_LATE,
    FAULT_TWICE,
    FAULT_OTHER_MAC,
    FAULT_OTHER_PORT,
    FAULT_OTHER_TAG,
    FAULT_VALUE,
    FAULT_IGNORE_WRITE,
    FAULT_IGNORE_VLAN,
};

struct fault_t {
    fault_kind_t kind = FAULT_DROP;
    bool any_address = true;
    bool for_ever = true;
    u32 address = 0;
    u32 left = 0;  // remaining times, unless for ever
    u32 every = 1; // applies to the last of this many cases
    u32 cases = 0; // cases seen since
    u32 ms = 0;
    u32 value = 0;
};

// The other holder of the EEPROM lock.
struct holder_t {
    enum { QUIET, KEEP, VISIT, FIGHT } habit = QUIET;
    bool for_ever = false;
    u32 left = 0;
    u32 ms = 0;         // of a visit
    u32 reads_left = 0; // of the lock until it takes its bit in a fight; 0: no fight is on
    u32 turn = 0;       // counts takes and gives, so that a timer for an earlier turn knows that it is outdated
};

struct counts_t {
    u64 reads = 0, writes = 0, vlansets = 0, resets = 0, pages = 0, announced = 0, foul = 0;
};

struct card_t {
    // Identity and place.
    u64 id = 0;
    u64 serial = 0; // unique in this run, even if a later card has the same id
    class_t cls = FXSV;
    bool is_40g = false;
    layout_t layout = NORMAL;
    std::array<bool, PORTS> on_port{};
    u16 vlan = 100;
    unsigned silent = 0; // channels on which it does not announce itself
    bool deaf = false;

    // Contents of its announcements.
    u8 flow = 0;
    u8 link = 0;
    std::array<u8, 3> sw{}; // bits: see SW1_ below
    bool uidsw = false;
    bool power = true;
    // FXIO
    u16 substate = 0;
    u64 server = 0;
    u16 vendor = 0x8086;
    u16 device = 0x1572;
    u32 pci_class = 0x020000;
    u16 mr = 0;
    bool fault0 = false;
    bool fault1 = false;
    // FXSV
    std::array<down_port_t, DOWN_PORTS> down{};
    std::array<u8, 3> bus{0, 1, 16}; // primary, secondary, subordinate

    // Registers and what they control.
    std::unordered_map<u32, u32> registers;
    std::map<u32, std::array<u8, PAGE_SIZE>> pages;
    eeprom_t eeprom;
    lock_t lock = BIT_LOCK;
    std::vector<u32> arbiter; // the holders of the ID lock, as bits, the owner first
    holder_t holder;

    // Requested faults and records.
    std::vector<fault_t> faults;
    bool watching = false;
    std::string watched;
    counts_t counts;
    u8 reset_status = 0;
};

// The second status byte: version and flags.
constexpr u8 SW1_VERSION = 0x0f;
constexpr u8 SW1_PORT0_LINK = 0x20;
constexpr u8 SW1_PORT1_LINK = 0x40;
constexpr u8 SW1_PRESENCE = 0x80;

inline bool card_is_multi_root(const card_t &card) { return card.cls == FXIO && (card.sw[1] & SW1_VERSION) == 1; }

inline unsigned card_macs(const card_t &card) { return card.is_40g ? 2 : 1; }

// The stored value of a register; 0 if it was never written.
u32 card_register(const card_t &card, u32 address);

// The channels of the card: its ports times its MACs.
unsigned card_channels(const card_t &card);

// A card with all fields at their defaults.
card_t card_blank(class_t cls, u64 id);

// All cards by id. A card keeps its address until it is removed.
extern std::unordered_map<u64, card_t> cards;

card_t *card_find(u64 id);

// The card that has this MAC, or null.
card_t *card_of_mac(u64 mac);

// Adds a card to the table. No other card may have one of its MACs; see card_conflict.
card_t &card_add(const card_t &card);
void card_remove(u64 id);

// Whether another card has a MAC of this one. Only the neighbour can, if either of the two has both MACs.
bool card_conflict(const card_t &card);

#endif
