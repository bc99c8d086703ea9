#include "wire.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "setup.h"

// ------------------------------------------------------------------------------------------------------ announcements

frame_t fxio_frame(uint64_t id) { return changed(from(id, fxio_frame()), {}, 60); }

announcements_t::announcements_t(size_t cards, size_t first)
    : last_id(FIRST_FXIO + first + cards - 1), frame(cards), part(cards), message(cards)
{
    for (size_t i = 0; i < cards; ++i) {
        frame[i] = i % 2 == 0 ? from(FIRST_FXSV + first + i, fxsv_1g_frame()) : fxio_frame(FIRST_FXIO + first + i);
        part[i] = {frame[i].data(), frame[i].size()};
        message[i].msg_hdr.msg_iov = &part[i];
        message[i].msg_hdr.msg_iovlen = 1;
    }
}

void announcements_t::send(const wire_t &wire, size_t begin, size_t end)
{
    for (size_t done = begin; done < end;) {
        const int sent = sendmmsg(wire.fd, &message[done], static_cast<unsigned>(end - done), 0);
        if (sent < 0)
            fail("cannot send: %s", strerror(errno));
        done += static_cast<size_t>(sent);
    }
}

// --------------------------------------------------------------------------------------------------- bare round trips

// A frame of 60 bytes: an Ethernet header, whether it wants an answer, its number. Each lane has an EtherType of its
// own from 0x9000 on, so that its socket sees its frames alone.
constexpr size_t BARE_SIZE = 60, AT_ANSWER = 14, AT_NUMBER = 15;
constexpr uint16_t LANE_0 = 0x9000;

[[noreturn]] static void answer_frames(int fd)
{
    for (;;) {
        pollfd ready = {fd, POLLIN, 0};
        uint8_t frame[2048];
        poll(&ready, 1, -1);
        // A frame that is lost on a crowded machine is asked for again.
        if (recv(fd, frame, sizeof(frame), MSG_DONTWAIT) == BARE_SIZE && frame[AT_ANSWER] != 0)
            (void)send(fd, frame, BARE_SIZE, 0);
    }
}

bare_t::bare_t()
{
    lay_cable("near", "far");
    const wire_t far("far");
    far_id = fork();
    if (far_id < 0)
        fail("cannot fork: %s", strerror(errno));
    if (far_id == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        answer_frames(far.fd);
    }
    for (size_t lane = 0; lane < LANES; ++lane) {
        const timeval limit = {0, 100000};
        wire[lane] = std::make_unique<wire_t>("near", static_cast<uint16_t>(LANE_0 + lane));
        setsockopt(wire[lane]->fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
}

bare_t::~bare_t()
{
    kill(far_id, SIGKILL);
    waitpid(far_id, nullptr, 0);
    ip("link del near");
}

static void send_bare(int fd, size_t lane, uint8_t answer, uint8_t number)
{
    const uint8_t frame[BARE_SIZE] = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 1, LANE_0 >> 8, static_cast<uint8_t>(lane), answer, number};
    if (send(fd, frame, sizeof(frame), 0) != BARE_SIZE)
        fail("cannot send: %s", strerror(errno));
}

void bare_t::round_trip(size_t lane) const
{
    static thread_local uint8_t number;
    uint8_t frame[2048];
    ++number;
    for (int attempt = 0; attempt < 10; ++attempt) {
        send_bare(wire[lane]->fd, lane, 1, number);
        while (recv(wire[lane]->fd, frame, sizeof(frame), 0) == BARE_SIZE) {
            if (frame[AT_NUMBER] == number)
                return;
        }
    }
    fail("a bare frame does not come back");
}

void bare_t::one_way() const { send_bare(wire[0]->fd, 0, 0, 0); }
