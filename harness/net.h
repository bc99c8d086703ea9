// Network namespace, virtual cables, interfaces, and the cards' end of a cable.
#ifndef HARNESS_NET_H
#define HARNESS_NET_H

#include <cstdint>
#include <string>
#include <vector>

#include "frames.h"

// Moves the process into a network namespace that nobody else uses, with `lo` up. Without root it becomes root of a user
// namespace first. False, with the reason on stderr, where the system does not allow it. Before any thread is made.
bool enter_namespace();

void ip(const std::string &commands); // runs `ip` with each line

// The change is an ioctl: fast, and without a process.
void set_up(const std::string &interface, bool up);
void set_mtu(const std::string &interface, int mtu);
bool is_running(const std::string &interface); // up and with carrier

// A veth pair, both ends up and running. The arguments may name an address: "fxm0 address 02:00:00:00:aa:00".
void lay_cable(const std::string &near, const std::string &far);

// The cards' end of a cable: a raw packet socket that sends hand-written frames and sees what the library sends.
class wire_t
{
  public:
    // Takes in frames of this EtherType; of all types, with their VLAN tag in place, unless one is given. 0 takes nothing.
    static constexpr uint16_t ALL = 3;
    explicit wire_t(const std::string &interface, uint16_t ether_type = ALL);
    explicit wire_t(int port) : wire_t("card" + std::to_string(port)) {}
    ~wire_t();
    wire_t(const wire_t &) = delete;
    wire_t &operator=(const wire_t &) = delete;

    void send(const frame_t &frame) const;

    // Takes the oldest frame of the library's that was not taken yet; waits for it, and is empty when none comes.
    frame_t receive();

    // Takes all that are there now.
    std::vector<frame_t> received();

    const int fd;

  private:
    bool read_one(frame_t *frame) const;
    std::string interface;
};

#endif
