// The claim on a port of the management network. Two managers on one port give each other wrong values, so each binds an
// abstract Unix socket that is named for the port, from its start to its end. The kernel frees it with the process, and
// the name is scoped by the network namespace, as the port is.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include <sys/types.h>

namespace fxm
{

// Somebody else has the port. what() is a sentence for people: "eth2 is managed by fxmd (pid 812); use fxmctl".
class claim_error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

struct claim_holder {
    pid_t pid = 0;
    std::string name; // of its program
};

class port_claim
{
  public:
    // Throws claim_error, or std::runtime_error if there is no such interface.
    explicit port_claim(const std::string &interface);
    ~port_claim();
    port_claim(const port_claim &) = delete;
    port_claim &operator=(const port_claim &) = delete;

    // Who has the port. The name of the program is empty, and the process 0, if that cannot be found out.
    static std::optional<claim_holder> holder(unsigned if_index);

    // Drops the connections of those who have asked for the holder. Call it about once a second: the kernel names the
    // holder only while its queue has room.
    void drop_visitors() const;

  private:
    int fd_ = -1;
};

} // namespace fxm
