// Reading, checking and showing the configuration. Runs on the caller's thread of fxm_init_manager; the dump also runs
// on the threads that write a status dump.
#include "core/fxm_config.h"

#include <cctype>
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

// ------------------------------------------------------------------------------------------------------- the table

enum kind_t { NUMBER, PORT_NAMES, PORT_INDEXES, MAC, ETHER_TYPE };

// One row for each key that stands for one field, in the order of the record. A number whose range is the whole of 32
// bits has no out of range message; one that takes a minus sign lets it wrap, as strtoul does.
struct config_key_t {
    const char *name;
    kind_t kind;
    uint32_t fxm_config_t::*field;
    uint32_t preset;
    uint32_t low;
    uint32_t high;
    bool minus;
    const char *format;
};

#define KEY_NUMBER(field, preset, low, high) #field, NUMBER, &fxm_config_t::field, preset, low, high, false, "%u"

static const config_key_t keys[] = {
    // key, default, least, most
    {"ether_port", PORT_NAMES, nullptr, 2, 0, FXM_MAX, false, "%s"},
    {"broadcast_mac", MAC, nullptr, 0, 0, FXM_MAX, false, "%.12llx"},
    {"ether_port_ifindex", PORT_INDEXES, nullptr, 2, 0, FXM_MAX, false, "%u"},
    {KEY_NUMBER(devinfo_check_interval, 1000, 1000, 100000)},
    {KEY_NUMBER(devinfo_expire_time, 5000, 1000, 100000)},
    {KEY_NUMBER(devinfo_flag_check_interval, 100, 1, 100000)},
    {KEY_NUMBER(vlan_check_interval, 10, 1, 1000)},
    {KEY_NUMBER(frame_retry_interval, 100, 1, 1000)},
    {KEY_NUMBER(frame_retry_count, 10, 0, 100)},
    {KEY_NUMBER(frame_retry_interval_livecheck, 100, 1, 1000)},
    {KEY_NUMBER(frame_retry_count_livecheck, 10, 0, 100)},
    {"eeprom_id_number", NUMBER, &fxm_config_t::eeprom_id_number, 256, 1, 32768, true, "%#.4x"},
    {KEY_NUMBER(eeprom_retry_interval, 50, 1, 1000)},
    {KEY_NUMBER(eeprom_retry_count, 100, 0, 1000)},
    {KEY_NUMBER(eeprom_check_interval, 1, 0, 1000)},
    {KEY_NUMBER(eeprom_check_retry_count, 50, 0, 1000)},
    {KEY_NUMBER(eeprom_verify_count, 20, 0, 60)},
    {KEY_NUMBER(eeprom_verify_interval, 1, 1, FXM_MAX)},
    {"eeprom_lock_other_bit", NUMBER, &fxm_config_t::eeprom_lock_other_bit, 8, 0, FXM_MAX, true, "%#.8x"},
    {KEY_NUMBER(eeprom_rw_interval, 100, 0, 1000)},
    {KEY_NUMBER(tag_min, 0, 0, 255)},
    {KEY_NUMBER(tag_max, 255, 0, 255)},
    {"id_list_upper_limit", NUMBER, &fxm_config_t::id_list_upper_limit, FXM_MAX, 0, FXM_MAX, true, "%#.8x"},
    {KEY_NUMBER(log_level, 3, 0, 5)},
    {KEY_NUMBER(network_composition, 2, 1, 2)},
    {KEY_NUMBER(eeprom_type, 0, 0, 1)},
    {KEY_NUMBER(stats_interval, 3600, 1, 2592000)},
    {KEY_NUMBER(stats_verbose_level, 0, 0, FXM_MAX)},
    {KEY_NUMBER(force_lock_try_count, 10, 0, 1000)},
    {KEY_NUMBER(register_verify_interval, 0, 0, 1000)},
    {KEY_NUMBER(update_evt_mask, 2, 1, 2)},
    {"ether_type", ETHER_TYPE, nullptr, 0x88B6, 0, 0xFFFF, true, "%#.4x"},
};

static bool key_seen[std::size(keys)];

void _fxm_config_default()
{
    g_config = {};
    snprintf(g_config.ether_port0_name, sizeof(g_config.ether_port0_name), "eth0");
    snprintf(g_config.ether_port1_name, sizeof(g_config.ether_port1_name), "eth1");
    g_config.broadcast_mac = 0x0300FFFFFFFF;
    g_config.ether_port0_ifindex = 0;
    g_config.ether_port1_ifindex = 1;
    for (const config_key_t &key : keys) {
        if (key.kind == NUMBER)
            g_config.*key.field = key.preset;
        else if (key.kind == PORT_NAMES)
            g_config.use_port_num_linux = key.preset;
        else if (key.kind == PORT_INDEXES)
            g_config.use_port_num_win = key.preset;
        else if (key.kind == ETHER_TYPE)
            g_config.ether_type = static_cast<uint16_t>(key.preset);
    }
    memset(key_seen, 0, sizeof(key_seen));
}

bool _fxm_config_ports_by_index()
{
    for (size_t i = 0; i < std::size(keys); ++i) {
        if (keys[i].kind == PORT_INDEXES)
            return key_seen[i];
    }
    return false;
}

uint32_t _fxm_config_port_num()
{
    return _fxm_config_ports_by_index() ? g_config.use_port_num_win : g_config.use_port_num_linux;
}

// --------------------------------------------------------------------------------------------------------- parsing

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

static bool _parse_mac(const char *word, uint64_t *mac)
{
    if (strlen(word) != 17)
        return false;
    uint64_t value = 0;
    for (size_t i = 0; i < 17; ++i) {
        if (i % 3 == 2) {
            if (word[i] != ':')
                return false;
            continue;
        }
        if (isxdigit(static_cast<unsigned char>(word[i])) == 0)
            return false;
        const char digit[2] = {word[i], '\0'};
        uint32_t nibble = 0;
        std::from_chars(digit, digit + 1, nibble, 16);
        value = value << 4 | nibble;
    }
    *mac = value;
    return true;
}

static bool _parse_port_names(char *text)
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
            return false;
        char *slot = g_config.use_port_num_linux == 0 ? g_config.ether_port0_name : g_config.ether_port1_name;
        snprintf(slot, FXM_PORT_NAME_SIZE, "%s", name);
        g_config.use_port_num_linux += 1;
    }
    return g_config.use_port_num_linux > 0;
}

static bool _parse_port_indexes(char *text)
{
    constexpr size_t longest = 10;
    g_config.ether_port0_ifindex = g_config.ether_port1_ifindex = 0;
    g_config.use_port_num_win = 0;
    for (int token = 0; token < 2; ++token) {
        char *word = _next_word(&text, " ,\t");
        if (word == nullptr)
            break;
        if (*word == '-')
            return false;
        word[strcspn(word, "\r\n")] = '\0';
        if (strlen(word) > longest)
            return false;
        uint32_t *slot = token == 0 ? &g_config.ether_port0_ifindex : &g_config.ether_port1_ifindex;
        const number_result_t result = _parse_u32(word, slot);
        if (result == NUMBER_TOO_LARGE)
            return false;
        if (result == NUMBER_NONE)
            break;
        g_config.use_port_num_win += 1;
    }
    return g_config.use_port_num_win > 0;
}

// Parses the text behind the "=" into the record. Null, or the words of the failure.
static const char *_parse_value(const config_key_t &key, char *text)
{
    static const char *const parse_error = "config parameter parse error";
    static const char *const range_error = "out of range error";

    if (key.kind == PORT_NAMES)
        return _parse_port_names(text) ? nullptr : parse_error;
    if (key.kind == PORT_INDEXES)
        return _parse_port_indexes(text) ? nullptr : parse_error;

    const char *word = _next_word(&text, BLANKS);
    if (word == nullptr)
        return parse_error;
    if (key.kind == MAC)
        return _parse_mac(word, &g_config.broadcast_mac) ? nullptr : parse_error;

    uint32_t value = 0;
    if ((*word == '-' && !key.minus) || _parse_u32(word, &value) != NUMBER_OK)
        return parse_error;
    if (value < key.low || value > key.high)
        return key.kind == ETHER_TYPE ? parse_error : range_error;
    if (key.kind == ETHER_TYPE)
        g_config.ether_type = static_cast<uint16_t>(value);
    else
        g_config.*key.field = value;
    return nullptr;
}

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
    for (size_t i = 0; i < std::size(keys); ++i) {
        if (strcmp(name, keys[i].name) != 0)
            continue;
        if (key_seen[i])
            return 0; // the first occurrence of a key wins
        const char *failure = _parse_value(keys[i], value);
        if (failure != nullptr) {
            fxm_log_error("%s: %s: %s", func, failure, keys[i].name);
            return EPROTO;
        }
        key_seen[i] = true;
        return 0;
    }
    fxm_log_error("%s: Unknown config parameter: %s", func, name);
    return EPROTO;
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

// Gives the name and the shown value of every field, in the order of the record.
template <typename Emit> static void _each_line(Emit emit)
{
    const auto line = [&](const char *name, const char *format, auto value) {
        char shown[FXM_PORT_NAME_SIZE];
        snprintf(shown, sizeof(shown), format, value);
        emit(name, shown);
    };
    line("ether_port0_name", "%s", g_config.ether_port0_name);
    line("ether_port1_name", "%s", g_config.ether_port1_name);
    for (const config_key_t &key : keys) {
        switch (key.kind) {
        case PORT_NAMES:
            break;
        case MAC:
            line(key.name, key.format, _ull(g_config.broadcast_mac));
            break;
        case PORT_INDEXES:
            line("ether_port0_ifindex", key.format, g_config.ether_port0_ifindex);
            line("ether_port1_ifindex", key.format, g_config.ether_port1_ifindex);
            line("use_port_num_win", key.format, g_config.use_port_num_win);
            line("use_port_num_linux", key.format, g_config.use_port_num_linux);
            break;
        case ETHER_TYPE:
            line(key.name, key.format, static_cast<uint32_t>(g_config.ether_type));
            break;
        case NUMBER:
            line(key.name, key.format, g_config.*key.field);
            break;
        }
    }
}

void _fxm_config_value_print()
{
    fxm_log_info("%s: start.", __func__);
    _each_line([](const char *name, const char *value) { fxm_log_info("    %-30s: %s", name, value); });
    fxm_log_info("%s: end.", __func__);
}

void _fxm_config_value_dump()
{
    fxm_log_stats("  - Config parameters");
    _each_line([](const char *name, const char *value) { fxm_log_stats("    %-30s: %s", name, value); });
    fxm_log_stats(" ");
}

void _fxm_config_fini()
{
    fxm_log_info("%s: start.", __func__);
    fxm_log_info("%s: end.", __func__);
}
