// Packet sockets. The kernel removes the VLAN tag of a received frame and passes it beside the data, but only to
// sockets for all EtherTypes. A socket bound to the fabric's EtherType would receive the frames with no trace of their
// tag.
#include "wire.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frames.h"

static constexpr int SOCKET_BUFFER = 16 << 20;
static constexpr unsigned BATCH = 64; // of frames to send
static constexpr unsigned TAKE = 16;  // of frames to receive
static constexpr unsigned TAKES_IN_A_ROW = 64;
static constexpr size_t RECEIVE_ROOM = 2048; // no command is longer; the rest of a longer frame is dropped

static constexpr size_t MACS = 12;
static constexpr size_t TAG = 4;

struct out_t {
    unsigned used = 0;
    size_t size[BATCH];
    u8 frame[BATCH][FRAME_ROOM];
};

static int _fd[PORTS] = {-1, -1};
static out_t _out[PORTS];

bool wire_is_open(unsigned port) { return _fd[port] >= 0; }

int wire_fd(unsigned port) { return _fd[port]; }

static void _set_buffer(int fd, int forced, int plain)
{
    if (setsockopt(fd, SOL_SOCKET, forced, &SOCKET_BUFFER, sizeof SOCKET_BUFFER) != 0)
        (void)setsockopt(fd, SOL_SOCKET, plain, &SOCKET_BUFFER, sizeof SOCKET_BUFFER);
}

bool wire_open(unsigned port, const char *interface, std::string &why)
{
    const unsigned index = if_nametoindex(interface);
    if (index == 0) {
        why = std::string("there is no interface ") + interface + "; create one with: ip link add fxm" +
              std::to_string(port) + " type veth peer name " + interface;
        return false;
    }
    // Without a protocol the socket receives nothing, so no frame of another interface gets in before bind.
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        why = std::string("cannot open a packet socket: ") + std::strerror(errno) +
              "; root or the capability CAP_NET_RAW is required";
        return false;
    }
    _set_buffer(fd, SO_RCVBUFFORCE, SO_RCVBUF);
    _set_buffer(fd, SO_SNDBUFFORCE, SO_SNDBUF);

    const int on = 1;
    packet_mreq promiscuous{};
    promiscuous.mr_ifindex = static_cast<int>(index);
    promiscuous.mr_type = PACKET_MR_PROMISC;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(index);
    if (setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promiscuous, sizeof promiscuous) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        why = std::string("cannot listen on ") + interface + ": " + std::strerror(errno);
        close(fd);
        return false;
    }
    _fd[port] = fd;
    return true;
}

void wire_send(unsigned port, const u8 *frame, size_t size)
{
    if (wire_is_open(port))
        (void)send(_fd[port], frame, size, MSG_DONTWAIT);
}

static void _flush(unsigned port)
{
    out_t &out = _out[port];
    iovec part[BATCH];
    mmsghdr message[BATCH];

    for (unsigned i = 0; i < out.used; i++) {
        part[i] = {out.frame[i], out.size[i]};
        message[i] = {};
        message[i].msg_hdr.msg_iov = &part[i];
        message[i].msg_hdr.msg_iovlen = 1;
    }
    for (unsigned done = 0; done < out.used;) {
        const int sent = sendmmsg(_fd[port], message + done, out.used - done, MSG_DONTWAIT);
        if (sent > 0)
            done += static_cast<unsigned>(sent);
        else if (errno == ENOBUFS)
            done++; // one frame lost; the next may find room
        else if (errno != EINTR)
            break; // the cable is down or gone
    }
    out.used = 0;
}

void wire_queue(unsigned port, const u8 *frame, size_t size)
{
    if (!wire_is_open(port))
        return;
    out_t &out = _out[port];
    std::memcpy(out.frame[out.used], frame, size);
    out.size[out.used++] = size;
    if (out.used == BATCH)
        _flush(port);
}

void wire_flush()
{
    for (unsigned port = 0; port < PORTS; port++)
        if (_out[port].used > 0)
            _flush(port);
}

// Reinserts the VLAN tag that the kernel has removed. There is space for it before the frame.
static void _retag(msghdr &header, u8 *&frame, size_t &size)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA || size < MACS)
            continue;
        tpacket_auxdata aux;
        std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
        if (!(aux.tp_status & TP_STATUS_VLAN_VALID))
            continue;
        const u16 tpid = aux.tp_status & TP_STATUS_VLAN_TPID_VALID ? aux.tp_vlan_tpid : u16{ETH_P_8021Q};
        frame -= TAG;
        size += TAG;
        std::memmove(frame, frame + TAG, MACS);
        frame[MACS] = static_cast<u8>(tpid >> 8);
        frame[MACS + 1] = static_cast<u8>(tpid);
        frame[MACS + 2] = static_cast<u8>(aux.tp_vlan_tci >> 8);
        frame[MACS + 3] = static_cast<u8>(aux.tp_vlan_tci);
    }
}

void wire_receive(unsigned port, void (*take)(unsigned port, const u8 *frame, size_t size))
{
    struct in_t {
        alignas(cmsghdr) u8 control[CMSG_SPACE(sizeof(tpacket_auxdata))];
        sockaddr_ll from;
        u8 frame[TAG + RECEIVE_ROOM];
    };
    static in_t in[TAKE];
    iovec part[TAKE];
    mmsghdr message[TAKE];

    for (unsigned batch = 0; batch < TAKES_IN_A_ROW; batch++) {
        for (unsigned i = 0; i < TAKE; i++) {
            part[i] = {in[i].frame + TAG, RECEIVE_ROOM};
            message[i] = {};
            message[i].msg_hdr.msg_iov = &part[i];
            message[i].msg_hdr.msg_iovlen = 1;
            message[i].msg_hdr.msg_control = in[i].control;
            message[i].msg_hdr.msg_controllen = sizeof in[i].control;
            message[i].msg_hdr.msg_name = &in[i].from;
            message[i].msg_hdr.msg_namelen = sizeof in[i].from;
        }
        const int got = recvmmsg(_fd[port], message, TAKE, MSG_DONTWAIT, nullptr);
        // An error is reported once when the interface goes down; the socket stays usable.
        if (got <= 0)
            return;
        for (unsigned i = 0; i < static_cast<unsigned>(got); i++) {
            if (in[i].from.sll_pkttype == PACKET_OUTGOING)
                continue; // sent by another program at this end of the cable
            u8 *frame = in[i].frame + TAG;
            size_t size = message[i].msg_len;
            _retag(message[i].msg_hdr, frame, size);
            take(port, frame, size);
        }
        if (static_cast<unsigned>(got) < TAKE)
            return;
    }
}
