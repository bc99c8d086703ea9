#include "common/claim.h"

#include <fmt/format.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>

namespace fxm
{

// The address of the claim and its length. An abstract name begins with a zero byte and has no end mark.
static socklen_t claim_address(unsigned if_index, sockaddr_un *address)
{
    const std::string name = fmt::format("fxm-port-{}", if_index);
    *address = {};
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path + 1, name.data(), name.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

std::optional<claim_holder> port_claim::holder(unsigned if_index)
{
    sockaddr_un address;
    const socklen_t length = claim_address(if_index, &address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return std::nullopt;
    std::optional<claim_holder> found;
    // EAGAIN: the queue is full, so somebody listens, and the kernel does not name him.
    const int result = connect(fd, reinterpret_cast<sockaddr *>(&address), length);
    if (result == 0 || errno == EAGAIN)
        found.emplace();
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (result == 0 && getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) {
        found->pid = peer.pid;
        std::ifstream file(fmt::format("/proc/{}/comm", peer.pid));
        std::getline(file, found->name);
    }
    close(fd);
    return found;
}

port_claim::port_claim(const std::string &interface)
{
    const unsigned if_index = if_nametoindex(interface.c_str());
    if (if_index == 0)
        throw std::runtime_error(
            fmt::format("there is no interface {}; compare with the output of \"ip link\"", interface));
    sockaddr_un address;
    const socklen_t length = claim_address(if_index, &address);
    constexpr int VISITORS = 128;
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // It listens, so that whoever finds the claim can ask the kernel for the owner.
    if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&address), length) == 0 && listen(fd_, VISITORS) == 0)
        return;
    const int fault = errno;
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
    if (fault != EADDRINUSE)
        throw std::runtime_error(fmt::format("cannot claim {}: {}", interface, strerror(fault)));
    const auto owner = holder(if_index);
    if (owner && owner->pid != 0)
        throw claim_error(fmt::format("{} is managed by {} (pid {}); use fxmctl", interface,
                                      owner->name.empty() ? "another program" : owner->name, owner->pid));
    throw claim_error(fmt::format("{} is managed by another program; use fxmctl", interface));
}

void port_claim::drop_visitors() const
{
    for (int visitor; (visitor = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
        close(visitor);
}

port_claim::~port_claim()
{
    if (fd_ >= 0)
        close(fd_);
}

} // namespace fxm
