// The input is a configuration file. Whatever it holds, the values that the library takes from it are within the ranges
// that conf/fxm.conf gives.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/fxm_config.h"
#include "fixture.h"
#include "fxm_log4cxxif.h"

static const struct {
    uint32_t fxm_config_t::*field;
    uint32_t low, high;
} ranges[] = {
    {&fxm_config_t::use_port_num_linux, 0, 2},
    {&fxm_config_t::use_port_num_win, 0, 2},
    {&fxm_config_t::update_evt_mask, 1, 2},
    {&fxm_config_t::devinfo_check_interval, 1000, 100000},
    {&fxm_config_t::devinfo_expire_time, 1000, 100000},
    {&fxm_config_t::devinfo_flag_check_interval, 1, 100000},
    {&fxm_config_t::frame_retry_interval, 1, 1000},
    {&fxm_config_t::frame_retry_count, 0, 100},
    {&fxm_config_t::frame_retry_interval_livecheck, 1, 1000},
    {&fxm_config_t::frame_retry_count_livecheck, 0, 100},
    {&fxm_config_t::register_verify_interval, 0, 1000},
    {&fxm_config_t::vlan_check_interval, 1, 1000},
    {&fxm_config_t::tag_min, 0, 255},
    {&fxm_config_t::tag_max, 0, 255},
    {&fxm_config_t::eeprom_type, 0, 1},
    {&fxm_config_t::eeprom_check_interval, 0, 1000},
    {&fxm_config_t::eeprom_check_retry_count, 0, 1000},
    {&fxm_config_t::eeprom_rw_interval, 0, 1000},
    {&fxm_config_t::eeprom_retry_interval, 1, 1000},
    {&fxm_config_t::eeprom_retry_count, 0, 1000},
    {&fxm_config_t::eeprom_verify_count, 0, 60},
    {&fxm_config_t::eeprom_verify_interval, 1, UINT32_MAX},
    {&fxm_config_t::force_lock_try_count, 0, 1000},
    {&fxm_config_t::eeprom_id_number, 1, 32768},
    {&fxm_config_t::log_level, FXM_LOG_FATAL, FXM_LOG_TRACE},
    {&fxm_config_t::stats_interval, 1, 2592000},
    {&fxm_config_t::network_composition, 1, 2},
};

static std::string path;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_begin();
    g_log_level = FXM_LOG_TRACE; // every message is formatted; without an appender it goes no further
    path = "/proc/self/fd/" + std::to_string(memfd_create("fxm.conf", MFD_CLOEXEC));
    return 0;
}

static int read_file(const uint8_t *data, size_t size)
{
    const int fd = std::stoi(path.substr(path.rfind('/') + 1));
    DEMAND(ftruncate(fd, static_cast<off_t>(size)) == 0);
    DEMAND(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    return _fxm_config_read(path.c_str());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int err = read_file(data, size);
    DEMAND(err == 0 || err == EPROTO);
    for (const auto &range : ranges)
        DEMAND(g_config.*range.field >= range.low && g_config.*range.field <= range.high);
    for (const char *name : {g_config.ether_port0_name, g_config.ether_port1_name})
        DEMAND(memchr(name, '\0', FXM_PORT_NAME_SIZE) != nullptr);
    DEMAND(g_config.broadcast_mac >> 48 == 0);
    if (err == 0) {
        DEMAND(g_config.tag_min <= g_config.tag_max);
        DEMAND(_fxm_config_port_num() >= 1 && _fxm_config_port_num() <= FXM_PORT_NUM);
    }
    _fxm_config_value_dump();

    // Nothing of one reading is left in the next.
    const fxm_config_t first = g_config;
    DEMAND(read_file(data, size) == err && memcmp(&first, &g_config, sizeof(first)) == 0);
    return 0;
}
