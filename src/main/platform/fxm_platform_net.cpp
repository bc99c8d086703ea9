// Adapters and the notice of a changed link, from the kernel's rtnetlink, and the waitable capture. The thread that
// opens the ports and the link watcher read the list; only the link watcher uses the notice.
#include "platform/fxm_platform_net.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

// Declared by <net/if.h>, which cannot be included together with <linux/if.h>.
extern "C" unsigned int if_nametoindex(const char *name);

uint32_t _fxm_adapter_index(const char *name) { return if_nametoindex(name); }

// ------------------------------------------------------------------------------------------------- list of adapters

static bool _ask_links(int fd)
{
    struct {
        nlmsghdr header;
        ifinfomsg info;
    } request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = 1;
    request.info.ifi_family = AF_UNSPEC;
    return send(fd, &request, sizeof(request), 0) == static_cast<ssize_t>(sizeof(request));
}

// The operational state decides. A driver that does not keep one reports it as unknown; then the carrier decides.
static uint32_t _oper_status(const ifinfomsg *info, uint8_t operstate)
{
    const bool up = (info->ifi_flags & IFF_UP) != 0;
    const bool carrier = (info->ifi_flags & IFF_LOWER_UP) != 0;
    return up && (operstate == IF_OPER_UP || (operstate == IF_OPER_UNKNOWN && carrier)) ? FXM_IF_OPER_UP
                                                                                        : FXM_IF_OPER_DOWN;
}

static void _read_link(const nlmsghdr *header, fxm_adapter_t *out)
{
    const auto *info = static_cast<const ifinfomsg *>(NLMSG_DATA(header));
    memset(out, 0, sizeof(*out));
    out->IfIndex = static_cast<uint32_t>(info->ifi_index);
    out->IfType = info->ifi_type == ARPHRD_LOOPBACK ? FXM_IF_TYPE_LOOPBACK : 6;
    uint8_t operstate = IF_OPER_UNKNOWN;
    auto left = static_cast<uint32_t>(IFLA_PAYLOAD(header));
    for (const rtattr *attr = IFLA_RTA(info); RTA_OK(attr, left); attr = RTA_NEXT(attr, left)) {
        const void *data = RTA_DATA(attr);
        const size_t length = RTA_PAYLOAD(attr);
        if (attr->rta_type == IFLA_IFNAME) {
            memcpy(out->AdapterName, data, std::min(length, sizeof(out->AdapterName) - 1));
        } else if (attr->rta_type == IFLA_ADDRESS) {
            out->PhysicalAddressLength = static_cast<uint32_t>(std::min(length, sizeof(out->PhysicalAddress)));
            memcpy(out->PhysicalAddress, data, out->PhysicalAddressLength);
        } else if (attr->rta_type == IFLA_OPERSTATE && length >= 1) {
            memcpy(&operstate, data, 1);
        }
    }
    out->OperStatus = _oper_status(info, operstate);
}

// The end of a dump: 0, or the error that cut it short.
static int _dump_error(const nlmsghdr *header)
{
    int32_t result = 0;
    if (header->nlmsg_len >= NLMSG_LENGTH(sizeof(result)))
        memcpy(&result, NLMSG_DATA(header), sizeof(result));
    return result < 0 ? -result : 0;
}

// Reads the answer to _ask_links; entries past `capacity` are only counted. 0, EINTR for a list that changed while the
// kernel walked it (NLM_F_DUMP_INTR) and may lack entries, or another errno value. The socket's time-out is EAGAIN.
static int _read_links(int fd, fxm_adapter_t *list, uint32_t capacity, uint32_t *count)
{
    alignas(nlmsghdr) uint8_t buffer[32768];
    bool interrupted = false;
    for (;;) {
        const ssize_t got = recv(fd, buffer, sizeof(buffer), MSG_TRUNC);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got < 0 ? errno : EPROTO;
        if (got > static_cast<ssize_t>(sizeof(buffer)))
            return EMSGSIZE;
        auto left = static_cast<uint32_t>(got);
        for (const auto *header = reinterpret_cast<const nlmsghdr *>(buffer); NLMSG_OK(header, left);
             header = NLMSG_NEXT(header, left)) {
            interrupted = interrupted || (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            if (header->nlmsg_type == NLMSG_DONE)
                return interrupted ? EINTR : _dump_error(header);
            if (header->nlmsg_type == NLMSG_ERROR)
                return EPROTO;
            if (header->nlmsg_type != RTM_NEWLINK)
                continue;
            if (*count < capacity) {
                _read_link(header, &list[*count]);
                list[*count].Next = nullptr;
                if (*count > 0)
                    list[*count - 1].Next = &list[*count];
            }
            *count += 1;
        }
    }
}

uint32_t _fxm_netlink_adapters(fxm_adapter_t *list, uint32_t *size)
{
    constexpr int attempts = 8; // against interfaces that come and go all the time
    const uint32_t capacity = list == nullptr ? 0 : *size / static_cast<uint32_t>(sizeof(fxm_adapter_t));
    uint32_t count = 0;
    int err = EINTR;
    for (int attempt = 0; attempt < attempts && err == EINTR; ++attempt) {
        const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        if (fd < 0)
            return static_cast<uint32_t>(errno);
        const timeval limit = {1, 0}; // the kernel answers at once; a wait without end is not worth a list
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        count = 0;
        err = _ask_links(fd) ? _read_links(fd, list, capacity, &count) : errno;
        close(fd);
    }
    if (err != 0)
        return static_cast<uint32_t>(err);
    *size = count * static_cast<uint32_t>(sizeof(fxm_adapter_t));
    return count > capacity ? FXM_ADAPTER_OVERFLOW : 0;
}

// ------------------------------------------------------------------------------------------------ notice of a change

// Empties the socket. The content does not matter: a notice only says that something changed, and the watcher then reads
// the state. An overrun (ENOBUFS) has lost messages, so it counts as a notice too.
static bool _take_notices(fxm_wait_source_t *source)
{
    uint8_t scrap[256];
    bool any = false;
    for (;;) {
        const ssize_t got = recv(source->fd, scrap, sizeof(scrap), MSG_DONTWAIT | MSG_TRUNC);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == ENOBUFS) {
            any = true;
            continue;
        }
        if (got < 0)
            break;
        any = true;
    }
    source->ready = any;
    return any;
}

bool _fxm_netlink_notice_create(fxm_notice_t *notice)
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd < 0) {
        _fxm_set_last_error(errno);
        return false;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        _fxm_set_last_error(errno);
        close(fd);
        return false;
    }
    notice->source = {-1, false, _take_notices, 0};
    notice->netlink_fd = fd;
    return true;
}

void _fxm_notice_close(fxm_notice_t *notice)
{
    if (notice->netlink_fd >= 0)
        close(notice->netlink_fd);
    notice->netlink_fd = notice->source.fd = -1;
}

bool _fxm_netlink_notice_arm(fxm_notice_t *notice)
{
    notice->source.fd = notice->netlink_fd;
    _fxm_set_last_error(static_cast<int>(FXM_ERROR_IO_PENDING));
    return false;
}

void _fxm_notice_reset(fxm_notice_t *notice)
{
    notice->source.ready = false;
    notice->source.fd = -1; // one-shot: the next change is told only after the next arming
    notice->source.look_again = 0;
}

void _fxm_notice_keep(fxm_notice_t *notice) { notice->source.look_again = FXM_NOTICE_AGAIN; }

// ------------------------------------------------------------------------------------------------------------ capture

int _fxm_pcap_mintocopy(pcap *handle)
{
    char errbuf[PCAP_ERRBUF_SIZE];
    return pcap_setnonblock(handle, 1, errbuf) == 0 ? 0 : -1;
}

int _fxm_capture_event(pcap *handle) { return pcap_get_selectable_fd(handle); }

void _fxm_capture_close_on_exec(pcap *handle) { fcntl(pcap_fileno(handle), F_SETFD, FD_CLOEXEC); }

void _fxm_capture_read_done(pcap *handle, fxm_wait_source_t *source, bool more)
{
    source->ready = more;
    // Once libpcap has seen the interface go down, it asks for reads without a signal.
    source->look_again = pcap_get_required_select_timeout(handle) != nullptr ? FXM_CAPTURE_DOWN_LOOK : 0;
}

uint32_t _fxm_capture_wait_room(pcap *handle, uint32_t ms)
{
    const timespec deadline = _fxm_monotonic_in(ms);
    pollfd fd = {pcap_fileno(handle), POLLOUT, 0};
    if (poll(&fd, 1, static_cast<int>(ms)) <= 0)
        return 0;
    // At least 1 ms less, so that a sender that keeps losing the race for the room still times out.
    return std::min(ms - 1, static_cast<uint32_t>(_fxm_ms_until(&deadline)));
}
