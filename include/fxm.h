/*
 * fxm - management of a fabric of Fenxar cards
 * ============================================
 *
 * Fenxar cards carry PCI Express over Ethernet. An FXSV card sits on the server side and presents a PCI bridge with one
 * up port and up to 16 down ports. An FXIO card sits in front of a PCI function. The MAC address of an FXIO card joins
 * it to a down port. All cards announce themselves periodically with raw Ethernet frames on a management network.
 * libfxm owns one or two Ethernet ports on that network. It gives its host tables of the cards, events when they
 * change, and access to their registers and EEPROMs.
 *
 * This header is the manual. The first pages describe what holds for all functions; each declaration describes the
 * rest.
 *
 * The life of a manager
 * ---------------------
 *
 *     static void *run(void *arg) {                       // the call lasts as long as the library runs
 *         int *result = arg;
 *         *result = fxm_init_manager("/opt/fxm", FXM_LOG_CONFIGURED);  // reads /opt/fxm/conf/fxm.conf, opens the ports
 *         return NULL;
 *     }
 *     ...
 *     pthread_create(&thread, NULL, run, &result);
 *     while (fxm_register_callback(FXM_EVT_NEWDEVINFO, on_event, 0, &cbid) == FXM_API_ENOSYS)
 *         usleep(10000);                                  // FXM_API_ENOSYS until start-up is complete
 *     fxm_start_manager();                                // from now on, frames reach the tables
 *     ...                                                 // read cards and talk to cards, from any thread
 *     fxm_fini_manager();                                 // requests shutdown and returns at once
 *     pthread_join(thread, NULL);                         // the library has stopped when fxm_init_manager has returned
 *
 * A real host must also watch the thread in that loop: if fxm_init_manager fails, it returns at once, and every other
 * function keeps answering FXM_API_ENOSYS.
 *
 * A process holds one manager, so there is no handle. After a stop, fxm_init_manager may be called again, any number of
 * times. Each start begins with empty tables, zeroed counters, no registrations, and every card in monitoring.
 *
 * Results
 * -------
 * Every function returns an int, one of the FXM_API_ codes. While the library is not running or is stopping, every
 * function returns FXM_API_ENOSYS, except fxm_init_manager, fxm_fini_manager and fxm_free_idlist; the descriptions
 * below do not repeat this. Outputs are written only on FXM_API_SUCCESS, unless a description says otherwise.
 *
 * Threads
 * -------
 * Any number of host threads may call any function at the same time. Callbacks may call any function too, with one
 * exception: a callback must not wait for fxm_init_manager to return, because fxm_init_manager waits for the callback.
 *
 * All callbacks run on one thread of the library, one at a time. A callback that blocks delays later events. It does
 * not delay the reception of frames or other callers. The library holds no lock during a callback that a host could
 * run into, except that fxm_register_callback and fxm_unregister_callback for the same kind of event wait for it.
 *
 * "Does not block" below means that the call waits for the library's table lock at most. That is well under a
 * millisecond for a fabric of some thousand cards, and some milliseconds when all of them go down at once. While a
 * status dump writes its card section, the call waits until that section is written. Operations on a card block for as
 * long as their retries take; each description says how long. Every call writes its own log lines, so slow log storage
 * slows down every call.
 *
 * A stop ends every operation on a card within about 100 ms, whatever its own waits are, with FXM_API_ENOSYS. The other
 * calls in flight run to their end, and fxm_init_manager returns only after them.
 *
 * The library starts at most five threads. They inherit the signal mask of the thread that calls fxm_init_manager, so
 * block the signals that your host handles before that call. The threads that receive frames ask for a niceness of -5;
 * without the right to raise their priority they run at the default.
 *
 * Memory
 * ------
 * Records are copied into the host's memory. The library hands out two kinds of object. An id list must be released
 * with fxm_free_idlist, and this also works after a stop. A registration handle is a number, not an address; it ends
 * with fxm_unregister_callback or with the stop.
 *
 * Each open port costs 64 MiB of kernel memory, the capture ring. An FXSV card costs about 770 bytes of heap and an
 * FXIO card about 330. About 100 of these bytes hold the card's write lock. They stay until the process ends, even
 * after the card has been deleted and after a stop. An event that waits for its delivery costs about 16 bytes, and the
 * queue has no limit: it grows while a callback blocks. Whenever the number of cards of a class has doubled, their index
 * moves, and calls may wait for it: about 10 ms at 100,000 cards.
 *
 * Processes
 * ---------
 * The process may exit at any time, also while calls are running; a log line that is being written delays the exit by
 * one second at most. dlclose does not unload the library. After a fork, the child has none of the library's threads
 * but may have copies of locks that they held, so it may only call an exec function or _exit. A program that the child
 * executes inherits no descriptor of the library.
 *
 * Trust
 * -----
 * The library trusts the management network. If that is not acceptable, keep strangers off the network.
 *
 *   - Anybody on the network can announce cards and change the record of any card, because frames carry no proof of
 *     their origin.
 *   - Nothing limits the number of cards, so anybody who announces new ids makes memory grow (see "Memory"). Silence
 *     removes no card; only fxm_delete_fxsv, fxm_delete_fxio and a stop do.
 *   - Anybody on the network can answer a register read. The answer, a Completion, is checked by three things: its tag,
 *     its source MAC address and the port on which it arrives. It does not say which register it answers for. To keep a
 *     late answer from being taken for another one, the tag of a read that was sent again or stayed unanswered rests
 *     for as long as that read waited, and at least for 1 s, while any other tag is free.
 *   - Two managers on one wire see each other's Completions. Give them tag ranges that do not overlap (`tag_min` and
 *     `tag_max` in fxm.conf).
 *   - An id that has been announced by both classes is in both tables. Operations on such a card use the FXSV record.
 *   - One lost port stops the library: if the interface of an open port is deleted or its capture fails,
 *     fxm_init_manager returns FXM_API_EPROTO, even if the other port still works. A link that goes down does not.
 *
 * Units
 * -----
 * A card id is a uint64_t. Its low 48 bits are the card's MAC address read as a big-endian number, so
 * printf("0x%.12llx") shows the address in its usual order. A card of the 40G generation has two MAC addresses, which
 * differ in bit 0 of the last byte; its id is the even one.
 *
 * Times are milliseconds since 1970-01-01 00:00:00 UTC by the wall clock; 0 means never. Channels age by the same
 * clock: if it is set forward by more than `devinfo_expire_time`, all channels go down and the next frames bring them
 * back. If it is set back, silence is noticed later by as much. Waits are given in milliseconds and measured by the
 * monotonic clock.
 *
 * Names in backquotes are keys of the configuration file, fxm.conf, or arguments of the function being described.
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

/* The version of this header, as three numbers and as text. A new minor version adds to the interface. A new major
 * version breaks hosts that were built against the last one, and the SONAME of the library changes with it. */
#define FXM_VERSION_MAJOR 1
#define FXM_VERSION_MINOR 0
#define FXM_VERSION_PATCH 0

#define FXM_VERSION_TEXT_(x, y, z) #x "." #y "." #z
#define FXM_VERSION_TEXT(x, y, z)  FXM_VERSION_TEXT_(x, y, z)
#define FXM_VERSION                FXM_VERSION_TEXT(FXM_VERSION_MAJOR, FXM_VERSION_MINOR, FXM_VERSION_PATCH)

/* --------------------------------------------------------------------------------------------------- constants */

/* The connection bit, in the second byte of fdp_port_status and of fio_substate. */
#define FXM_CONNECTED_BIT 2

/* fcd_ver of a multi-root FXIO card. */
#define FXM_VER_MULTIROOT 1

/* Entries of fsv_down_port. */
#define FXM_DOWN_PORTS 16

/* First and last VLAN id that fxm_set_vlanid accepts, and first and last group that the queries by group accept. The
 * group of a card is its VLAN id. */
#define FXM_VLAN_FIRST  16
#define FXM_VLAN_LAST   4094
#define FXM_GROUP_FIRST 1
#define FXM_GROUP_LAST  4094

/* Pages of a multi-root card, and bytes in a page. */
#define FXM_MMS_PAGES     1024
#define FXM_MMS_PAGE_SIZE 128

/* The highest register address of a card. */
#define FXM_REGISTER_LAST 0x3FFFFC

/* Bytes in a card's EEPROM. */
#define FXM_EEPROM_SIZE 0x800

/* ------------------------------------------------------------------------------------------------ result codes */

enum {
    FXM_API_SUCCESS = 0,   /* done */
    FXM_API_EINVAL = 1,    /* an argument failed its check */
    FXM_API_ERANGE = 2,    /* a size or count limit was exceeded */
    FXM_API_ENOENT = 3,    /* the identifier, port or entry does not exist */
    FXM_API_ENOLINK = 4,   /* the card or link cannot be reached now */
    FXM_API_ENOMEM = 5,    /* an allocation failed */
    FXM_API_EPROTO = 6,    /* a system service failed, or something else failed inside the library */
    FXM_API_ETIMEDOUT = 7, /* no answer in the time allowed */
    FXM_API_EBUSY = 8,     /* already running, or held by somebody else */
    FXM_API_ENOSYS = 9     /* the library is not running, or is stopping */
};

/* ------------------------------------------------------------------------------------------------- event kinds */

/* The `type` of fxm_register_callback and of every callback. An event carries a card id and nothing else. The callback
 * reads the card with fxm_get_fxsv or fxm_get_fxio and sees the card as it is at that moment, which may be newer than
 * the change that raised the event. */
typedef int32_t fxm_event_type_t;
enum {
    FXM_EVT_NEWDEVINFO = 0,        /* the first frame of a card has put it into its table */
    FXM_EVT_UPDATEDEVINFO = 1,     /* the record or a channel of a card has changed, or its monitoring has resumed */
    FXM_EVT_CONNECTIONCHANGE = 2,  /* the connection bit of a down port (FXSV) or of the sub-state (FXIO) has changed */
    FXM_EVT_MAJORMINORERROR = 3,   /* the interrupt vector has new bits, or is not zero on a new card */
    FXM_EVT_PATHSTATECHANGE = 4,   /* a link fault flag of an FXIO card has changed */
    FXM_EVT_CHANNELSTATECHANGE = 5 /* a channel of a card has come up or gone down */
};

/* ------------------------------------------------------------------------------------------------- log levels */

typedef int32_t fxm_log_level_t;
enum {
    FXM_LOG_CONFIGURED = -1, /* only as an argument: the `log_level` of the configuration */
    FXM_LOG_FATAL = 0,
    FXM_LOG_ERROR = 1,
    FXM_LOG_WARN = 2,
    FXM_LOG_INFO = 3,
    FXM_LOG_DEBUG = 4,
    FXM_LOG_TRACE = 5
};

/* ------------------------------------------------------------------------------ flags of the operations on a card */

/* Each function looks at the flags that its description names and ignores all others. */
#define FXM_FLAG_LIVECHECK 1u /* first find a channel on which the card answers */
#define FXM_FLAG_VERIFY    2u /* check that the value has arrived, and send it again until it has */
#define FXM_FLAG_FORCELOCK 4u /* EEPROM: after a full round of waiting, clear the lock of another holder */

/* Retries of an operation on a card. Pass NULL for the configured values, `frame_retry_count` (10) and
 * `frame_retry_interval` (100 ms). A record that is passed has no upper limits. */
typedef struct fxm_retry_param_t {
    uint32_t retry_cnt; /* attempts after the first one; 0 means a single attempt */
    uint32_t retry_int; /* how long to wait for each answer, in milliseconds; 0 is refused with FXM_API_EINVAL */
} fxm_retry_param_t;

/* ----------------------------------------------------------------------------------------------------- records */

/* What FXSV and FXIO cards have in common; 104 bytes. Unless a comment says otherwise, a field holds the value from the
 * card's last frame. Channels are indexed [p][m]: p is the port of the library (0 or 1), and m is the MAC address of
 * the card (0 the even one, 1 the odd one; a card whose fcd_type is 0 has only m = 0). Messages call the channels P0M0,
 * P0M1, P1M0 and P1M1. */
typedef struct fxm_card_data_t {
    uint64_t fcd_id;             /* card id, the key of the table */
    uint64_t fcd_recvtime[2][2]; /* time of the last frame on each channel, ms; 0 never */
    uint64_t fcd_updatetime;     /* time of the last change of the record or of a channel, ms; `update_evt_mask` says
                                  * which changes count */
    uint32_t fcd_state[2][2];    /* 1 the channel is connected, 0 it is not; a frame brings a channel up, silence or a
                                  * lost link takes it down */
    uint32_t fcd_uidsw;          /* UID switch, 0 or 1 (frame byte 22 bit 2) */
    uint32_t fcd_power;          /* power, 0 or 1 (byte 22 bit 3) */
    uint32_t fcd_port0_link;     /* link of the card's own port 0, 0 or 1 (byte 26 bit 5) */
    uint32_t fcd_port1_link;     /* link of the card's own port 1, 0 or 1 (byte 26 bit 6) */
    uint16_t fcd_vlan_id;        /* VLAN id of the frame, 0 to 4095: the card's group */
    uint8_t fcd_macaddr[6];      /* MAC address in wire order, the same number as fcd_id */
    uint8_t fcd_swstatus[3];     /* three status bytes (bytes 25 to 27) */
    uint8_t fcd_vlan_mode;       /* header layout: 0 VLAN tag first, 1 EtherType first ("change mode") */
    uint8_t fcd_flowid;          /* flow id (byte 20) */
    uint8_t fcd_type;            /* generation: 0 a 1G/10G card, any other value a 40G card (byte 21) */
    uint8_t fcd_linkstatus;      /* link status (byte 24) */
    uint8_t fcd_int_vector;      /* interrupt vector: one bit for each kind of major or minor error (byte 27) */
    uint8_t fcd_ver;             /* card version (byte 26, low four bits); FXM_VER_MULTIROOT: a multi-root FXIO card */
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
    fxm_pci_config_t fdp_config; /* valid while an FXIO card is connected, otherwise all zero */
    uint8_t fdp_port_status[2];  /* FXM_CONNECTED_BIT of the second byte: an FXIO card is connected */
    uint8_t fdp_io_mac[6];       /* MAC address of the FXIO card of this port, in wire order */
} fxm_down_port_t;

/* An FXSV card; 576 bytes. */
typedef struct fxm_fxsv_t {
    fxm_card_data_t fsv_card;
    fxm_pci_config_t fsv_up_port;
    fxm_down_port_t fsv_down_port[FXM_DOWN_PORTS]; /* a 1G/10G frame fills the first 8 entries, a 40G frame all 16 */
} fxm_fxsv_t;

/* An FXIO card; 128 bytes. */
typedef struct fxm_fxio_t {
    fxm_card_data_t fio_card;
    uint32_t fio_class_code;      /* PCI class code of the function behind the card, 24 bits */
    uint16_t fio_device_id;       /* PCI device id */
    uint16_t fio_vendor_id;       /* PCI vendor id */
    uint16_t fio_mr_resource_num; /* resource number of a multi-root card, otherwise 0 */
    uint8_t fio_sermacaddr[6];    /* MAC address of the FXSV card, in wire order */
    uint8_t fio_substate[2];      /* FXM_CONNECTED_BIT of the second byte: connected to an FXSV card */
    uint8_t fio_link0fault;       /* fault of link 0, 0 or 1 */
    uint8_t fio_link1fault;       /* fault of link 1, 0 or 1 */
    uint8_t fio_pcie_presence;    /* a PCIe device is present, 0 or 1 */
} fxm_fxio_t;

/* --------------------------------------------------------------------------------------------------- lifecycle */

/*
 * Runs the library: reads the configuration, opens the ports, starts the worker threads and watches the cards. Returns
 * when the library has stopped and has released everything. Call it on a thread of its own.
 *
 * dir        the installation directory, at most 481 characters. It holds conf/fxm.conf, which may be absent (the
 *            defaults then apply), and conf/fxm_log4c_win.properties, which must exist. If `dir` is NULL or empty, it
 *            is "C:/Program Files/QOR/FXM", relative to the working directory.
 * log_level  FXM_LOG_FATAL to FXM_LOG_TRACE, or FXM_LOG_CONFIGURED.
 *
 * FXM_API_SUCCESS  the library stopped on request.
 * FXM_API_EBUSY    the library is running, starting or stopping; this call changed nothing.
 * FXM_API_EINVAL   `log_level` is out of range, or `dir` is not a directory.
 * FXM_API_ENOENT   no port could be opened: the last one tried is not an Ethernet interface of this machine.
 * FXM_API_ENOMEM   no port could be opened: the last one tried ran out of memory.
 * FXM_API_EPROTO   `dir` is too long or holds no log properties file; fxm.conf has an error or cannot be read (the log
 *                  names the key or the file and the reason); no port could be opened for another reason; or the
 *                  library was running and stopped because of an internal error, which the log shows at FATAL.
 *
 * The process needs the right to open raw sockets (root or CAP_NET_RAW). An interface must be up (`ip link set ... up`)
 * when the library opens it. It needs no carrier then, and it may go down and come back later. If one of two configured
 * ports cannot be opened, the library runs on the other one, and only the log shows the failure.
 *
 * Start-up takes some milliseconds. Until it is complete, the other functions return FXM_API_ENOSYS.
 */
FXM_EXPORT int fxm_init_manager(const char *dir, fxm_log_level_t log_level);

/* Opens the flow of received frames into the tables. Frames that arrive earlier are dropped, so the host can register
 * its callbacks first. Only a stop closes the flow again. A second call is harmless. Does not block.
 * FXM_API_SUCCESS. */
FXM_EXPORT int fxm_start_manager(void);

/* Requests shutdown and returns FXM_API_SUCCESS at once, in any state. The library has stopped when fxm_init_manager
 * returns. This takes at most one `devinfo_flag_check_interval` (100 ms) plus 1000 ms, plus the time of what is
 * running: events that are already queued are still delivered to their callbacks, however long those take, a last status
 * dump is written, and calls in flight end. Functions that a callback calls in this phase return FXM_API_ENOSYS.
 *
 * If the library is starting up, it stops as soon as it is up. A call that comes before fxm_init_manager has begun is
 * forgotten. */
FXM_EXPORT int fxm_fini_manager(void);

/* Sets the filter of the log to FXM_LOG_FATAL to FXM_LOG_TRACE, or back to the configured level with
 * FXM_LOG_CONFIGURED. Does not block.
 * FXM_API_SUCCESS; FXM_API_EINVAL for any other level, which changes nothing. */
FXM_EXPORT int fxm_set_loglevel(fxm_log_level_t log_level);

/* Writes the status report to the logger "statslogfile", at any log level: state, ports, cards, memory, callbacks,
 * events, frames, results and configuration. If `verbose` is 0, the report is a summary. Any other value adds every
 * field of every card and the results of every function. Blocks until all lines are written; while the cards are
 * written, received frames and other calls wait. The answers of cards wait too: with a thousand cards, a verbose report
 * may take a second, and a card operation beside it may time out.
 * FXM_API_SUCCESS. */
FXM_EXPORT int fxm_stdump(uint32_t verbose);

/* ------------------------------------------------------------------------------------------- cards: one record */

/* Copies the record of card `id` to `*out`. A card that has fallen silent keeps its last record; fcd_state shows which
 * channels are connected. Does not block.
 * FXM_API_SUCCESS; FXM_API_EINVAL `out` is NULL; FXM_API_ENOENT the table of that class has no such card. */
FXM_EXPORT int fxm_get_fxsv(uint64_t id, fxm_fxsv_t *out);
FXM_EXPORT int fxm_get_fxio(uint64_t id, fxm_fxio_t *out);

/* Removes card `id` from its table, whatever its state, and raises no event. If the card announces itself again, it
 * comes back as a new card, unless its monitoring has been stopped. Does not block.
 * FXM_API_SUCCESS; FXM_API_ENOENT the table of that class has no such card. */
FXM_EXPORT int fxm_delete_fxsv(uint64_t id);
FXM_EXPORT int fxm_delete_fxio(uint64_t id);

/* -------------------------------------------------------------------------------------------- cards: id lists */

/*
 * Each of these six functions makes a list of card ids in ascending order:
 *
 *   fxm_get_fxsvids, fxm_get_fxioids                all cards of the class
 *   fxm_get_update_fxsvids, fxm_get_update_fxioids  the cards whose fcd_updatetime is `time` (ms) or later. Nothing is
 *                                                   consumed, so a poller keeps the time of its last poll itself
 *   fxm_get_group_fxsvids, fxm_get_group_fxioids    the cards whose fcd_vlan_id is `groupid`, FXM_GROUP_FIRST to
 *                                                   FXM_GROUP_LAST
 *
 * *count  in: the longest list that the caller accepts; 0 means the configured `id_list_upper_limit` (no limit by
 *         default). out: the number of ids; with FXM_API_ERANGE, the number that the list would have had.
 * *list   out: the list, which the caller releases with fxm_free_idlist; NULL, with *count 0, if no card matches.
 *
 * They do not block. FXM_API_SUCCESS; FXM_API_EINVAL a pointer is NULL, or `groupid` is out of range; FXM_API_ERANGE
 * the answer is longer than the caller accepts (*list is untouched); FXM_API_ENOMEM (both outputs are untouched).
 */
FXM_EXPORT int fxm_get_fxsvids(uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_fxioids(uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_update_fxsvids(uint64_t time, uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_update_fxioids(uint64_t time, uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_group_fxsvids(uint16_t groupid, uint64_t **list, uint32_t *count);
FXM_EXPORT int fxm_get_group_fxioids(uint16_t groupid, uint64_t **list, uint32_t *count);

/* Releases an id list. NULL does nothing. Works in every state, also after a stop.
 * FXM_API_SUCCESS. */
FXM_EXPORT int fxm_free_idlist(uint64_t *list);

/* ------------------------------------------------------------------------------------------------- monitoring */

/* Takes card `id`, of either class, out of monitoring. A card that is in a table keeps its record as it is: neither
 * frames nor silence change it, and it raises no events. Operations on it return FXM_API_ENOLINK, unless they support
 * FXM_FLAG_LIVECHECK and are called with it. A card that is in no table stays out of the tables. Does not block.
 * FXM_API_SUCCESS, also if the card was out of monitoring already; FXM_API_ENOMEM; FXM_API_EPROTO. */
FXM_EXPORT int fxm_stop_monitor(uint64_t id);

/* Puts card `id` back into monitoring. The card's next frame replaces its record, and only the channel of that frame
 * counts as connected. If the card stays silent, all its channels go down after about `devinfo_expire_time`. A card
 * that was in monitoring all the time is treated in the same way. Does not block.
 * FXM_API_SUCCESS, also for an unknown card. */
FXM_EXPORT int fxm_restart_monitor(uint64_t id);

/* --------------------------------------------------------------------------------------------------- callbacks */

/* The host's function. It receives the card id, the kind of event (FXM_EVT_) and the argument that was given at
 * registration. It runs on the library's event thread and must return to it: no exception, no longjmp and no end of
 * the thread may leave it. It may call any function of the library. */
typedef void (*fxm_callback_t)(uint64_t id, fxm_event_type_t type, uint64_t arg);

/*
 * Registers `func` for the events of kind `type`. Functions of one kind are called in the order of their registration.
 * The same function may be registered several times and is then called once for each registration. `*cbid` becomes the
 * handle, before the first call of `func`. A handle is a number that never comes again in the process, so an
 * ended one is refused for ever. A stop ends all registrations.
 *
 * Called from a callback, it does not block. Called from another thread, it waits while an event of this kind is being
 * delivered, and at most one further event may be delivered before it gets its turn. So the caller must not hold
 * anything that a callback of this kind waits for.
 *
 * FXM_API_SUCCESS; FXM_API_EINVAL `type` is no kind of event, or `func` or `cbid` is NULL; FXM_API_ENOMEM.
 */
FXM_EXPORT int fxm_register_callback(fxm_event_type_t type, fxm_callback_t func, uint64_t arg, void **cbid);

/* Ends a registration. Once this function has returned, the registered function is not called through this handle
 * again, so the host may free what `arg` refers to. A callback may end its own registration, in which case the call in
 * progress continues to its end, or any other. Blocks like fxm_register_callback.
 * FXM_API_SUCCESS; FXM_API_EINVAL the handle is NULL or unknown, or its registration has already ended. */
FXM_EXPORT int fxm_unregister_callback(void *cbid);

/* --------------------------------------------------------------------------------------------------- registers */

/*
 * Registers are 32 bits wide. A register address is a multiple of 4, up to FXM_REGISTER_LAST. Higher addresses are
 * accepted, but only bits 21..0 reach the card: 0x400000 is register 0.
 *
 * An operation copies the card's record when it begins. It sends all its frames through one channel of that copy: the
 * first connected one in the order P0M0, P0M1, P1M0, P1M1. With FXM_FLAG_LIVECHECK, a card that has no connected
 * channel or is out of monitoring is first probed: the library reads register 0 on each channel of a port whose link is
 * up, and the operation uses the first one that answers. A probe sends at most `frame_retry_count_livecheck` + 1
 * frames, `frame_retry_interval_livecheck` ms apart. With the defaults the check takes at most 1.1 s for each channel.
 *
 * A write has no answer of its own. Without FXM_FLAG_VERIFY, success means that the frame was sent, and nothing more.
 *
 * fxm_write_register, fxm_modify_register and the first three EEPROM functions hold the card's write lock from their
 * first frame to their last. Calls of these functions for one card take turns, in no promised order, and the wait for a
 * turn has no limit but a stop. fxm_read_register, fxm_dump_register and the commands take no turns and run beside
 * them. The lock keeps apart the callers of this library only, not other masters of the card.
 *
 * Results of all four functions, besides FXM_API_SUCCESS:
 *
 *   FXM_API_EINVAL     an address is not a multiple of 4, a pointer is NULL, or retry_int is 0; nothing was sent.
 *   FXM_API_ENOENT     no table has such a card.
 *   FXM_API_ENOLINK    the card has no connected channel; it is out of monitoring and FXM_FLAG_LIVECHECK is not set; or
 *                      the live check found no answer.
 *   FXM_API_ETIMEDOUT  no answer to any attempt, or the value still differed after all of them.
 *   FXM_API_EPROTO     no request tag was free, or a frame could not be sent.
 *   FXM_API_ENOSYS     also if the library stopped during the call.
 *
 * A write that fails after one of its frames was sent may have taken effect.
 */

/* Reads register `addr` into `*data`. Blocks until the answer arrives, at most (retry_cnt + 1) * retry_int ms: 1.1 s
 * with the defaults. At most `tag_max` - `tag_min` + 1 reads (256) can be in flight; a further one fails at once with
 * FXM_API_EPROTO. flags: FXM_FLAG_LIVECHECK. */
FXM_EXPORT int fxm_read_register(uint64_t id, uint32_t addr, uint32_t *data, const fxm_retry_param_t *retry_param,
                                 uint32_t flags);

/* Writes `data` to register `addr`. With FXM_FLAG_VERIFY the register is read back. If it holds another value, it is
 * written again after `register_verify_interval` ms, at most retry_cnt times. A read-back without an answer ends the
 * call. Blocks for its turn; then, without FXM_FLAG_VERIFY, it does not wait for the card, and with it each read-back
 * takes as long as fxm_read_register. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_VERIFY. */
FXM_EXPORT int fxm_write_register(uint64_t id, uint32_t addr, uint32_t data, const fxm_retry_param_t *retry_param,
                                  uint32_t flags);

/* Sets the bits of `mask` in register `addr` to those of `data`: reads the register first, and writes nothing if they
 * are right already. With FXM_FLAG_VERIFY only the bits of `mask` are compared; a repeated write sets the other bits as
 * the first read found them. Blocks like fxm_write_register, plus the first read. flags: FXM_FLAG_LIVECHECK,
 * FXM_FLAG_VERIFY. */
FXM_EXPORT int fxm_modify_register(uint64_t id, uint32_t addr, uint32_t data, uint32_t mask,
                                   const fxm_retry_param_t *retry_param, uint32_t flags);

/* Reads the registers from `startaddr` up to, but not including, `endaddr` into `buffer`, one after the other.
 * `endaddr` must be above `startaddr`. *size in: bytes in `buffer`, at least endaddr - startaddr; out: bytes read. It
 * is also set if the call fails, and then says how much of `buffer` is valid: 0 if the call was refused. Blocks for as
 * long as that many calls of fxm_read_register. flags: FXM_FLAG_LIVECHECK. */
FXM_EXPORT int fxm_dump_register(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t *size,
                                 const fxm_retry_param_t *retry_param, uint32_t flags);

/* ---------------------------------------------------------------------------------------------------- commands */

/* Tells card `id` to move to VLAN `vlanid`, FXM_VLAN_FIRST to FXM_VLAN_LAST. Without FXM_FLAG_VERIFY, success means
 * that the frame was sent. With it, the library looks at the card's record every `vlan_check_interval` ms until the
 * card has announced itself on that VLAN, and sends the frame again every retry_int ms, at most retry_cnt times: about
 * 1.1 s with the defaults. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_VERIFY.
 * FXM_API_SUCCESS; FXM_API_EINVAL `vlanid` is out of range, or retry_int is 0; FXM_API_ENOENT no table has such a card;
 * FXM_API_ENOLINK as for registers; FXM_API_ETIMEDOUT the record did not show the VLAN; FXM_API_EPROTO the frame could
 * not be sent, or the card was deleted during the call. */
FXM_EXPORT int fxm_set_vlanid(uint64_t id, uint16_t vlanid, const fxm_retry_param_t *retry_param, uint32_t flags);

/* Sends a Reset frame with `status`, whose meaning is defined by the card. The frame leaves through the channel and on
 * the VLAN of card `id`, but its destination is the configured `broadcast_mac`, so other cards on that VLAN receive it
 * too. retry_param and flags are logged and not used. Does not block.
 * FXM_API_SUCCESS the frame was sent; FXM_API_ENOENT no table has such a card; FXM_API_ENOLINK the card has no
 * connected channel or is out of monitoring; FXM_API_EPROTO the frame could not be sent. */
FXM_EXPORT int fxm_send_resetframe(uint64_t id, uint8_t status, const fxm_retry_param_t *retry_param, uint32_t flags);

/* Sends page number `page`, below FXM_MMS_PAGES, to the multi-root FXIO card `id`; `data` points to FXM_MMS_PAGE_SIZE
 * bytes. Does not block without FXM_FLAG_LIVECHECK. flags: FXM_FLAG_LIVECHECK.
 * FXM_API_SUCCESS the frame was sent; FXM_API_EINVAL `page` is out of range, or `data` is NULL; FXM_API_ENOENT there is
 * no such FXIO card, or it is not multi-root; FXM_API_ENOLINK as for registers; FXM_API_EPROTO the frame could not be
 * sent. */
FXM_EXPORT int fxm_write_mmspage(uint64_t id, uint32_t page, const void *data, uint32_t flags);

/* ------------------------------------------------------------------------------------------------------ EEPROM */

/*
 * A card's EEPROM has FXM_EEPROM_SIZE bytes. They are read and written as 32-bit words at byte addresses that are
 * multiples of 4, from 0 to 0x7FC.
 *
 * Two locks are involved. The card's write lock, inside this library, is described under "registers": the first three
 * functions hold it for the whole call, so EEPROM calls and register writes for one card wait for each other, without a
 * limit. The EEPROM lock is in the card's registers and keeps other managers out. The library takes it for one word at
 * a time and releases it after each word, also in a dump.
 *
 * If another manager holds the EEPROM lock, the library tries again `eeprom_retry_count` times, `eeprom_retry_interval`
 * ms apart, and then returns FXM_API_EBUSY. With FXM_FLAG_FORCELOCK it clears the other holder after such a round and
 * tries another one, at most `force_lock_try_count` times. The other holder is not told.
 *
 * How long a call blocks once it has its turn, with the defaults:
 *
 *   - A free lock costs at least 20 ms for each word on a card with the bit lock, because the library watches the lock
 *     that long before it trusts it. A dump of the whole EEPROM therefore takes more than 10 s.
 *   - A lock that another manager keeps costs about 5 s.
 *   - With FXM_FLAG_FORCELOCK, a lock that its holder takes back every time costs about 56 s. A dump can wait that long
 *     for each word.
 *   - A card with the bit lock that stops answering while a word is moved costs about 25 s. A card that stops answering
 *     while its lock is taken, and any card with the ID lock, can cost some minutes, because every try for the lock or
 *     its release waits for its register accesses. A smaller retry_param shortens this.
 *
 * retry_param applies to every register access in the call, and retry_cnt also limits the attempts to move a word. The
 * tries for the EEPROM lock have their own configuration.
 *
 * Results of the first three functions, besides FXM_API_SUCCESS:
 *
 *   FXM_API_EINVAL     an address is out of range or not a multiple of 4, a pointer is NULL, or retry_int is 0; nothing
 *                      was sent.
 *   FXM_API_ENOENT     no table has such a card.
 *   FXM_API_ENOLINK    as for registers.
 *   FXM_API_EBUSY      another manager holds the EEPROM lock, and FXM_FLAG_FORCELOCK is not set.
 *   FXM_API_ETIMEDOUT  no answer; the forced tries are used up; all attempts to move the word failed; or the written
 *                      word did not verify.
 *   FXM_API_EPROTO     the EEPROM refused the access, no request tag was free, or a frame could not be sent.
 *   FXM_API_ENOSYS     also if the library stopped during the call.
 *
 * What a failure leaves behind:
 *
 *   - After a failed fxm_write_eeprom the word may or may not have been written.
 *   - fxm_read_eeprom and fxm_write_eeprom can succeed and still leave the EEPROM lock on the card, if only its release
 *     failed; the log shows that at ERROR. A stop in the middle of a call leaves it there too. The next transfer of
 *     this library to that card takes such a lock for its own and releases it. Until then it keeps other managers out.
 *     On a card with the ID lock, fxm_unlock_eeprom releases it as well; on a card with the bit lock, it does not.
 */

/* Reads the word at `addr` into `*data`. flags: FXM_FLAG_LIVECHECK, FXM_FLAG_FORCELOCK. */
FXM_EXPORT int fxm_read_eeprom(uint64_t id, uint32_t addr, uint32_t *data, const fxm_retry_param_t *retry_param,
                               uint32_t flags);

/* Writes the word `data` at `addr`. With FXM_FLAG_VERIFY the word is read back, and written again until it is right.
 * flags: FXM_FLAG_LIVECHECK, FXM_FLAG_VERIFY, FXM_FLAG_FORCELOCK. */
FXM_EXPORT int fxm_write_eeprom(uint64_t id, uint32_t addr, uint32_t data, const fxm_retry_param_t *retry_param,
                                uint32_t flags);

/* Reads the words from `startaddr` up to, but not including, `endaddr` (at most FXM_EEPROM_SIZE) into `buffer`. `*size`
 * is used as in fxm_dump_register. Because the EEPROM lock is released between two words, another manager may change
 * the EEPROM meanwhile. A failed release ends the dump with its error. flags: FXM_FLAG_LIVECHECK,
 * FXM_FLAG_FORCELOCK. */
FXM_EXPORT int fxm_dump_eeprom(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t *size,
                               const fxm_retry_param_t *retry_param, uint32_t flags);

/* Releases an EEPROM lock that was left on card `id`. On a card with the ID lock, all holders lose it, this library
 * included. On a card with the bit lock, the bits of the other holder are cleared (`eeprom_lock_other_bit`), and this
 * library's own bit stays.
 *
 * It does not wait for the card's write lock, so it never waits for a transfer. If a transfer of this library is
 * running on a card with the ID lock, that transfer loses its lock and continues without it. The host must make sure
 * that no transfer runs.
 *
 * Blocks for a few register accesses, each as long as fxm_read_register with the configured retries. If the holders of
 * an ID lock do not go away, it tries for about 5 s, and for up to two minutes if the card stops answering meanwhile.
 * FXM_API_SUCCESS; FXM_API_ENOENT no table has such a card; FXM_API_ENOLINK the card has no connected channel or is out
 * of monitoring; FXM_API_ETIMEDOUT no answer, or the holders do not go away; FXM_API_EPROTO no request tag was free, or
 * a frame could not be sent. */
FXM_EXPORT int fxm_unlock_eeprom(uint64_t id);

#ifdef __cplusplus
}
#endif

#endif /* FXM_H */
