#include "bench/TestNetwork.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

TestNetwork::TestNetwork() : before_{open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)} {
    made_ = unshare(CLONE_NEWNET) == 0;
}

TestNetwork::~TestNetwork() {
    if (made_ && setns(before_.get(), CLONE_NEWNET) != 0) std::abort();
}

bool TestNetwork::cable(const std::string& a, const std::string& b) {
    const auto ip = [](const std::string& arguments) {
        return std::system(("ip " + arguments).c_str()) == 0;
    };
    return ip("link add " + a + " up type veth peer name " + b) && ip("link set " + b + " up");
}

Child::Child(const std::function<void()>& work) : pid_{fork()} {
    if (pid_ < 0) throw std::runtime_error("cannot fork");
    if (pid_ > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
    _exit(0);
}

Child::~Child() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

RawSocket::RawSocket(const std::string& interface, std::uint16_t etherType)
    : fd_{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(etherType))} {
    sockaddr_ll where{};
    where.sll_family = AF_PACKET;
    where.sll_protocol = htons(etherType);
    where.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0)
        throw std::runtime_error("cannot bind a packet socket to " + interface);
}

}  // namespace Bench
