#include "Linux/kernel/ModuleNews.h"

#include <array>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <utility>

namespace Linux {

namespace {

constexpr unsigned kernelsOwnGroup = 1;

/// Accepts messages that begin with "add@/module".
std::array<sock_filter, 8> modulesOnly() {
    constexpr auto load = [](std::uint32_t at) { return sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, at}; };
    constexpr auto unless = [](std::uint32_t word, std::uint8_t rest) {
        return sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, rest, word};
    };
    constexpr auto give = [](std::uint32_t octets) { return sock_filter{BPF_RET | BPF_K, 0, 0, octets}; };
    return {{
        load(0),
        unless(0x61646440, 5),  // "add@"
        load(4),
        unless(0x2F6D6F64, 3),  // "/mod"
        load(7),
        unless(0x64756C65, 1),  // "dule"
        give(1),
        give(0),
    }};
}

}  // namespace

ModuleNews::ModuleNews(Runtime::FdLoop& loop, std::function<void()> loaded)
    : fd_{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT)} {
    auto filter = modulesOnly();
    const sock_fprog program{filter.size(), filter.data()};
    sockaddr_nl here{};
    here.nl_family = AF_NETLINK;
    here.nl_groups = kernelsOwnGroup;
    if (setsockopt(fd_.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0 ||
        bind(fd_.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0) {
        return;
    }
    watch_ =
        loop.watch(fd_.get(), Runtime::FdLoop::Ready::readable, [fd = fd_.get(), loaded = std::move(loaded)] {
            char octet = 0;
            bool heard = false;
            while (recv(fd, &octet, sizeof octet, MSG_DONTWAIT) >= 0) heard = true;
            if (heard) loaded();
        });
}

}  // namespace Linux
