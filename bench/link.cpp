// How long it takes from the kernel's notice of a lost link until the records of the cards behind it say so.
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "setup.h"
#include "wire.h"

// Declared by <net/if.h>, which does not go together with <linux/if.h>.
extern "C" unsigned int if_nametoindex(const char *name);

constexpr size_t CARDS = 1000;

static int open_notices()
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        fail("no rtnetlink socket: %s", strerror(errno));
    return fd;
}

// Waits for the kernel's word that the carrier of this interface has come or gone; returns when it was read.
static int64_t await_notice(int fd, unsigned interface, bool up)
{
    for (;;) {
        alignas(nlmsghdr) uint8_t buffer[32768];
        const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
        const int64_t now = now_ns();
        if (got < 0)
            fail("rtnetlink: %s", strerror(errno));
        auto left = static_cast<uint32_t>(got);
        for (const auto *header = reinterpret_cast<const nlmsghdr *>(buffer); NLMSG_OK(header, left);
             header = NLMSG_NEXT(header, left)) {
            const auto *info = static_cast<const ifinfomsg *>(NLMSG_DATA(header));
            if (header->nlmsg_type == RTM_NEWLINK && static_cast<unsigned>(info->ifi_index) == interface &&
                ((info->ifi_flags & IFF_LOWER_UP) != 0) == up)
                return now;
        }
    }
}

// Of the last card of the second table, which is the last to be taken down.
static uint32_t last_channel()
{
    fxm_fxio_t record;
    if (fxm_get_fxio(FIRST_FXIO + CARDS - 1, &record) != FXM_API_SUCCESS)
        fail("the last card has gone");
    return record.fio_card.fcd_state[0][0];
}

static void print_row(const char *what, const summary_t &us)
{
    printf("  %-36s %8.0f %8.0f %8.0f\n", what, us.median, us.p99, us.max);
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    const size_t flaps = full_or_quick(200, 20);
    lay_cable("fxm0", "card0");
    start_library("devinfo_expire_time = 100000\n");
    announcements_t cards(CARDS);
    const int wire = open_wire("card0", 0);
    const int notices = open_notices();
    const unsigned interface = if_nametoindex("fxm0");
    cards.send(wire);
    wait_for_cards(CARDS);

    std::vector<double> since_notice_us;
    std::vector<double> since_pull_us;
    for (size_t i = 0; i < flaps; ++i) {
        const int64_t pulled = now_ns();
        set_link("card0", false);
        const int64_t told = await_notice(notices, interface, false);
        wait_until([] { return last_channel() == 0; }, "the cards to be disconnected");
        const int64_t down = now_ns();
        since_notice_us.push_back(static_cast<double>(down - told) / 1000);
        since_pull_us.push_back(static_cast<double>(down - pulled) / 1000);
        wait_for_cards(0);
        set_link("card0", true);
        await_notice(notices, interface, true);
        cards.send(wire);
        wait_for_cards(CARDS);
        progress("flap", i + 1, flaps);
    }
    stop_library();

    printf("A lost link with %zu cards behind it, %zu flaps             us\n"
           "                                         median      p99      max\n",
           CARDS, flaps);
    const summary_t since_notice = summarise(since_notice_us);
    print_row("from the kernel's notice to the records", since_notice);
    print_row("from the far end set down", summarise(since_pull_us));
    demand("p99 from the notice", since_notice.p99 / 1000, 50, " ms");
    return bench_end();
}
