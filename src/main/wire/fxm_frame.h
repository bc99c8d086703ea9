// The layouts of all frames, once, as tables of offset and byte order, with the accessors that read and write them. An
// accessor takes fields of its own order only, so be16(frame, X) with a little-endian X does not compile. Offsets count
// from the first byte of the destination MAC, without preamble and FCS.
//
// No accessor tests a bound: for received frames _check_frame has compared the length with the minimum of the frame's
// kind before any handler reads, and a frame to send is a buffer of its full length.
#ifndef FXM_FRAME_H
#define FXM_FRAME_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fxm.h"

// -------------------------------------------------------------------------------------------------------- accessors

// clang-format off
struct u8_at { size_t at; };
struct be16_at { size_t at; };
struct be32_at { size_t at; };
struct le16_at { size_t at; };
struct le24_at { size_t at; };
struct le32_at { size_t at; };
struct mac48_at { size_t at; }; // six bytes, also as one number, first byte highest
template <size_t Size> struct raw_at { size_t at; }; // bytes in wire order
// clang-format on

inline uint8_t u8(const uint8_t *f, u8_at x) { return f[x.at]; }
inline uint16_t be16(const uint8_t *f, be16_at x) { return static_cast<uint16_t>(f[x.at] << 8 | f[x.at + 1]); }
inline uint16_t le16(const uint8_t *f, le16_at x) { return static_cast<uint16_t>(f[x.at] | f[x.at + 1] << 8); }
inline uint32_t le24(const uint8_t *f, le24_at x)
{
    return static_cast<uint32_t>(f[x.at]) | static_cast<uint32_t>(f[x.at + 1]) << 8 |
           static_cast<uint32_t>(f[x.at + 2]) << 16;
}
inline uint32_t le32(const uint8_t *f, le32_at x)
{
    return le24(f, le24_at{x.at}) | static_cast<uint32_t>(f[x.at + 3]) << 24;
}
inline uint64_t mac48(const uint8_t *f, mac48_at x)
{
    uint64_t mac = 0;
    for (size_t i = 0; i < 6; ++i)
        mac = mac << 8 | f[x.at + i];
    return mac;
}
template <size_t Size> void raw(uint8_t (&out)[Size], const uint8_t *f, raw_at<Size> x) { memcpy(out, f + x.at, Size); }

inline void put_u8(uint8_t *f, u8_at x, uint8_t value) { f[x.at] = value; }
inline void put_be16(uint8_t *f, be16_at x, uint16_t value)
{
    f[x.at] = static_cast<uint8_t>(value >> 8);
    f[x.at + 1] = static_cast<uint8_t>(value);
}
inline void put_be32(uint8_t *f, be32_at x, uint32_t value)
{
    for (size_t i = 0; i < 4; ++i)
        f[x.at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}
inline void put_le32(uint8_t *f, le32_at x, uint32_t value)
{
    for (size_t i = 0; i < 4; ++i)
        f[x.at + i] = static_cast<uint8_t>(value >> (8 * i));
}
inline void put_mac48(uint8_t *f, mac48_at x, uint64_t mac)
{
    for (size_t i = 0; i < 6; ++i)
        f[x.at + i] = static_cast<uint8_t>(mac >> (40 - 8 * i));
}

// The same field of a block that starts at `base`: configuration blocks and down-port entries repeat in a frame.
template <typename Field> constexpr Field in_block(size_t base, Field x) { return Field{base + x.at}; }

// From here to the lengths these are tables, to be read beside the wire.
// clang-format off

// ----------------------------------------------------------------------------------------- Ethernet header, 0 to 17

constexpr uint16_t FXM_TPID = 0x8100;
constexpr uint16_t FXM_TCI_PRIORITY = 0x8000; // priority 100b, in both directions
constexpr uint8_t FXM_PRIORITY_MASK = 0xE0;   // of the TCI's first byte
constexpr uint8_t FXM_PRIORITY = 0x80;
constexpr uint16_t FXM_VLAN_MASK = 0x0FFF;

//                                    offset   name                 layout
constexpr mac48_at ETH_DST           {0};   // destination MAC      both
constexpr mac48_at ETH_SRC           {6};   // source MAC           both
constexpr be16_at  ETH_TAG_TPID      {12};  // TPID, 0x8100         tagged
constexpr be16_at  ETH_TAG_TCI       {14};  // TCI                  tagged
constexpr be16_at  ETH_TAG_TYPE      {16};  // ether_type           tagged
constexpr be16_at  ETH_CHANGE_TYPE   {12};  // ether_type           change
constexpr be16_at  ETH_CHANGE_TPID   {14};  // TPID, 0x8100         change
constexpr be16_at  ETH_CHANGE_TCI    {16};  // TCI                  change

constexpr uint8_t FXM_VLAN_MODE_NORMAL = 0; // tagged layout
constexpr uint8_t FXM_VLAN_MODE_CHANGE = 1; // change layout

// ----------------------------------------------------------------------------------------------- frame kinds, byte 18

constexpr u8_at FRAME_SUBTYPE {18};

constexpr uint8_t FXM_SUBTYPE_DEVINFO   = 0x10; // 1G/10G DEVINFO   card to library
constexpr uint8_t FXM_SUBTYPE_NOTIFY    = 0x11; // 1G/10G NOTIFY    card to library
constexpr uint8_t FXM_SUBTYPE_DEVINFO40 = 0x18; // 40G DEVINFO      card to library
constexpr uint8_t FXM_SUBTYPE_NOTIFY40  = 0x19; // 40G NOTIFY       card to library
constexpr uint8_t FXM_SUBTYPE_COMP      = 0x20; // Completion       card to library
constexpr uint8_t FXM_SUBTYPE_RESET     = 0x30; // Reset            library to card
constexpr uint8_t FXM_SUBTYPE_VLANSET   = 0x80; // VLAN set         library to card
constexpr uint8_t FXM_SUBTYPE_REGW      = 0x90; // Register Write   library to card
constexpr uint8_t FXM_SUBTYPE_REGR      = 0x91; // Register Read    library to card
constexpr uint8_t FXM_SUBTYPE_MMS       = 0x92; // MMS page         library to card

// -------------------------------------------------------------------------------------- DEVINFO and NOTIFY, 18 to 27

//                                     offset   name
constexpr u8_at     DEV_FLOW_ID       {20};  // flow id
constexpr u8_at     DEV_VER           {21};  // 0 a 1G/10G card, else 40G
constexpr u8_at     DEV_FLAGS         {22};  // see below
constexpr u8_at     DEV_HOST          {23};  // class of the sender
constexpr u8_at     DEV_LINK_STATUS   {24};  // link status
constexpr raw_at<3> DEV_SW_STATUS     {25};  // three status bytes, the next two among them
constexpr u8_at     DEV_STATUS2       {26};  // see below
constexpr u8_at     DEV_INT_VECTOR    {27};  // interrupt vector

constexpr uint8_t FXM_HOST_FXSV = 0;
constexpr uint8_t FXM_HOST_FXIO = 1;

constexpr uint8_t FXM_DEV_FAULT_A   = 1u << 0; // DEV_FLAGS: link fault, of link 0, or of link 1 on a multi-root card
constexpr uint8_t FXM_DEV_FAULT_B   = 1u << 1; // link fault, of the other link
constexpr uint8_t FXM_DEV_UIDSW     = 1u << 2;
constexpr uint8_t FXM_DEV_POWER     = 1u << 3;
constexpr uint8_t FXM_STATUS2_VER   = 0x0F;    // DEV_STATUS2: card version, not DEV_VER
constexpr uint8_t FXM_STATUS2_PORT0 = 1u << 5;
constexpr uint8_t FXM_STATUS2_PORT1 = 1u << 6;
constexpr uint8_t FXM_STATUS2_PCIE  = 1u << 7; // FXIO only

// ------------------------------------------------------------------------- configuration block of a port, 20 bytes

//                                     offset   name (within the block)
constexpr u8_at     CFG_PRI_BUS       {0};   // primary bus
constexpr u8_at     CFG_SEC_BUS       {1};   // secondary bus
constexpr u8_at     CFG_SUB_BUS       {2};   // subordinate bus
constexpr u8_at     CFG_COMMAND       {3};   // command
constexpr le16_at   CFG_MEM_BASE      {4};   // memory base
constexpr le16_at   CFG_MEM_LIMIT     {6};   // memory limit
constexpr le16_at   CFG_PRE_BASE      {8};   // prefetchable base
constexpr le16_at   CFG_PRE_LIMIT     {10};  // prefetchable limit
constexpr le32_at   CFG_PRE_BASE_UP   {12};  // prefetchable base, upper half
constexpr le32_at   CFG_PRE_LIMIT_UP  {16};  // prefetchable limit, upper half

// ---------------------------------------------------------------------------------------------- FXSV body, 28 on

constexpr size_t FXSV_UP_PORT = 28;          // configuration block of the up port
constexpr size_t FXSV_DOWN_PORTS = 48;       // entry i starts at 48 + 28 * i
constexpr size_t FXSV_DOWN_PORT_SIZE = 28;
constexpr uint32_t FXSV_DOWN_PORTS_10G = 8;  // entries of subtypes 0x10 and 0x11
constexpr uint32_t FXSV_DOWN_PORTS_40G = 16; // entries of subtypes 0x18 and 0x19

//                                     offset   name (within the entry)
constexpr raw_at<2> DOWN_STATUS       {0};   // port status, FXM_CONNECTED_BIT in its second byte
constexpr raw_at<6> DOWN_IO_MAC       {2};   // MAC of the FXIO card
constexpr size_t    DOWN_CONFIG      = 8;    // configuration block, good while connected

// ---------------------------------------------------------------------------------------------- FXIO body, 28 on

//                                     offset   name
constexpr raw_at<2> IO_SUBSTATE       {28};  // sub-state, FXM_CONNECTED_BIT in its second byte
constexpr raw_at<6> IO_SER_MAC        {30};  // MAC of the FXSV card
constexpr le16_at   IO_DEVICE_ID      {36};  // PCI device id
constexpr le16_at   IO_VENDOR_ID      {38};  // PCI vendor id
constexpr le24_at   IO_CLASS_CODE     {41};  // PCI class code
constexpr be16_at   IO_RESOURCE_NUM   {44};  // resource number, multi-root cards only

// ------------------------------------------------------------------------------------------------------ Completion

//                                     offset   name
constexpr u8_at     COMP_TAG          {23};  // tag of the Register Read that it answers
constexpr le32_at   COMP_DATA         {24};  // the register's value

// --------------------------------------------------------------------------------- frames to a card, header apart

//                                     offset   name                         frame
constexpr u8_at     OUT_FF0           {19};  // 0xFF                         all five
constexpr u8_at     OUT_FF1           {20};  // 0xFF                         all five
constexpr u8_at     RESET_STATUS      {23};  // status                       Reset
constexpr be16_at   VLANSET_VLAN      {24};  // new VLAN id                  VLAN set
constexpr be32_at   REGW_ADDR         {24};  // encoded register address     Register Write
constexpr le32_at   REGW_DATA         {28};  // value                        Register Write
constexpr u8_at     REGR_TAG          {23};  // tag                          Register Read
constexpr be32_at   REGR_ADDR         {24};  // encoded register address     Register Read
constexpr be32_at   MMS_PAGE          {24};  // page number                  MMS page
constexpr raw_at<128> MMS_DATA        {28};  // the page                     MMS page

// ------------------------------------------------------------------------------------------------------- lengths

constexpr uint32_t FXM_LEN_MIN = 28;      // any received frame, a Completion among them
constexpr uint32_t FXM_LEN_FXSV = static_cast<uint32_t>(FXSV_DOWN_PORTS + FXSV_DOWN_PORTS_10G * FXSV_DOWN_PORT_SIZE);
constexpr uint32_t FXM_LEN_FXSV40 = static_cast<uint32_t>(FXSV_DOWN_PORTS + FXSV_DOWN_PORTS_40G * FXSV_DOWN_PORT_SIZE);
constexpr uint32_t FXM_LEN_FXIO = 44;
constexpr uint32_t FXM_LEN_FXIO_MR = 46;
constexpr uint32_t FXM_LEN_OUT = 60;      // Ethernet minimum without FCS; the library pads for itself
constexpr uint32_t FXM_LEN_OUT_MMS = 156;
// clang-format on
static_assert(FXM_LEN_FXSV == 272 && FXM_LEN_FXSV40 == 496);
static_assert(MMS_DATA.at + FXM_MMS_PAGE_SIZE == FXM_LEN_OUT_MMS);

// ---------------------------------------------------------------------------------------------------- operations

// Card id and MAC index of a DEVINFO or NOTIFY. A card with a non-zero DEV_VER sends from two MACs that differ in bit
// 0; both give the even one as id.
inline uint64_t _fxm_frame_id(const uint8_t *frame)
{
    const uint64_t mac = mac48(frame, ETH_SRC);
    return u8(frame, DEV_VER) == 0 ? mac : mac & ~uint64_t{1};
}

inline uint32_t _fxm_frame_mac_index(const uint8_t *frame)
{
    return u8(frame, DEV_VER) == 0 ? 0 : static_cast<uint32_t>(mac48(frame, ETH_SRC) & 1);
}

// Register address on the wire: bits 11..0 stay, bits 21..12 move up by four, higher ones are dropped.
constexpr uint32_t _fxm_encode_address(uint32_t addr) { return (addr & 0xFFF) | (addr & 0x3FF000) << 4; }
static_assert(_fxm_encode_address(0x1234) == 0x10234 && _fxm_encode_address(0x3FFFFF) == 0x3FF0FFF);

#endif
