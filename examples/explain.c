/* Finds the cause of a failed start from outside the library; see explain.h. */
#include "explain.h"

#include <errno.h>
#include <net/if.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fxm.h"
#include "host.h"

#define DIR_MAX   481u /* the longest installation directory, in characters */
#define PATH_SIZE 4096
#define LINE_SIZE 128 /* the library reads a longer line as several lines of 127 characters */
#define PORTS     2

/* --------------------------------------------------------------------------------------------- the configuration */

/* WRAPPED is a NUMBER that also accepts a minus sign, which wraps around. */
enum kind { NUMBER, WRAPPED, NAMES, INDEXES, MAC };

typedef struct rule_t {
    const char *key;
    enum kind kind;
    uint32_t least, most; /* of a number */
} rule_t;

static const rule_t _rules[] = {
    {"ether_port", NAMES, 0, 0},
    {"broadcast_mac", MAC, 0, 0},
    {"ether_port_ifindex", INDEXES, 0, 0},
    {"devinfo_check_interval", NUMBER, 1000, 100000},
    {"devinfo_expire_time", NUMBER, 1000, 100000},
    {"devinfo_flag_check_interval", NUMBER, 1, 100000},
    {"vlan_check_interval", NUMBER, 1, 1000},
    {"frame_retry_interval", NUMBER, 1, 1000},
    {"frame_retry_count", NUMBER, 0, 100},
    {"frame_retry_interval_livecheck", NUMBER, 1, 1000},
    {"frame_retry_count_livecheck", NUMBER, 0, 100},
    {"eeprom_id_number", WRAPPED, 1, 32768},
    {"eeprom_retry_interval", NUMBER, 1, 1000},
    {"eeprom_retry_count", NUMBER, 0, 1000},
    {"eeprom_check_interval", NUMBER, 0, 1000},
    {"eeprom_check_retry_count", NUMBER, 0, 1000},
    {"eeprom_verify_count", NUMBER, 0, 60},
    {"eeprom_verify_interval", NUMBER, 1, UINT32_MAX},
    {"eeprom_lock_other_bit", WRAPPED, 0, UINT32_MAX},
    {"eeprom_rw_interval", NUMBER, 0, 1000},
    {"tag_min", NUMBER, 0, 255},
    {"tag_max", NUMBER, 0, 255},
    {"id_list_upper_limit", WRAPPED, 0, UINT32_MAX},
    {"log_level", NUMBER, 0, 5},
    {"network_composition", NUMBER, 1, 2},
    {"eeprom_type", NUMBER, 0, 1},
    {"stats_interval", NUMBER, 1, 2592000},
    {"stats_verbose_level", NUMBER, 0, UINT32_MAX},
    {"force_lock_try_count", NUMBER, 0, 1000},
    {"register_verify_interval", NUMBER, 0, 1000},
    {"update_evt_mask", NUMBER, 1, 2},
    {"ether_type", WRAPPED, 0, 65535},
};
#define RULES (sizeof _rules / sizeof _rules[0])

typedef struct value_t {
    unsigned line;               /* of the first occurrence, which is the one that counts; 0 if there is none */
    uint32_t number;             /* a number, or how many ports */
    char port[PORTS][LINE_SIZE]; /* names or indexes, as they are written */
} value_t;

typedef struct config_t {
    char path[PATH_SIZE];
    value_t value[RULES]; /* in the order of the rules */
} config_t;

static value_t *_value(config_t *config, const char *key)
{
    size_t i = 0;
    while (strcmp(_rules[i].key, key) != 0)
        i++;
    return &config->value[i];
}

static bool _parse_number(const rule_t *rule, const char *word, uint32_t *number)
{
    const bool minus = word[0] == '-';

    if (minus && rule->kind != WRAPPED)
        return false;
    if (!host_parse_u32(word + (minus || word[0] == '+'), number))
        return false;
    if (minus)
        *number = 0u - *number;
    return *number >= rule->least && *number <= rule->most;
}

static bool _parse_mac(const char *word)
{
    unsigned byte[6];
    int end = 0;
    return strlen(word) == 17 && strspn(word, "0123456789abcdefABCDEF:") == 17 &&
           sscanf(word, "%2x:%2x:%2x:%2x:%2x:%2x%n", &byte[0], &byte[1], &byte[2], &byte[3], &byte[4], &byte[5],
                  &end) == 6 &&
           end == 17;
}

/* One or two words. A second index that is no number is ignored, and so is everything behind the second word. */
static bool _parse_ports(const rule_t *rule, char *text, value_t *value)
{
    char *rest = NULL;
    char *word = strtok_r(text, " ,\t", &rest);

    for (int i = 0; i < PORTS && word != NULL; i++, word = strtok_r(NULL, " ,\t", &rest)) {
        word[strcspn(word, "\r\n")] = '\0';
        if (rule->kind == INDEXES) {
            char *end = word;
            const unsigned long long index = strtoull(word, &end, 0);
            if (word[0] == '-' || strlen(word) > 10 || index > UINT32_MAX)
                return false;
            if (end == word || *end != '\0')
                break;
        } else if (word[0] == '\0') {
            continue;
        }
        snprintf(value->port[value->number++], LINE_SIZE, "%s", word);
    }
    return value->number > 0;
}

static bool _parse_value(const rule_t *rule, char *text, value_t *value)
{
    char *rest = NULL;

    if (rule->kind == NAMES || rule->kind == INDEXES)
        return _parse_ports(rule, text, value);
    const char *word = strtok_r(text, " \t\r\n", &rest);
    if (word == NULL)
        return false;
    return rule->kind == MAC ? _parse_mac(word) : _parse_number(rule, word, &value->number);
}

static void _print_bad_value(const config_t *config, unsigned line, const rule_t *rule, const char *text)
{
    const char *shown = text + strspn(text, " \t\r\n");
    size_t length = strlen(shown);

    while (length > 0 && strchr(" \t\r\n", shown[length - 1]) != NULL)
        length--;
    fprintf(stderr, "%s:%u: %s = %.*s: expected ", config->path, line, rule->key, (int)length, shown);
    if (rule->kind == NAMES)
        fprintf(stderr, "one or two names of network interfaces.\n");
    else if (rule->kind == INDEXES)
        fprintf(stderr, "one or two indexes of network interfaces.\n");
    else if (rule->kind == MAC)
        fprintf(stderr, "a MAC address such as 03:00:ff:ff:ff:ff.\n");
    else
        fprintf(stderr, "a number from %u to %u.\n", rule->least, rule->most);
}

/* False, with the reason on stderr, if the library refuses this line. */
static bool _read_line(config_t *config, unsigned number, char *line)
{
    char *rest = NULL;
    char *text = strchr(line, '=');

    if (line[0] == '#')
        return true;
    if (text != NULL)
        *text++ = '\0';
    else
        text = line + strlen(line);
    const char *key = strtok_r(line, " \t\r\n", &rest);
    if (key == NULL)
        return true;
    for (size_t i = 0; i < RULES; i++) {
        char copy[LINE_SIZE];
        if (strcmp(key, _rules[i].key) != 0)
            continue;
        if (config->value[i].line != 0)
            return true;
        snprintf(copy, sizeof copy, "%s", text);
        config->value[i] = (value_t){.line = number};
        if (_parse_value(&_rules[i], copy, &config->value[i]))
            return true;
        _print_bad_value(config, number, &_rules[i], text);
        return false;
    }
    fprintf(stderr, "%s:%u: there is no key \"%s\".%s\n", config->path, number, key,
            key[0] == '#' ? " The # of a comment must be the first character of its line." : "");
    return false;
}

/* Reads conf/fxm.conf as the library does, up to the first error. False if there is one; it is on stderr then. */
static bool _read_config(const char *dir, config_t *config)
{
    char line[LINE_SIZE];
    unsigned number = 1;
    struct stat status;
    bool good = true;

    *config = (config_t){0};
    snprintf(config->path, sizeof config->path, "%s/conf/fxm.conf", dir);
    *_value(config, "ether_port") = (value_t){0, PORTS, {"eth0", "eth1"}};
    *_value(config, "tag_max") = (value_t){.number = 255};
    if (stat(config->path, &status) != 0 || !S_ISREG(status.st_mode))
        return true; /* the defaults apply */
    FILE *file = fopen(config->path, "r");
    if (file == NULL) {
        fprintf(stderr, "Cannot open %s: %s.\n", config->path, strerror(errno));
        return false;
    }
    while (good && fgets(line, sizeof line, file) != NULL) {
        const bool ends = strchr(line, '\n') != NULL;
        good = _read_line(config, number, line);
        number += ends;
    }
    if (ferror(file)) {
        fprintf(stderr, "Cannot read %s: %s.\n", config->path, strerror(errno));
        good = false;
    }
    fclose(file);
    const value_t *low = _value(config, "tag_min");
    const value_t *high = _value(config, "tag_max");
    if (good && low->number > high->number) {
        fprintf(stderr, "%s:%u: tag_min = %u is greater than tag_max = %u.\n", config->path,
                low->line > high->line ? low->line : high->line, low->number, high->number);
        good = false;
    }
    return good;
}

/* ----------------------------------------------------------------------------------------------------- the ports */

/* Writes to stderr, behind `prefix`, what keeps the library from opening a port; false if nothing does. */
static bool _print_port_fault(config_t *config, uint32_t port, const char *prefix)
{
    const bool by_index = _value(config, "ether_port_ifindex")->line != 0;
    const char *key = by_index ? "ether_port_ifindex" : "ether_port";
    const value_t *value = _value(config, key);
    const char *word = value->port[port];
    struct ifreq request = {0};
    char fault[2 * LINE_SIZE] = "";

    const unsigned index = by_index ? (unsigned)strtoul(word, NULL, 0) : if_nametoindex(word);
    if (index == 0 || if_indextoname(index, request.ifr_name) == NULL) {
        snprintf(fault, sizeof fault, "there is no interface %s%s; compare with the output of \"ip link\"",
                 by_index ? "with the index " : "", word);
    } else {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const bool known = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0;
        if (known && (request.ifr_flags & IFF_LOOPBACK))
            snprintf(fault, sizeof fault, "interface %s is the loopback interface", word);
        else if (known && !(request.ifr_flags & IFF_UP))
            snprintf(fault, sizeof fault, "interface %s is down; bring it up with \"ip link set %s up\"", word,
                     request.ifr_name);
        if (fd >= 0)
            close(fd);
    }
    if (fault[0] == '\0')
        return false;
    fprintf(stderr, "%sport %u: %s.\n", prefix, port, fault);
    if (value->line != 0)
        fprintf(stderr, "  It is set by %s in line %u of %s.\n", key, value->line, config->path);
    else
        fprintf(stderr, "  It is the default, because no port is set in %s.\n", config->path);
    return true;
}

static bool _print_port_faults(config_t *config, const char *prefix)
{
    const value_t *indexes = _value(config, "ether_port_ifindex");
    const uint32_t count = indexes->line != 0 ? indexes->number : _value(config, "ether_port")->number;
    bool any = false;

    for (uint32_t port = 0; port < count; port++)
        any |= _print_port_fault(config, port, prefix);
    return any;
}

static bool _print_missing_right(void)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);

    if (fd >= 0) {
        close(fd);
        return false;
    }
    if (errno != EPERM)
        return false;
    fprintf(stderr, "Raw sockets need root or CAP_NET_RAW. Run the program with sudo.\n");
    return true;
}

/* ------------------------------------------------------------------------------------------------ what is exported */

/* The library's own default for an empty directory. */
static const char *_root(const char *dir) { return dir[0] != '\0' ? dir : "C:/Program Files/QOR/FXM"; }

void explain_start(const char *dir, int result)
{
    static config_t config;
    char properties[PATH_SIZE];
    struct stat status;

    fprintf(stderr, "fxm did not start in %s: %s\n", _root(dir), host_result(result));
    if (result == FXM_API_EINVAL) {
        fprintf(stderr, "%s is not a directory. Name the installation directory with --dir.\n", dir);
        return;
    }
    if (strlen(dir) > DIR_MAX) {
        fprintf(stderr, "The path of an installation directory has at most %u characters.\n", DIR_MAX);
        return;
    }
    snprintf(properties, sizeof properties, "%s/conf/fxm_log4c_win.properties", _root(dir));
    if (stat(properties, &status) != 0 || !S_ISREG(status.st_mode)) {
        fprintf(stderr, "There is no file %s. Copy the sample of that name there.\n", properties);
        return;
    }
    if (!_read_config(_root(dir), &config))
        return;
    const bool fault = _print_port_faults(&config, "Cannot open ");
    if (!_print_missing_right() && !fault)
        fprintf(stderr, "The log has the reason; %s names the log files.\n", properties);
}

void explain_ports(const char *dir)
{
    static config_t config;

    if (_read_config(_root(dir), &config))
        _print_port_faults(&config, "Warning: fxm runs without ");
}
