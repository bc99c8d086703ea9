/* A host to copy: claims the ports, starts the library, prints every event together with its card, and stops on Ctrl-C.
 * The main thread prints a table of all cards now and then; events arrive on the library's event thread. */
#include "claim.h"
#include "host.h"

#include <errno.h>

#include <getopt.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static const char _usage[] =
    "Usage: fxm-monitor [--dir DIR] [--table S] [--seconds N] [--ignore-claim]\n"
    "Shows the cards of the management network and their events, until Ctrl-C.\n"
    "  --dir DIR    installation directory with conf/fxm.conf (default " HOST_DIR ")\n"
    "  --table S    print a table of all cards every S seconds (default: at the end only)\n"
    "  --seconds N  stop after N seconds\n"
    "  --ignore-claim\n"
    "               root only: run although another manager owns a port; both get wrong values\n"
    "  --version    print the version\n"
    "  -h, --help   print this text\n"
    "Exit code: 0 stopped by Ctrl-C, SIGTERM or --seconds, 1 failed, 2 wrong usage, 3 fxm did "
    "not start, 5 a port has another manager.\n";

enum { DONE = 0, FAILED = 1, USAGE = 2, NOT_STARTED = 3, CLAIMED = 5 };

static const char *const _event_words[] = {"new", "update", "connection", "error", "path", "channel"};

/* Prints what only one class has: the partners of an FXSV card's down ports, or the PCI function of an FXIO card. */
static void _print_class(uint64_t id)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;

    if (fxm_get_fxsv(id, &fxsv) == FXM_API_SUCCESS) {
        for (int n = 0; n < FXM_DOWN_PORTS; n++) {
            const fxm_down_port_t *port = &fxsv.fsv_down_port[n];
            const uint8_t *mac = port->fdp_io_mac;
            if (port->fdp_port_status[1] & 2u)
                printf(" down%d=%02x%02x%02x%02x%02x%02x", n, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
        }
    } else if (fxm_get_fxio(id, &fxio) == FXM_API_SUCCESS) {
        printf(" pci=%04x:%04x %s", fxio.fio_vendor_id, fxio.fio_device_id,
               fxio.fio_substate[1] & 2u ? "connected" : "unconnected");
        if (fxio.fio_card.fcd_ver == 1)
            printf(" multi-root=%u", fxio.fio_mr_resource_num);
        if (fxio.fio_link0fault || fxio.fio_link1fault)
            printf(" link-fault=%u,%u", fxio.fio_link0fault, fxio.fio_link1fault);
    }
}

static void _print_card(uint64_t id)
{
    fxm_card_data_t card;
    char channels[HOST_CHANNELS];
    const char *class_word = host_find_card(id, &card);

    if (class_word == NULL) {
        printf("0x%.12" PRIx64 " (has been deleted)\n", id);
        return;
    }
    printf("0x%.12" PRIx64 " %s %-6s vlan=%-4u int=%02x %-19s", id, class_word, card.fcd_type ? "40G" : "1/10G",
           card.fcd_vlan_id, card.fcd_int_vector, host_channels(&card, channels));
    _print_class(id);
    putchar('\n');
}

static void _print_time(void)
{
    struct timespec now;
    struct tm local;
    char text[16];

    clock_gettime(CLOCK_REALTIME, &now);
    strftime(text, sizeof text, "%H:%M:%S", localtime_r(&now.tv_sec, &local));
    printf("%s.%03ld ", text, now.tv_nsec / 1000000);
}

/* An event carries only the id, so the card is read here, as it is now. Locking stdout keeps the line apart from a
 * table that the main thread prints. */
static void _on_event(uint64_t id, int32_t type, uint64_t arg)
{
    (void)arg;
    flockfile(stdout);
    _print_time();
    printf("%-10s ", _event_words[type]);
    _print_card(id);
    fflush(stdout);
    funlockfile(stdout);
}

static uint32_t _print_list(int (*get_ids)(uint64_t **, uint32_t *))
{
    uint64_t *list = NULL;
    uint32_t count = 0; /* the configured limit applies */

    if (get_ids(&list, &count) != FXM_API_SUCCESS)
        return 0;
    for (uint32_t i = 0; i < count; i++) {
        printf("  ");
        _print_card(list[i]);
    }
    fxm_free_idlist(list);
    return count;
}

static void _print_table(void)
{
    flockfile(stdout);
    _print_time();
    puts("cards:");
    uint32_t fxsv = _print_list(fxm_get_fxsvids);
    uint32_t fxio = _print_list(fxm_get_fxioids);
    printf("  %u FXSV, %u FXIO\n", fxsv, fxio);
    fflush(stdout);
    funlockfile(stdout);
}

int main(int argc, char **argv)
{
    static const struct option options[] = {{"dir", required_argument, NULL, 'd'},
                                            {"table", required_argument, NULL, 't'},
                                            {"seconds", required_argument, NULL, 's'},
                                            {"help", no_argument, NULL, 'h'},
                                            {"version", no_argument, NULL, 'V'},
                                            {"ignore-claim", no_argument, NULL, 'c'},
                                            {NULL, 0, NULL, 0}};
    const char *dir = HOST_DIR;
    uint32_t table = 0;
    uint32_t seconds = 0;
    bool ignore_claim = false;

    for (int option; (option = getopt_long(argc, argv, "h", options, NULL)) != -1;) {
        if (option == 'd') {
            dir = optarg;
        } else if (option == 'h') {
            fputs(_usage, stdout);
            return DONE;
        } else if (option == 'V') {
            printf("fxm-monitor %s\n", HOST_VERSION);
            return DONE;
        } else if (option == 'c') {
            ignore_claim = true;
        } else if (option == '?') { /* getopt_long has printed what is wrong */
            fputs("See \"fxm-monitor --help\".\n", stderr);
            return USAGE;
        } else if (!host_parse_u32(optarg, option == 't' ? &table : &seconds)) {
            fprintf(stderr, "fxm-monitor: not a 32-bit number: %s\nSee \"fxm-monitor --help\".\n", optarg);
            return USAGE;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "fxm-monitor: unknown argument: %s\nSee \"fxm-monitor --help\".\n", argv[optind]);
        return USAGE;
    }

    if (ignore_claim && geteuid() != 0) {
        fputs("fxm-monitor: only root may ignore the claim of another manager.\n", stderr);
        return USAGE;
    }
    /* The claims last until the program ends. */
    if (!ignore_claim && !claim_ports(dir))
        return CLAIMED;
    if (!host_start(dir))
        return NOT_STARTED;
    for (int32_t type = FXM_EVT_NEWDEVINFO; type <= FXM_EVT_CHANNELSTATECHANGE; type++) {
        void *cbid;
        int result = fxm_register_callback(type, _on_event, 0, &cbid);
        if (result != FXM_API_SUCCESS)
            fprintf(stderr, "Events of the kind \"%s\" will not be shown: %s\n", _event_words[type],
                    host_result(result));
    }
    fxm_start_manager();
    puts("fxm is running; Ctrl-C stops it.");
    fflush(stdout);

    for (uint32_t passed = 1; host_running() && !host_stop_asked(1000); passed++) {
        claim_drop_visitors();
        if (table != 0 && passed % table == 0)
            _print_table();
        if (passed == seconds)
            break;
    }
    _print_table();
    const bool stopped = host_stop() == FXM_API_SUCCESS;
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "Cannot write to standard output: %s.\n", strerror(errno));
        return FAILED;
    }
    return stopped ? DONE : FAILED;
}
