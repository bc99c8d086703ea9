// The life of the library: start-up, interval check and tear-down, all on the thread on which the host has called
// fxm_init_manager. Scopes undo the start-up in reverse order.
#include <cerrno>
#include <iterator>

#include "access/fxm_tags.h"
#include "access/fxm_wreg.h"
#include "core/fxm_config.h"
#include "core/fxm_loglevel.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "diag/fxm_stdump.h"
#include "events/fxm_event.h"
#include "events/fxm_linkstate.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_blacklist.h"
#include "registry/fxm_keepalive.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"
#include "wire/fxm_recv.h"

// ----------------------------------------------------------------------------------------------------- interval check

// The main loop of the library. Only the ticks count towards the period, not the time that a pass takes.
static int _fxm_interval_check()
{
    const uint32_t tick = g_config.devinfo_flag_check_interval;
    const uint32_t period = g_config.devinfo_check_interval;
    uint64_t elapsed = 0;
    fxm_log_info("%s: start.", __func__);
    while (!_fxm_stopping()) {
        Sleep(tick);
        elapsed += tick;
        if (elapsed < period)
            continue;
        fxm_log_trace("%s: DEVINFO interval check start", __func__);
        {
            fxm_fx_guard_t guard;
            _devinfo_keepalive_check();
        }
        fxm_log_trace("%s: DEVINFO interval check end", __func__);
        elapsed = 0;
    }
    fxm_log_info("%s: end.", __func__);
    return 0;
}

// --------------------------------------------------------------------------------------------------------- subsystems

// Brought up in this order and released in reverse.
static const struct {
    int (*init)();
    void (*fini)();
} subsystems[] = {
    {_fxm_stats_init, _fxm_stats_fini},
    {_fxm_fx_init, [] { _fxm_fx_fini(); }},
    {_fxm_blacklist_init, [] { _fxm_blacklist_fini(); }},
    {_fxm_event_cb_init, [] { _fxm_event_cb_fini(); }},
    {_fxm_cmp_init, [] { _fxm_cmp_fini(); }},
    {_fxm_reg_init, _fxm_reg_fini},
};

// Those that have been brought up; released at the end of the scope.
struct subsystems_t {
    size_t made = 0;

    // 0, or the value of the first failure.
    int bring_up()
    {
        for (; made < std::size(subsystems); ++made) {
            const int err = subsystems[made].init();
            if (err != 0)
                return err;
        }
        return 0;
    }
    ~subsystems_t()
    {
        while (made > 0)
            subsystems[--made].fini();
    }
};

// -------------------------------------------------------------------------------------------------- ports and workers

// The ports that have been opened; closed at the end of the scope.
struct open_ports_t {
    bool is_open[FXM_PORT_NUM] = {};

    ~open_ports_t()
    {
        for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
            if (is_open[port])
                _fxm_socket_close(port);
        }
    }
};

// Opens the configured ports. One is enough: the other's failure is forgotten then. 0, or the error of the last one
// tried.
static int _open_ports(const char *func, open_ports_t *ports)
{
    _fxm_ports_clear();
    int err = 0;
    bool any = false;
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        if (port > 0 && _fxm_config_port_num() <= port)
            break;
        const int open_err = _fxm_socket_open(port);
        ports->is_open[port] = open_err == 0;
        any = any || open_err == 0;
        if (open_err == 0)
            continue;
        fxm_log_error("%s: Failed to _fxm_socket_open(). port=%u, err=%d", func, port, open_err);
        err = open_err;
    }
    return any ? 0 : err;
}

// The workers that have been started; the joins follow it exactly.
struct workers_t {
    fxm_thread_t recv[FXM_PORT_NUM];
    fxm_thread_t event_task;
    fxm_thread_t watch_link;
    fxm_thread_t stats_task;
};

static bool _start_worker(const char *func, const char *name, fxm_thread_t *thread, fxm_thread_start_t start, void *arg)
{
    const int err = _fxm_thread_create(thread, start, arg);
    if (err == 0)
        return true;
    fxm_log_error("%s: Failed to _fxm_thread_create(%s). err=%d", func, name, err);
    return false;
}

// Starts the workers; one receive thread is enough. False: not all that are needed run, and a stop has been requested.
static bool _start_workers(const char *func, const open_ports_t &ports, workers_t *workers)
{
    static const char *const recv_names[FXM_PORT_NUM] = {"recv port0", "recv port1"};
    bool receiving = false;
    for (uintptr_t port = 0; port < FXM_PORT_NUM; ++port) {
        if (ports.is_open[port] &&
            _start_worker(func, recv_names[port], &workers->recv[port], _fxm_recv_task, reinterpret_cast<void *>(port)))
            receiving = true;
    }
    if (receiving && _start_worker(func, "event_task", &workers->event_task, _fxm_event_task, nullptr) &&
        _start_worker(func, "watch_link", &workers->watch_link, _fxm_watch_linkstate, nullptr) &&
        _start_worker(func, "stats_task", &workers->stats_task, _fxm_stats_task, nullptr))
        return true;
    _fxm_fini_manager();
    _fxm_event_set(&g_terminate_event);
    return false;
}

static void _join_workers(workers_t *workers)
{
    _fxm_thread_join(&workers->stats_task);
    _fxm_thread_join(&workers->watch_link);
    _fxm_thread_join(&workers->event_task);
    for (fxm_thread_t &thread : workers->recv)
        _fxm_thread_join(&thread);
}

// From the terminate event to its closing, with the whole of a run between them. 0 or EPROTO.
static int _run_workers(const char *func, const open_ports_t &ports)
{
    const int err = _fxm_terminate_event_create();
    if (err != 0) {
        fxm_log_error("%s: Failed to _fxm_terminate_event_create(). err=%d", func, err);
        return EPROTO;
    }
    internal_err.store(0);
    workers_t workers = {};
    if (_start_workers(func, ports, &workers)) {
        // g_fini_flag is not written here. If a worker has failed or the host has requested a stop in the meantime, that
        // stop must not be lost: workers have seen it and have ended.
        g_start_flag.store(FXM_OFF);
        g_init_flag.store(FXM_ON);
        g_init_guard.store(1);
        fxm_log_info("%s: Initialization was completed.", func);
        fxm_log_sys("Starting FXM LFI");
        _fxm_interval_check();
        _fxm_event_set(&g_stats_event);
        _fxm_event_set(&g_terminate_event);
    }
    _join_workers(&workers);
    // Calls that have found the library running use ports, tags and tables until they return.
    _fxm_wait_calls();
    _fxm_event_destroy(&g_terminate_event);
    return 0;
}

// What lies between the configuration and the end of the tear-down. 0, or the error that kept it from running.
static int _run(const char *func)
{
    subsystems_t up;
    int err = up.bring_up();
    if (err != 0)
        return err;
    open_ports_t ports;
    err = _open_ports(func, &ports);
    return err != 0 ? err : _run_workers(func, ports);
}

// ------------------------------------------------------------------------------------------------- exported functions

// Arguments, logging, configuration: what comes before there is anything to release. An FXM_API_ code.
static int _prepare(const char *func, const char *dir, int32_t log_level)
{
    if (!_fxm_loglevel_valid(log_level))
        return FXM_API_EINVAL;
    if (dir != nullptr && dir[0] != '\0' && _fxm_dir_exist(dir) != 0)
        return FXM_API_EINVAL;
    const int log_result = fxm_log_init(dir);
    if (log_result != 0)
        return log_result;
    _fxm_config_default();
    char path[FXM_PATH_SIZE];
    if (!_fxm_path_below(dir, "conf/fxm.conf", path)) {
        fxm_log_error("%s: Failed to make_conf_filename()", func);
        return FXM_API_EPROTO;
    }
    const int err = _fxm_config_read(path);
    if (err != 0 && err != ENOENT) {
        fxm_log_error("%s: Failed to _fxm_config_read() err=%d", func, err);
        return FXM_API_EPROTO;
    }
    _fxm_set_loglevel(log_level);
    return FXM_API_SUCCESS;
}

// Takes the guard. False for a second call, which must not touch anything.
static bool _enter_start()
{
    if (g_init_flag.load() == FXM_ON)
        return false;
    int free_guard = 1;
    if (!g_init_guard.compare_exchange_strong(free_guard, 0))
        return false;
    // Another start may have completed since the flag was read.
    if (g_init_flag.load() == FXM_ON) {
        g_init_guard.store(1);
        return false;
    }
    g_start_flag.store(FXM_OFF);
    g_fini_flag.store(FXM_OFF);
    return true;
}

int fxm_init_manager(const char *dir, int32_t log_level)
{
    if (!_enter_start())
        return _fxm_stats_api(FXM_ROW_INIT_MANAGER, FXM_API_EBUSY);
    const int refused = _prepare(__func__, dir, log_level);
    if (refused != FXM_API_SUCCESS) {
        g_init_guard.store(1);
        return refused;
    }

    int err = _run(__func__);
    _fxm_config_fini();

    // Read before the flags are released. After that the word may belong to another start.
    const int stop_err = internal_err.exchange(0);
    g_start_flag.store(FXM_OFF);
    // The last store lets the next start in, so nothing may be stored after it. After a complete start that is the flag:
    // the guard has been free since then.
    if (g_init_flag.load() == FXM_ON)
        g_init_flag.store(FXM_OFF);
    else
        g_init_guard.store(1);
    if (stop_err != 0) {
        fxm_log_info("%s: Internal err is detected. internal_err=%d", __func__, stop_err);
        err = stop_err;
    }
    const int result = _fxm_errno_to_result(err);
    fxm_log_sys("FXM LFI stopped");
    fxm_log_info("%s: (OUT) ret=%d", __func__, result);
    return result;
}

int fxm_start_manager(void)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN)", __func__);
    int result = FXM_API_ENOSYS;
    if (call.running) {
        g_start_flag.store(FXM_ON);
        result = FXM_API_SUCCESS;
    }
    fxm_log_info("%s: (OUT) ret=%d", __func__, result);
    return _fxm_stats_api(FXM_ROW_START_MANAGER, result);
}

int fxm_fini_manager(void)
{
    fxm_log_info("%s: (IN)", __func__);
    g_fini_flag.store(FXM_ON);
    fxm_log_info("%s: (OUT) ret=%d", __func__, FXM_API_SUCCESS);
    return _fxm_stats_api(FXM_ROW_FINI_MANAGER, FXM_API_SUCCESS);
}
