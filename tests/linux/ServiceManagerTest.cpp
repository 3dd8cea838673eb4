#include "Linux/kernel/ServiceManager.h"
#include "tests/control/SocketLoop.h"

#include <array>
#include <cstddef>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

TEST(ServiceManager, ThatWasBusyHearsAtOnceWhatMattersStill) {
    const Runtime::FileDescriptor manager{::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)};
    sockaddr_un place{};
    place.sun_family = AF_UNIX;
    // The kernel chooses a name that is no file.
    ASSERT_EQ(::bind(manager.get(), reinterpret_cast<sockaddr*>(&place), sizeof place.sun_family), 0);
    socklen_t size = sizeof place;
    ASSERT_EQ(::getsockname(manager.get(), reinterpret_cast<sockaddr*>(&place), &size), 0);
    const std::string name{&place.sun_path[1], size - offsetof(sockaddr_un, sun_path) - 1};
    const auto heard = [&] {
        std::string all;
        std::array<char, 256> piece{};
        for (ssize_t count = 0; (count = ::read(manager.get(), piece.data(), piece.size())) > 0;)
            all.append(piece.data(), static_cast<std::size_t>(count)) += '\n';
        return all;
    };
    SocketLoop loop;
    Linux::ServiceManager service{loop, {.socket = '@' + name, .alive = 10s}};
    for (int i = 0; i < 2000; ++i) loop.sleep(5s);  // signs of life, more than the kernel keeps
    service.ready();
    for (int i = 0; i < 20; ++i) service.statusIs(std::to_string(i));
    loop.sleep(5s);
    EXPECT_NE(heard(), "");
    loop.sleep(100ms);
    EXPECT_EQ(heard(), "WATCHDOG=1\nREADY=1\nSTATUS=19\n");
}

}  // namespace
