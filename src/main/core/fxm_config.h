// The configuration: one record. It gets its defaults, and then the values of conf/fxm.conf, while the library starts,
// on the thread that called fxm_init_manager. After that nobody writes it, so all threads read it without a lock.
#ifndef FXM_CONFIG_H
#define FXM_CONFIG_H

#include <cstddef>
#include <cstdint>

constexpr uint32_t FXM_PORT_NUM = 2; // ports at most
constexpr size_t FXM_PORT_NAME_SIZE = 256;

// The table in fxm_config.cpp holds all keys with their defaults and ranges; conf/fxm.conf explains each key.
struct fxm_config_t {
    char ether_port0_name[FXM_PORT_NAME_SIZE];
    char ether_port1_name[FXM_PORT_NAME_SIZE];
    uint64_t broadcast_mac; // packed as a card id
    uint32_t ether_port0_ifindex;
    uint32_t ether_port1_ifindex;
    uint32_t use_port_num_win;   // ports named by index
    uint32_t use_port_num_linux; // ports named by name
    uint32_t devinfo_check_interval;
    uint32_t devinfo_expire_time;
    uint32_t devinfo_flag_check_interval;
    uint32_t vlan_check_interval;
    uint32_t frame_retry_interval;
    uint32_t frame_retry_count;
    uint32_t frame_retry_interval_livecheck;
    uint32_t frame_retry_count_livecheck;
    uint32_t eeprom_id_number;
    uint32_t eeprom_retry_interval;
    uint32_t eeprom_retry_count;
    uint32_t eeprom_check_interval;
    uint32_t eeprom_check_retry_count;
    uint32_t eeprom_verify_count;
    uint32_t eeprom_verify_interval;
    uint32_t eeprom_lock_other_bit;
    uint32_t eeprom_rw_interval;
    uint32_t tag_min;
    uint32_t tag_max;
    uint32_t id_list_upper_limit;
    uint32_t log_level;
    uint32_t network_composition;
    uint32_t eeprom_type;
    uint32_t stats_interval; // seconds
    uint32_t stats_verbose_level;
    uint32_t force_lock_try_count;
    uint32_t register_verify_interval;
    uint32_t update_evt_mask;
    uint16_t ether_type;
};

extern fxm_config_t g_config;

void _fxm_config_default();
// 0, ENOENT: no such file, the defaults apply; EPROTO: an error in the file.
[[nodiscard]] int _fxm_config_read(const char *path);
void _fxm_config_value_print(); // all values, to the log at INFO
void _fxm_config_value_dump();  // all values, to the status dump
void _fxm_config_fini();

// A file that sets `ether_port_ifindex` selects the ports by index, any other file by name. The number of ports follows
// from that.
bool _fxm_config_ports_by_index();
uint32_t _fxm_config_port_num();

#endif
