// Reading, checking and showing the configuration. Runs on the caller's thread of fxm_init_manager; the dump also runs
// on the threads that write a status dump.
#include "core/fxm_config.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "fxm_log4cxxif.h"
#include "platform/fxm_platform.h"

fxm_config_t g_config;

constexpr size_t FXM_CONFIG_LINE = 128;
constexpr uint32_t FXM_MAX = 0xFFFFFFFF;

static const char *const BLANKS = " \t\r\n";

static const char *const PARSE_ERROR = "config parameter parse error";
static const char *const RANGE_ERROR = "out of range error";

// ------------------------------------------------------------------------------------------------------- the table

struct config_key_t;

using emit_t = void (*)(const char *name, const char *value);

// What the keys of one kind do with their values.
struct config_kind_t {
    const char *(*parse)(const config_key_t &key, char *text); // into the record: null, or what is wrong with the text
    void (*show)(const config_key_t &key, emit_t emit);
};

// One row for each key of the file, in the order in which the values are shown.
struct config_key_t {
    const char *name;
    const config_kind_t *kind;
    const char *preset; // as it would stand in the file
    // Of numbers: where the value goes, what is accepted, how it is shown. A number that accepts all of 32 bits cannot
    // be out of range. One that takes a minus sign lets it wrap.
    uint32_t fxm_config_t::*field;
    uint32_t low;
    uint32_t high;
    bool minus;
    const char *format;
};

// Cuts the next word off *text at any of `separators`; null when there is none.
static char *_next_word(char **text, const char *separators)
{
    if (*text == nullptr)
        return nullptr;
    char *word = *text + strspn(*text, separators);
    if (*word == '\0')
        return nullptr;
    char *end = word + strcspn(word, separators);
    *text = *end == '\0' ? end : end + 1;
    *end = '\0';
    return word;
}

template <typename Value> static void _show(emit_t emit, const char *name, const char *format, Value value)
{
    char shown[FXM_PORT_NAME_SIZE];
    snprintf(shown, sizeof(shown), format, value);
    emit(name, shown);
}

// -- numbers

enum number_result_t { NUMBER_OK, NUMBER_NONE, NUMBER_TOO_LARGE };

// The whole word as an unsigned 32-bit number: decimal, 0x hexadecimal or 0 octal. strtoul wraps a number behind a minus
// sign, at the width of a long; the width here is always 32 bits.
static number_result_t _parse_u32(const char *word, uint32_t *value)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(word, &end, 0);
    const unsigned long magnitude = *word == '-' ? 0 - number : number;
    if (errno == ERANGE || magnitude > UINT32_MAX)
        return NUMBER_TOO_LARGE;
    if (end == word || *end != '\0')
        return NUMBER_NONE;
    *value = static_cast<uint32_t>(number);
    return NUMBER_OK;
}

static const char *_parse_number(const config_key_t &key, char *text)
{
    const char *word = _next_word(&text, BLANKS);
    uint32_t value = 0;
    if (word == nullptr || (*word == '-' && !key.minus) || _parse_u32(word, &value) != NUMBER_OK)
        return PARSE_ERROR;
    if (value < key.low || value > key.high)
        return RANGE_ERROR;
    g_config.*key.field = value;
    return nullptr;
}

static void _show_number(const config_key_t &key, emit_t emit)
{
    _show(emit, key.name, key.format, g_config.*key.field);
}

static const config_kind_t number_kind = {_parse_number, _show_number};

static const char *_parse_ether_type(const config_key_t &key, char *text)
{
    const char *word = _next_word(&text, BLANKS);
    uint32_t value = 0;
    if (word == nullptr || _parse_u32(word, &value) != NUMBER_OK || value > key.high)
        return PARSE_ERROR;
    g_config.ether_type = static_cast<uint16_t>(value);
    return nullptr;
}

static void _show_ether_type(const config_key_t &key, emit_t emit)
{
    _show(emit, key.name, key.format, static_cast<uint32_t>(g_config.ether_type));
}

static const config_kind_t ether_type_kind = {_parse_ether_type, _show_ether_type};

// -- the MAC address

static const char *_parse_mac(const config_key_t &, char *text)
{
    constexpr size_t length = 17; // six bytes of two digits, and a colon between them
    const char *word = _next_word(&text, BLANKS);
    if (word == nullptr || strlen(word) != length)
        return PARSE_ERROR;
    uint64_t mac = 0;
    for (size_t i = 0; i < length; i += 3) {
        uint8_t byte = 0;
        const auto [end, err] = std::from_chars(word + i, word + i + 2, byte, 16);
        if (err != std::errc() || end != word + i + 2 || (word[i + 2] != ':' && word[i + 2] != '\0'))
            return PARSE_ERROR;
        mac = mac << 8 | byte;
    }
    g_config.broadcast_mac = mac;
    return nullptr;
}

static void _show_mac(const config_key_t &key, emit_t emit)
{
    _show(emit, key.name, key.format, _ull(g_config.broadcast_mac));
}

static const config_kind_t mac_kind = {_parse_mac, _show_mac};

// -- the ports, by name and by index

static const char *_parse_port_names(const config_key_t &, char *text)
{
    g_config.ether_port0_name[0] = g_config.ether_port1_name[0] = '\0';
    g_config.use_port_num_linux = 0;
    for (int token = 0; token < 2; ++token) {
        char *name = _next_word(&text, " ,\t");
        if (name == nullptr)
            break;
        name[strcspn(name, "\r\n")] = '\0';
        if (*name == '\0') {
            if (token == 0)
                continue;
            break;
        }
        if (strlen(name) >= FXM_PORT_NAME_SIZE)
            return PARSE_ERROR;
        char *slot = g_config.use_port_num_linux == 0 ? g_config.ether_port0_name : g_config.ether_port1_name;
        snprintf(slot, FXM_PORT_NAME_SIZE, "%s", name);
        g_config.use_port_num_linux += 1;
    }
    return g_config.use_port_num_linux > 0 ? nullptr : PARSE_ERROR;
}

static void _show_port_names(const config_key_t &, emit_t emit)
{
    emit("ether_port0_name", g_config.ether_port0_name);
    emit("ether_port1_name", g_config.ether_port1_name);
}

static const config_kind_t port_names_kind = {_parse_port_names, _show_port_names};

static const char *_parse_port_indexes(const config_key_t &, char *text)
{
    constexpr size_t longest = 10;
    g_config.ether_port0_ifindex = g_config.ether_port1_ifindex = 0;
    g_config.use_port_num_win = 0;
    for (int token = 0; token < 2; ++token) {
        char *word = _next_word(&text, " ,\t");
        if (word == nullptr)
            break;
        if (*word == '-')
            return PARSE_ERROR;
        word[strcspn(word, "\r\n")] = '\0';
        if (strlen(word) > longest)
            return PARSE_ERROR;
        uint32_t *slot = token == 0 ? &g_config.ether_port0_ifindex : &g_config.ether_port1_ifindex;
        const number_result_t result = _parse_u32(word, slot);
        if (result == NUMBER_TOO_LARGE)
            return PARSE_ERROR;
        if (result == NUMBER_NONE)
            break;
        g_config.use_port_num_win += 1;
    }
    return g_config.use_port_num_win > 0 ? nullptr : PARSE_ERROR;
}

// Both counts of ports are shown with the indexes.
static void _show_port_indexes(const config_key_t &, emit_t emit)
{
    _show(emit, "ether_port0_ifindex", "%u", g_config.ether_port0_ifindex);
    _show(emit, "ether_port1_ifindex", "%u", g_config.ether_port1_ifindex);
    _show(emit, "use_port_num_win", "%u", g_config.use_port_num_win);
    _show(emit, "use_port_num_linux", "%u", g_config.use_port_num_linux);
}

static const config_kind_t port_indexes_kind = {_parse_port_indexes, _show_port_indexes};

// -- the rows

// clang-format off
#define NUMBER(field, preset, low, high) #field, &number_kind, preset, &fxm_config_t::field, low, high, false, "%u"
#define MASK(field, preset, low, high, format) #field, &number_kind, preset, &fxm_config_t::field, low, high, true, format

static const config_key_t keys[] = {
    // key, default, least, most
    {"ether_port", &port_names_kind, "eth0 eth1", nullptr, 0, 0, false, nullptr},
    {"broadcast_mac", &mac_kind, "03:00:ff:ff:ff:ff", nullptr, 0, 0, false, "%.12llx"},
    {"ether_port_ifindex", &port_indexes_kind, "0 1", nullptr, 0, 0, false, nullptr},
    {NUMBER(devinfo_check_interval, "1000", 1000, 100000)},
    {NUMBER(devinfo_expire_time, "5000", 1000, 100000)},
    {NUMBER(devinfo_flag_check_interval, "100", 1, 100000)},
    {NUMBER(vlan_check_interval, "10", 1, 1000)},
    {NUMBER(frame_retry_interval, "100", 1, 1000)},
    {NUMBER(frame_retry_count, "10", 0, 100)},
    {NUMBER(frame_retry_interval_livecheck, "100", 1, 1000)},
    {NUMBER(frame_retry_count_livecheck, "10", 0, 100)},
    {MASK(eeprom_id_number, "0x100", 1, 32768, "%#.4x")},
    {NUMBER(eeprom_retry_interval, "50", 1, 1000)},
    {NUMBER(eeprom_retry_count, "100", 0, 1000)},
    {NUMBER(eeprom_check_interval, "1", 0, 1000)},
    {NUMBER(eeprom_check_retry_count, "50", 0, 1000)},
    {NUMBER(eeprom_verify_count, "20", 0, 60)},
    {NUMBER(eeprom_verify_interval, "1", 1, FXM_MAX)},
    {MASK(eeprom_lock_other_bit, "8", 0, FXM_MAX, "%#.8x")},
    {NUMBER(eeprom_rw_interval, "100", 0, 1000)},
    {NUMBER(tag_min, "0", 0, 255)},
    {NUMBER(tag_max, "255", 0, 255)},
    {MASK(id_list_upper_limit, "0xFFFFFFFF", 0, FXM_MAX, "%#.8x")},
    {NUMBER(log_level, "3", 0, 5)},
    {NUMBER(network_composition, "2", 1, 2)},
    {NUMBER(eeprom_type, "0", 0, 1)},
    {NUMBER(stats_interval, "3600", 1, 2592000)},
    {NUMBER(stats_verbose_level, "0", 0, FXM_MAX)},
    {NUMBER(force_lock_try_count, "10", 0, 1000)},
    {NUMBER(register_verify_interval, "0", 0, 1000)},
    {NUMBER(update_evt_mask, "2", 1, 2)},
    {"ether_type", &ether_type_kind, "0x88B6", nullptr, 0, 0xFFFF, true, "%#.4x"},
};
// clang-format on

static bool key_seen[std::size(keys)];
static bool ports_by_index; // the file has named the ports by index

// The row of a key, or null.
static const config_key_t *_find_key(const char *name)
{
    for (const config_key_t &key : keys) {
        if (strcmp(name, key.name) == 0)
            return &key;
    }
    return nullptr;
}

void _fxm_config_default()
{
    g_config = {};
    for (const config_key_t &key : keys) {
        char text[FXM_CONFIG_LINE];
        snprintf(text, sizeof(text), "%s", key.preset);
        [[maybe_unused]] const char *failure = key.kind->parse(key, text);
        fxm_assert(failure == nullptr);
    }
    memset(key_seen, 0, sizeof(key_seen));
    ports_by_index = false;
}

bool _fxm_config_ports_by_index() { return ports_by_index; }

uint32_t _fxm_config_port_num() { return ports_by_index ? g_config.use_port_num_win : g_config.use_port_num_linux; }

// ---------------------------------------------------------------------------------------------------------- reading

// One line of the file, under the name of the reader. 0 or EPROTO.
static int _read_line(const char *func, char *line)
{
    if (line[0] == '#')
        return 0;
    char *value = strchr(line, '=');
    if (value != nullptr)
        *value++ = '\0';
    const char *name = _next_word(&line, BLANKS);
    if (name == nullptr)
        return 0;
    const config_key_t *key = _find_key(name);
    if (key == nullptr) {
        fxm_log_error("%s: Unknown config parameter: %s", func, name);
        return EPROTO;
    }
    bool &seen = key_seen[key - keys];
    if (seen)
        return 0; // the first occurrence of a key wins
    const char *failure = key->kind->parse(*key, value);
    if (failure != nullptr) {
        fxm_log_error("%s: %s: %s", func, failure, key->name);
        return EPROTO;
    }
    seen = true;
    ports_by_index = ports_by_index || key->kind == &port_indexes_kind;
    return 0;
}

int _fxm_config_read(const char *path)
{
    _fxm_config_default();
    if (_fxm_file_exist(path) != 0) {
        fxm_log_warn("%s: Failed to _fxm_file_exist(). path=%s", __func__, path != nullptr ? path : "(null)");
        return ENOENT;
    }
    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        fxm_log_error("%s: file open error: %s. err=%d", __func__, path, errno);
        return EPROTO;
    }
    int err = 0;
    char line[FXM_CONFIG_LINE];
    while (err == 0 && fgets(line, sizeof(line), file) != nullptr)
        err = _read_line(__func__, line);
    // A file that cannot be read to its end must not pass for a short one.
    if (err == 0 && ferror(file) != 0) {
        fxm_log_error("%s: file open error: %s. err=%d", __func__, path, errno);
        err = EPROTO;
    }
    if (err == 0 && g_config.tag_min > g_config.tag_max) {
        fxm_log_error("%s: config parameter error: tag_min > tag_max", __func__);
        err = EPROTO;
    }
    if (err == 0)
        _fxm_config_value_print();
    fclose(file);
    return err;
}

// --------------------------------------------------------------------------------------------------------- showing

static void _show_all(emit_t emit)
{
    for (const config_key_t &key : keys)
        key.kind->show(key, emit);
}

void _fxm_config_value_print()
{
    fxm_log_info("%s: start.", __func__);
    _show_all([](const char *name, const char *value) { fxm_log_info("    %-30s: %s", name, value); });
    fxm_log_info("%s: end.", __func__);
}

void _fxm_config_value_dump()
{
    fxm_log_stats("  - Config parameters");
    _show_all([](const char *name, const char *value) { fxm_log_stats("    %-30s: %s", name, value); });
    fxm_log_stats(" ");
}

void _fxm_config_fini()
{
    fxm_log_info("%s: start.", __func__);
    fxm_log_info("%s: end.", __func__);
}
