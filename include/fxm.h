/*
 * fxm - management of a fabric of Fenxar cards
 * ============================================
 *
 * Fenxar cards carry PCI Express over Ethernet. An FXSV card sits on the server side: it shows a PCI bridge with one
 * up port and up to 16 down ports. An FXIO card stands in front of a PCI function. A down port is joined to an FXIO
 * card by that card's MAC address. All cards announce themselves, over and over, with raw Ethernet frames on a
 * management network; libfxm owns one or two Ethernet ports of that network and gives the host tables of the cards,
 * events when they change, and access to their registers and EEPROMs.
 *
 * The life of a manager
 * ---------------------
 *
 *     static void *run(void *arg) {                       // a thread of its own: the call lasts as long as the library
 *         int *result = arg;
 *         *result = fxm_init_manager("/opt/fxm", -1);     // reads /opt/fxm/conf/fxm.conf, opens the ports, runs
 *         return NULL;
 *     }
 *     ...
 *     pthread_create(&thread, NULL, run, &result);
 *     while (fxm_register_callback(FXM_EVT_NEWDEVINFO, on_event, 0, &cbid) == FXM_API_ENOSYS)
 *         usleep(10000);                                  // ENOSYS until start-up is complete
 *     fxm_start_manager();                                // from here on frames reach the tables
 *     ...                                                 // read cards, talk to cards, from any thread
 *     fxm_fini_manager();                                 // asks for the stop and returns at once
 *     pthread_join(thread, NULL);                         // the stop is complete when fxm_init_manager has returned
 *
 * A host that loops like this looks at the thread too: when fxm_init_manager fails it returns at once, and every other
 * function goes on answering FXM_API_ENOSYS.
 *
 * One process holds one manager; there is no handle. After a stop fxm_init_manager may be called again, any number of
 * times; tables, counters and the list of cards kept out of monitoring start empty each time.
 *
 * Results
 * -------
 * Every function returns an int, one of the FXM_API_ codes. FXM_API_ENOSYS comes from every function but
 * fxm_init_manager, fxm_fini_manager and fxm_free_idlist while the library is not up, or is stopping; it is not
 * repeated at each function below. Outputs are written on FXM_API_SUCCESS only, unless a function says otherwise.
 *
 * Threads
 * -------
 * Every function may be called from any host thread, any number at once, and from inside a callback (one exception:
 * do not wait inside a callback for fxm_init_manager to return: it waits for the callback). All callbacks run on one
 * thread of the library, one at a time; a callback that blocks delays later events but neither the reception of frames
 * nor other callers. No lock that a host could meet is held during a callback, except that fxm_register_callback and
 * fxm_unregister_callback for the same kind of event wait on other threads until the event has been delivered.
 *
 * "Does not block" below means: no longer than the library holds its table lock: well under a millisecond for fabrics of
 * some thousand cards, some milliseconds when all of them go down at once, and for a status dump the writing of its
 * card section. Operations on a card block as long as their retries take; each says how long.
 * A stop ends every call in flight with FXM_API_ENOSYS within about 100 ms, whatever its own waits are.
 *
 * Memory
 * ------
 * Records are copied into memory of the host. The two things that the library hands out are id lists, given back with
 * fxm_free_idlist, and registration handles, given back with fxm_unregister_callback or void after a stop.
 *
 * Units
 * -----
 * A card id is a uint64_t whose low 48 bits are the card's MAC address read as a big-endian number, so that
 * printf("0x%.12llx") shows it in its usual order. A card of the 40G generation has two MAC addresses that differ in
 * bit 0 of the last byte; its id is the even one. Times are milliseconds since 1970-01-01 00:00:00 UTC, wall clock;
 * 0 means never. Waits are in milliseconds and measured on the monotonic clock.
 */
#ifndef FXM_H
#define FXM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define FXM_EXPORT __attribute__((visibility("default")))
#else
#define FXM_EXPORT
#endif

/* ----------------------------------------------------------------------------------------------------- version */

/* The version of this header and of the library that was built with it. */
#define FXM_VERSION_MAJOR 1
#define FXM_VERSION_MINOR 0
#define FXM_VERSION_PATCH 0

#define FXM_VERSION_QUOTE_(major, minor, patch) #major "." #minor "." #patch
#define FXM_VERSION_QUOTE(major, minor, patch)  FXM_VERSION_QUOTE_(major, minor, patch)
#define FXM_VERSION                             FXM_VERSION_QUOTE(FXM_VERSION_MAJOR, FXM_VERSION_MINOR, FXM_VERSION_PATCH)

/* --------------------------------------------------------------------------------------------------- constants */

/* The connection bit, in the second byte of fdp_port_status and of fio_substate. */
#define FXM_CONNECTED_BIT 2

/* fcd_ver of a multi-root FXIO card. */
#define FXM_VER_MULTIROOT 1

/* First and last VLAN id that fxm_set_vlanid accepts, and first and last group that a query by group accepts. A card's
 * group is its VLAN id. */
#define FXM_VLAN_FIRST  16
#define FXM_VLAN_LAST   4094
#define FXM_GROUP_FIRST 1
#define FXM_GROUP_LAST  4094

/* Pages of a multi-root card, and bytes of a page. */
#define FXM_MMS_PAGES     1024
#define FXM_MMS_PAGE_SIZE 128

/* Highest register address of a card. */
#define FXM_REGISTER_LAST 0x3FFFFC

/* Bytes of a card's EEPROM. */
#define FXM_EEPROM_SIZE 0x800

/* ------------------------------------------------------------------------------------------------ result codes */

enum {
    FXM_API_SUCCESS = 0,   /* done */
    FXM_API_EINVAL = 1,    /* an argument failed its check */
    FXM_API_ERANGE = 2,    /* a size or count limit was exceeded */
    FXM_API_ENOENT = 3,    /* the identifier, port or entry does not exist */
    FXM_API_ENOLINK = 4,   /* the card or link is not reachable now */
    FXM_API_ENOMEM = 5,    /* an allocation failed */
    FXM_API_EPROTO = 6,    /* failure of a system service or another internal failure */
    FXM_API_ETIMEDOUT = 7, /* no answer in the time allowed */
    FXM_API_EBUSY = 8,     /* already running, or held by somebody else */
    FXM_API_ENOSYS = 9     /* the library is not initialised or is stopping */
};

/* ------------------------------------------------------------------------------------------------- event kinds */

/* The `type` of fxm_register_callback and of every callback. An event carries a card id and nothing else: the callback
 * reads the card with fxm_get_fxsv or fxm_get_fxio and sees it as it is then, which may be newer than the change. */
typedef int32_t fxm_event_type_t;
enum {
    FXM_EVT_NEWDEVINFO = 0,        /* a card's first frame has put it into its table */
    FXM_EVT_UPDATEDEVINFO = 1,     /* a card's record has changed, a channel has gone up or down, monitoring is back */
    FXM_EVT_CONNECTIONCHANGE = 2,  /* connection bit of a down port (FXSV) or of the sub-state (FXIO) has changed */
    FXM_EVT_MAJORMINORERROR = 3,   /* new bits in the interrupt vector, or a non-zero one on a new card */
    FXM_EVT_PATHSTATECHANGE = 4,   /* a link fault flag of an FXIO card has changed */
    FXM_EVT_CHANNELSTATECHANGE = 5 /* a channel of a card has come up or gone down */
};

/* ------------------------------------------------------------------------------------------------- log levels */

typedef int32_t fxm_log_level_t;
enum {
    FXM_LOG_CONFIGURED = -1, /* as an argument only: the `log_level` of the configuration file */
    FXM_LOG_FATAL = 0,
    FXM_LOG_ERROR = 1,
    FXM_LOG_WARN = 2,
    FXM_LOG_INFO = 3,
    FXM_LOG_DEBUG = 4,
    FXM_LOG_TRACE = 5
};

/* --------------------------------------------------------------------------- flags of the operations on a card */

#define FXM_FLAG_LIVECHECK 1u /* find a channel on which the card answers, before the operation */
#define FXM_FLAG_VERIFY    2u /* read back after writing, and write again until the value is there */
#define FXM_FLAG_FORCELOCK 4u /* EEPROM: clear another holder's lock after a whole pass of waiting */

/* Retries of an operation on a card. A null pointer in its place stands for the configuration's
 * `frame_retry_count` (10) and `frame_retry_interval` (100 ms). */
typedef struct fxm_retry_param_t {
    uint32_t retry_cnt; /* further attempts after the first; 0 is one attempt */
    uint32_t retry_int; /* wait for one answer, milliseconds; 0 is FXM_API_EINVAL */
} fxm_retry_param_t;

/* ----------------------------------------------------------------------------------------------------- records */

/* What FXSV and FXIO cards have in common; 104 bytes. Unless told otherwise a field is the value of the card's last
 * frame. Channels are indexed [p][m]: p the library's port (0, 1), m the card's MAC (0 the even address, 1 the odd
 * one; a card with fcd_type 0 has m = 0 only). In messages they are P0M0, P0M1, P1M0, P1M1. */
typedef struct fxm_card_data_t {
    uint64_t fcd_id;             /* card id, the key of the table */
    uint64_t fcd_recvtime[2][2]; /* time of the last frame on each channel, ms; 0 never */
    uint64_t fcd_updatetime;     /* time of the last change of the record's content or of a channel's state, ms */
    uint32_t fcd_state[2][2];    /* 1 channel connected, 0 not: up with a frame, down with silence or a lost link */
    uint32_t fcd_uidsw;          /* UID switch, 0 or 1 (frame byte 22 bit 2) */
    uint32_t fcd_power;          /* power, 0 or 1 (byte 22 bit 3) */
    uint32_t fcd_port0_link;     /* link of the card's own port 0, 0 or 1 (byte 26 bit 5) */
    uint32_t fcd_port1_link;     /* link of the card's own port 1, 0 or 1 (byte 26 bit 6) */
    uint16_t fcd_vlan_id;        /* VLAN id of the frame, 0 to 4095: the card's group */
    uint8_t fcd_macaddr[6];      /* MAC address in wire order, equal to fcd_id */
    uint8_t fcd_swstatus[3];     /* three status bytes (bytes 25 to 27) */
    uint8_t fcd_vlan_mode;       /* header layout: 0 VLAN tag first, 1 EtherType first ("change mode") */
    uint8_t fcd_flowid;          /* flow id (byte 20) */
    uint8_t fcd_type;            /* generation: 0 a 1G/10G card, other values a 40G card (byte 21) */
    uint8_t fcd_linkstatus;      /* link status (byte 24) */
    uint8_t fcd_int_vector;      /* interrupt vector: one bit for each kind of major or minor error (byte 27) */
    uint8_t fcd_ver;             /* card version, low four bits of byte 26; an FXIO card with 1 is multi-root */
} fxm_card_data_t;

/* PCI bridge registers of one port, as the card reports them; 20 bytes. */
typedef struct fxm_pci_config_t {
    uint32_t fcp_pre_base_upper;  /* prefetchable base, upper 32 bits */
    uint32_t fcp_pre_limit_upper; /* prefetchable limit, upper 32 bits */
    uint16_t fcp_memory_base;
    uint16_t fcp_memory_limit;
    uint16_t fcp_pre_memory_base;
    uint16_t fcp_pre_memory_limit;
    uint8_t fcp_pri_bus_num; /* primary bus */
    uint8_t fcp_sec_bus_num; /* secondary bus */
    uint8_t fcp_sub_bus_num; /* subordinate bus */
    uint8_t fcp_command;     /* command register, low byte */
} fxm_pci_config_t;

/* One down port of an FXSV card; 28 bytes. */
typedef struct fxm_down_port_t {
    fxm_pci_config_t fdp_config; /* filled while an FXIO card is connected, else all zero */
    uint8_t fdp_port_status[2];  /* bit 1 (value 2) of the second byte: an FXIO card is connected */
    uint8_t fdp_io_mac[6];       /* MAC address of the FXIO card of this port, wire order */
} fxm_down_port_t;

#define FXM_DOWN_PORTS 16

/* An FXSV card; 576 bytes. */
typedef struct fxm_fxsv_t {
    fxm_card_data_t fsv_card;
    fxm_pci_config_t fsv_up_port;
    fxm_down_port_t fsv_down_port[FXM_DOWN_PORTS]; /* a 1G/10G frame fills the first 8, a 40G frame all 16 */
} fxm_fxsv_t;

/* An FXIO card; 128 bytes. */
typedef struct fxm_fxio_t {
    fxm_card_data_t fio_card;
    uint32_t fio_class_code;      /* PCI class code of the function behind the card, 24 bits */
    uint16_t fio_device_id;       /* PCI device id */
    uint16_t fio_vendor_id;       /* PCI vendor id */
    uint16_t fio_mr_resource_num; /* resource number of a multi-root card, else 0 */
    uint8_t fio_sermacaddr[6];    /* MAC address of the FXSV card, wire order */
    uint8_t fio_substate[2];      /* bit 1 (value 2) of the second byte: connected to an FXSV card */
    uint8_t fio_link0fault;       /* fault of link 0, 0 or 1 */
    uint8_t fio_link1fault;       /* fault of link 1, 0 or 1 */
    uint8_t fio_pcie_presence;    /* a PCIe device is present, 0 or 1 */
} fxm_fxio_t;

/* --------------------------------------------------------------------------------------------------- lifecycle */

/*
 * Runs the library: reads the configuration, opens the ports, starts the worker threads, watches the cards, and
 * returns when the library has stopped and everything is released. Call it on a thread of its own.
 *
 * dir        installation directory (at most 481 characters), below which conf/fxm.conf (may be absent: the defaults
 *            stand) and conf/fxm_log4c_win.properties (must exist) lie; null or empty is
 *            "C:/Program Files/QOR/FXM", relative to the working directory.
 * log_level  FXM_LOG_FATAL to FXM_LOG_TRACE, or FXM_LOG_CONFIGURED.
 *
 * FXM_API_SUCCESS  stopped on request.
 * FXM_API_EBUSY    the library is running, starting or stopping; nothing was touched.
 * FXM_API_EINVAL   log_level out of range, or dir is no directory.
 * FXM_API_ENOENT   no port could be opened: no such interface.
 * FXM_API_ENOMEM   no port could be opened: out of memory.
 * FXM_API_EPROTO   no log properties file; an error in fxm.conf (the log names the key and the reason); no port could
 *                  be opened; or the library ran and stopped itself after an internal error (a deleted interface, a
 *                  failing wait), which is logged at FATAL.
 *
 * Needs the right to open raw sockets (root or CAP_NET_RAW). Costs 64 MiB of kernel memory for each open port, the
 * capture ring. Start-up takes some milliseconds; the other functions answer FXM_API_ENOSYS until it is complete. One
 * of two ports is enough to run. An interface must be set up (`ip link set ... up`) to be opened; it need not have a
 * carrier, and may go down and come back later.
 */
FXM_EXPORT int fxm_init_manager(const char *dir, fxm_log_level_t log_level);

/* Opens the flow of received frames into the tables. Until then frames are dropped, so that callbacks can be registered
 * first. Only a stop closes it again. A second call is harmless. Does not block. FXM_API_SUCCESS. */
FXM_EXPORT int fxm_start_manager(void);

/* Asks for the stop and returns FXM_API_SUCCESS at once, whatever the state. The stop is complete when fxm_init_manager
 * returns, at most one `devinfo_flag_check_interval` (100 ms) and 1000 ms later, plus the callbacks of the events that
 * are queued. A call before any start does nothing lasting; a call while fxm_init_manager is starting up stops the
 * library as soon as it is up. */
FXM_EXPORT int fxm_fini_manager(void);

/* Sets the filter of the log, FXM_LOG_FATAL to FXM_LOG_TRACE; FXM_LOG_CONFIGURED goes back to the configured level.
 * Does not block. FXM_API_SUCCESS; FXM_API_EINVAL for any other level, which changes nothing. */
FXM_EXPORT int fxm_set_loglevel(fxm_log_level_t log_level);

/* Writes the status report (state, ports, cards, memory, callbacks, events, frames, results, configuration) to the
 * logger "statslogfile", whatever the log level. verbose: 0 summary, other values add every field of every card and
 * the results of every function. Blocks for the writing of the lines; frame handling waits while the cards are written.
 * FXM_API_SUCCESS. */
FXM_EXPORT int fxm_stdump(uint32_t verbose);

/* ------------------------------------------------------------------------------------------- cards: one record */

/* Copies the record of the card `id` to *out. Does not block. FXM_API_SUCCESS; FXM_API_EINVAL out is null;
 * FXM_API_ENOENT no such card in the table of that class, *out is untouched. */
FXM_EXPORT int fxm_get_fxsv(uint64_t id, fxm_fxsv_t *out);
FXM_EXPORT int fxm_get_fxio(uint64_t id, fxm_fxio_t *out);

/* Takes the card `id` out of its table, whatever its state. Raises no event. A card that still announces itself comes
 * back as a new one, unless its monitoring was stopped. Does not block. FXM_API_SUCCESS; FXM_API_ENOENT. */
FXM_EXPORT int fxm_delete_fxsv(uint64_t id);
FXM_EXPORT int fxm_delete_fxio(uint64_t id);

/* ------------------------------------------------------------------------------------------- cards: id lists */

/*
 * Each of these six functions makes a list of card ids in ascending order:
 *   fxm_get_fxsvids, fxm_get_fxioids                all cards of the class;
 *   fxm_get_update_fxsvids, fxm_get_update_fxioids  those whose fcd_updatetime is equal to or later than `time` (ms). A
 *                                                   poller keeps the time of its last poll: nothing is consumed here;
 *   fxm_get_group_fxsvids, fxm_get_group_fxioids    those whose fcd_vlan_id is `groupid`, 1 to 4094.
 *
 * *count  in: the longest list accepted, 0 for the configuration's `id_list_upper_limit` (no limit by default);
 *         out: the number of ids, with FXM_API_ERANGE the number there would have been.
 * *list   out: the list, which the caller gives back with fxm_free_idlist; null, with *count 0, when no card matches.
 *
 * Do not block. FXM_API_SUCCESS; FXM_API_EINVAL a null pointer, or groupid outside 1 to 4094; FXM_API_ERANGE the answer
 * is longer than accepted (*list untouched, *count the number needed); FXM_API_ENOMEM (outputs untouched).
 */
FXM_EXPORT int fxm_get_fxsvids(uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_fxioids(uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_update_fxsvids(uint64_t time, uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_update_fxioids(uint64_t time, uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_group_fxsvids(uint16_t groupid, uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_group_fxioids(uint16_t groupid, uint64_t **list, uint32_t *count);

/* Gives back an id list; null does nothing. Works in every state, also after a stop. FXM_API_SUCCESS. */
FXM_EXPORT int fxm_free_idlist(uint64_t *list);

/* ------------------------------------------------------------------------------------------------- monitoring */

/* Takes the card `id`, of either class, known or not, out of monitoring. A known card keeps its record as it stands,
 * frames and silence leave it alone, no event is raised, and operations on it give FXM_API_ENOLINK unless
 * FXM_FLAG_LIVECHECK is set. An unknown card stays unknown. Does not block. FXM_API_SUCCESS, also when it was stopped
 * already; FXM_API_ENOMEM; FXM_API_EPROTO. */
FXM_EXPORT int fxm_stop_monitor(uint64_t id);

/* Puts the card `id` back into monitoring. The next frame takes it up again with that frame's channel alone; a card
 * that stays silent is declared disconnected after `devinfo_expire_time`. Does not block. FXM_API_SUCCESS. */
FXM_EXPORT int fxm_restart_monitor(uint64_t id);

/* --------------------------------------------------------------------------------------------------- callbacks */

/* The host's function: card id, event kind (FXM_EVT_), and the argument given at registration. Runs on the library's
 * event thread. It may call any function of the library. */
typedef void (*fxm_callback_t)(uint64_t id, fxm_event_type_t type, uint64_t arg);

/* Registers `func` for the events of kind `type`. *cbid becomes the handle. Functions of one kind are called in the
 * order of their registration; one function may be registered many times. Waits, on another thread, for an event of
 * this kind being delivered. FXM_API_SUCCESS; FXM_API_EINVAL unknown kind, func or cbid null; FXM_API_ENOMEM. */
FXM_EXPORT int fxm_register_callback(fxm_event_type_t type, fxm_callback_t func, uint64_t arg, void **cbid);

/* Ends a registration. Once this has returned on another thread than the callback's, the function is not called through
 * that handle again. A callback may end its own registration or another. Waits like fxm_register_callback.
 * FXM_API_SUCCESS; FXM_API_EINVAL null, unknown or already ended handle. */
FXM_EXPORT int fxm_unregister_callback(void *cbid);

/* --------------------------------------------------------------------------------------------------- registers */

/*
 * Registers are 32 bits wide; an address is a multiple of 4, of which bits 21..0 reach the card. An operation uses the
 * first connected channel of the card in the order P0M0, P0M1, P1M0, P1M1, for all its frames.
 *
 * With FXM_FLAG_LIVECHECK a card without a connected channel, or out of monitoring, is probed on each of its channels
 * first (at most `frame_retry_count_livecheck` + 1 frames, `frame_retry_interval_livecheck` ms apart, for each).
 *
 * Results of all four, besides FXM_API_SUCCESS:
 *   FXM_API_EINVAL     address no multiple of 4, null pointer, retry_int 0; no frame left.
 *   FXM_API_ENOENT     no such card in either table.
 *   FXM_API_ENOLINK    no connected channel; out of monitoring without FXM_FLAG_LIVECHECK; the check found no answer.
 *   FXM_API_ETIMEDOUT  no answer after all attempts, or the value did not verify.
 *   FXM_API_EPROTO     no free request tag, or the port refused the frame.
 *   FXM_API_ENOSYS     also when the library stopped during the call. A write may have taken effect then.
 */

/* Reads the register `addr` into *data. Blocks until the answer, at most (retry_cnt + 1) * retry_int ms. flags:
 * FXM_FLAG_LIVECHECK. */
FXM_EXPORT int fxm_read_register(uint64_t id, uint32_t addr, uint32_t *data, const fxm_retry_param_t *retry_param,
                                 uint32_t flags);

/* Writes `data` to the register `addr`. Without FXM_FLAG_VERIFY success means that the frame left. With it the register
 * is read back and written again at most retry_cnt times, `register_verify_interval` ms apart. Writers of one card take
 * turns, without a time limit. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_VERIFY. */
FXM_EXPORT int fxm_write_register(uint64_t id, uint32_t addr, uint32_t data, const fxm_retry_param_t *retry_param,
                                  uint32_t flags);

/* Sets the bits of `mask` in the register `addr` to those of `data`. Reads first and writes nothing when they are right
 * already. Not atomic against other masters of the card. Blocking and flags as fxm_write_register. */
FXM_EXPORT int fxm_modify_register(uint64_t id, uint32_t addr, uint32_t data, uint32_t mask,
                                   const fxm_retry_param_t *retry_param, uint32_t flags);

/* Reads the registers from startaddr up to, but not including, endaddr into buffer. *size in: bytes of buffer, at least
 * endaddr - startaddr; out: bytes read, also when the call failed half way; 0 when it was refused. endaddr must lie
 * above startaddr. Blocks like that many reads. flags: FXM_FLAG_LIVECHECK. */
FXM_EXPORT int fxm_dump_register(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t *size,
                                 const fxm_retry_param_t *retry_param, uint32_t flags);

/* ---------------------------------------------------------------------------------------------------- commands */

/* Tells the card `id` to take the VLAN `vlanid`, 16 to 4094. Without FXM_FLAG_VERIFY success means that the frame left.
 * With it the table is watched every `vlan_check_interval` ms until the card announces itself on that VLAN, and the
 * frame is sent again every retry_int ms, at most retry_cnt times. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_VERIFY.
 * FXM_API_SUCCESS; FXM_API_EINVAL; FXM_API_ENOENT; FXM_API_ENOLINK; FXM_API_ETIMEDOUT the table did not show the VLAN;
 * FXM_API_EPROTO, also when the card was deleted meanwhile. */
FXM_EXPORT int fxm_set_vlanid(uint64_t id, uint16_t vlanid, const fxm_retry_param_t *retry_param, uint32_t flags);

/* Sends a Reset with `status`, whose meaning is the card's, to the configured `broadcast_mac` through the channel and
 * on the VLAN of the card `id`. retry_param and flags are logged and not used. Does not block. FXM_API_SUCCESS the
 * frame left; FXM_API_ENOENT; FXM_API_ENOLINK no connected channel or out of monitoring; FXM_API_EPROTO. */
FXM_EXPORT int fxm_send_resetframe(uint64_t id, uint8_t status, const fxm_retry_param_t *retry_param, uint32_t flags);

/* Sends page number `page`, 0 to 1023, of 128 bytes at `data`, to the multi-root FXIO card `id`. flags:
 * FXM_FLAG_LIVECHECK. Does not block without it. FXM_API_SUCCESS the frame left; FXM_API_EINVAL; FXM_API_ENOENT no such
 * FXIO card, or not multi-root; FXM_API_ENOLINK; FXM_API_EPROTO. */
FXM_EXPORT int fxm_write_mmspage(uint64_t id, uint32_t page, const void *data, uint32_t flags);

/* ------------------------------------------------------------------------------------------------------ EEPROM */

/*
 * A card's EEPROM has 2048 bytes, moved as 32-bit words at byte addresses 0 to 0x7FC that are multiples of 4. Each
 * transfer takes the lock on the card that keeps other managers out, for one word at a time. FXM_FLAG_FORCELOCK clears
 * another holder after a whole pass of waiting, at most `force_lock_try_count` times.
 *
 * Results of the first three, besides FXM_API_SUCCESS:
 *   FXM_API_EINVAL     address out of bounds or no multiple of 4, null pointer, retry_int 0; no frame left.
 *   FXM_API_ENOENT     no such card.
 *   FXM_API_ENOLINK    out of monitoring without FXM_FLAG_LIVECHECK; no connected channel; the check found no answer.
 *   FXM_API_EBUSY      somebody else holds the lock and FXM_FLAG_FORCELOCK is not set (about 5 s).
 *   FXM_API_ETIMEDOUT  no answer; force used up (about 56 s); the attempts for a word ran out; no verify.
 *   FXM_API_EPROTO     the EEPROM refused the access; no free request tag; a frame could not be sent.
 *   FXM_API_ENOSYS     also when the library stopped during the call; the lock then stays on the card.
 * Times are those of the defaults; retry_param serves every register access inside and bounds the attempts for a word.
 */

/* Reads the word at `addr` into *data. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_FORCELOCK. */
FXM_EXPORT int fxm_read_eeprom(uint64_t id, uint32_t addr, uint32_t *data, const fxm_retry_param_t *retry_param,
                               uint32_t flags);

/* Writes the word `data` at `addr`. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_VERIFY, FXM_FLAG_FORCELOCK. */
FXM_EXPORT int fxm_write_eeprom(uint64_t id, uint32_t addr, uint32_t data, const fxm_retry_param_t *retry_param,
                                uint32_t flags);

/* Reads the words from startaddr up to, but not including, endaddr (at most 0x800) into buffer. *size as in
 * fxm_dump_register. The lock is taken and given back for each word. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_FORCELOCK. */
FXM_EXPORT int fxm_dump_eeprom(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t *size,
                               const fxm_retry_param_t *retry_param, uint32_t flags);

/* Releases a lock that was left standing on the card: on a card with the ID lock all holders, on a card with the bit
 * lock the other holder's bits. Blocks for a few register accesses. FXM_API_SUCCESS; FXM_API_ENOENT; FXM_API_ENOLINK
 * out of monitoring or no connected channel; FXM_API_ETIMEDOUT no answer, or holders do not go away; FXM_API_EPROTO. */
FXM_EXPORT int fxm_unlock_eeprom(uint64_t id);

#ifdef __cplusplus
}
#endif

#endif /* FXM_H */
