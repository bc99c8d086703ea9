// How long it takes from the kernel's notice of a lost link until the records of the cards behind it say so.
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

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

// Reads the kernel's messages until one says that the carrier of fxm0 has come or gone. Each comes alone.
static void await_notice(int fd, bool up)
{
    const auto interface = static_cast<int>(if_nametoindex("fxm0"));
    for (;;) {
        alignas(nlmsghdr) uint8_t buffer[8192];
        if (recv(fd, buffer, sizeof(buffer), 0) < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(ifinfomsg))))
            fail("rtnetlink: %s", strerror(errno));
        const auto *header = reinterpret_cast<const nlmsghdr *>(buffer);
        const auto *info = static_cast<const ifinfomsg *>(NLMSG_DATA(header));
        if (header->nlmsg_type == RTM_NEWLINK && info->ifi_index == interface &&
            ((info->ifi_flags & IFF_LOWER_UP) != 0) == up)
            return;
    }
}

static void print_row(const char *what, const summary_t &us)
{
    printf("  %-40s %8.0f %8.0f %8.0f\n", what, us.median, us.p99, us.max);
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    const size_t flaps = full_or_quick(200, 20);
    start_library("devinfo_expire_time = 100000\n");
    announcements_t cards(CARDS);
    const wire_t wire("card0", 0);
    const int notices = open_notices();
    // All cards go down under one holding of the library's lock, and frames are dealt with in order.
    const auto last_connected = [&] { return connected(cards.last_id); };
    std::vector<double> notice_us;
    std::vector<double> pull_us;
    for (size_t i = 0; i < flaps; ++i) {
        cards.send(wire);
        wait_until(last_connected, "the cards to be connected");
        const int64_t pulled = now_ns();
        set_up("card0", false);
        await_notice(notices, false);
        const int64_t told = now_ns();
        wait_until([&] { return !last_connected(); }, "the cards to be disconnected");
        const int64_t down = now_ns();
        notice_us.push_back(static_cast<double>(down - told) / 1000);
        pull_us.push_back(static_cast<double>(down - pulled) / 1000);
        set_up("card0", true);
        await_notice(notices, true);
        progress("flap", i + 1, flaps);
    }
    stop_library();

    const summary_t notice = summarise(notice_us);
    printf("A lost link with %zu cards behind it, %zu flaps\n"
           "                                       us: median      p99      max\n",
           CARDS, flaps);
    print_row("from the kernel's notice to the records", notice);
    print_row("from the setting down of the far end", summarise(pull_us));
    demand("p99 from the notice", notice.p99 / 1000, 50, " ms");
    return bench_end();
}
