// The input is a configuration file. Whatever it holds, the values that the library takes from it are within the ranges
// that conf/fxm.conf gives.
#include <cerrno>
#include <cstdio>
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

// A regular file, so that the path passes. What is read from it is the input: --wrap puts this function before fopen.
static std::string path;
static const uint8_t *content;
static size_t content_size;

extern "C" FILE *__real_fopen(const char *name, const char *mode);
extern "C" FILE *__wrap_fopen(const char *name, const char *mode)
{
    return name != path.c_str() ? __real_fopen(name, mode)
                                : fmemopen(const_cast<uint8_t *>(content), content_size, mode);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    fuzz_begin("files");
    path = (*argv)[0];
    return 0;
}

static int read_file(const uint8_t *data, size_t size)
{
    content = data;
    content_size = size;
    fuzz_count += 1;
    return _fxm_config_read(path.c_str());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // To format a message takes longer than to read its line. Without an appender it goes no further.
    g_log_level = size % 8 == 0 ? FXM_LOG_TRACE : FXM_LOG_FATAL;
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
