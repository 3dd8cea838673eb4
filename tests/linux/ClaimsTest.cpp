#include "Linux/kernel/Claims.h"
#include "tests/control/SocketLoop.h"

#include <gtest/gtest.h>
#include <list>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

using Linux::Claims;

TEST(Claims, KeepAnotherDaemonAwayAndLetNobodyElseDoSo) {
    using enum Claims::Patience;
    SocketLoop loop;
    std::string said;
    const auto complain = [&](const std::string& line) { said = line; };
    Claims one{loop, complain};
    Claims other{loop, complain};
    const std::string number = std::to_string(::getpid());
    const std::string port = "port of " + number;
    const auto socketWith = [&](auto bindOrConnect) {
        Runtime::FileDescriptor socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)};
        sockaddr_un to{AF_UNIX, {}};
        const auto length = static_cast<socklen_t>(3 + ("msrpd " + port).copy(to.sun_path + 1, 100));
        if (bindOrConnect(socket.get(), reinterpret_cast<const sockaddr*>(&to), length) != 0) socket = {};
        return socket;
    };
    EXPECT_FALSE(Claims::taken(port));
    EXPECT_EQ(one.take(port, none), "");
    EXPECT_TRUE(Claims::taken(port));
    EXPECT_EQ(other.take(port, none), port + " is run by another msrpd already, process " + number);
    std::list<Runtime::FileDescriptor> callers;  // more than it answers in one turn
    while (callers.emplace_back(socketWith(::connect))) {
    }
    EXPECT_TRUE(Claims::taken(port));
    EXPECT_EQ(other.take(port, some), port + " is run by another msrpd already");
    one.giveBack(port);
    EXPECT_EQ(said, "");

    // Anybody may take a name.
    const auto bound = socketWith(::bind);
    EXPECT_EQ(one.take(port, some), "");
    EXPECT_NE(said.find(port + ": a process that does not listen has taken"), std::string::npos) << said;
    if (::seteuid(65534) != 0) GTEST_SKIP() << "the rest needs to be root";
    ::listen(bound.get(), 9);
    ::seteuid(0);
    EXPECT_TRUE(Claims::taken(port));
    EXPECT_EQ(other.take(port, none), "");
    EXPECT_NE(said.find(": process " + number + " of user 65534 has"), std::string::npos) << said;
}

}  // namespace
