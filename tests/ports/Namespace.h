/// A network of the test's own.
#pragma once

#include "Linux/kernel/EpollLoop.h"
#include "Runtime/FileDescriptor.h"
#include "tests/Octets.h"

#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <vector>

/// Moves the process into a fresh network namespace, which vanishes with all in it when the process leaves it
/// again (or dies).  To be made before any socket, and to be destroyed after them.
class Namespace {
public:
    Namespace() : before_{open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)} {
        made_ = unshare(CLONE_NEWNET) == 0;
    }
    Namespace(const Namespace&) = delete;
    Namespace& operator=(const Namespace&) = delete;
    ~Namespace() {
        if (made_) {
            EXPECT_EQ(setns(before_.get(), CLONE_NEWNET), 0);
        }
    }
    [[nodiscard]] bool made() const { return made_; }

    /// ip("link set p1 up").  Ends the test when that fails.
    static void ip(const std::string& arguments) { run("ip " + arguments); }
    static void bridge(const std::string& arguments) { run("bridge " + arguments); }
    static void tc(const std::string& arguments) { run("tc " + arguments); }
    /// Also on kernels that rename only what is down.
    static void rename(const std::string& from, const std::string& to) {
        ip("link set " + from + " down");
        ip("link set " + from + " name " + to);
        ip("link set " + to + " up");
    }
    static void run(const std::string& command) {
        if (std::system(command.c_str()) != 0) throw std::runtime_error(command);
    }
    /// One cable: both ends exist, are up, and have the addresses 02:00:00:00:00:0a and ...:0b.
    static void cable(const std::string& a, const std::string& b) {
        ip("link add " + a + " address 02:00:00:00:00:0a up type veth peer name " + b +
           " address 02:00:00:00:00:0b");
        ip("link set " + b + " up");
    }

private:
    Runtime::FileDescriptor before_;
    bool made_ = false;
};

/// A test with a network and a loop of its own.
class PortsTest : public testing::Test {
protected:
    void SetUp() final {
        if (!net.made()) GTEST_SKIP() << "no permission to make a network namespace";
        make();
    }
    /// What each test begins with.
    virtual void make() {}
    /// Runs until a text reads as expected; how it reads at last.
    std::string until(const std::string& expected, const std::function<std::string()>& now) {
        loop.runUntil([&] { return now() == expected; }, std::chrono::seconds{8});
        return now();
    }
    /// Lets happen what is on its way.
    void settle(Runtime::Duration span = std::chrono::milliseconds{20}) {
        loop.runUntil([] { return false; }, span);
    }

    Namespace net;
    Linux::EpollLoop loop;
};
#define EXPECT_UNTIL(text, now) EXPECT_EQ(until(text, [&] { return now; }), text)

/// Sends and hears whole frames on one interface, as they are on the wire.
class RawEnd {
public:
    explicit RawEnd(const std::string& interface)
        : fd_{socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ETH_P_ALL))} {
        where_.sll_family = AF_PACKET;
        where_.sll_protocol = htons(ETH_P_ALL);
        where_.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr*>(&where_), sizeof where_), 0);
        const int on = 1;
        EXPECT_EQ(setsockopt(fd_.get(), SOL_PACKET, PACKET_AUXDATA, &on, sizeof on), 0);
    }
    void send(const Octets& frame) const {
        EXPECT_EQ(::send(fd_.get(), frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    }
    /// Everything that came in since the last call.
    [[nodiscard]] std::vector<Octets> heard() const {
        std::vector<Octets> frames;
        Octets buffer(4096);
        sockaddr_ll from{};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(tpacket_auxdata))> beside{};
        iovec part{buffer.data(), buffer.size()};
        const msghdr empty{&from, sizeof from, &part, 1, beside.data(), beside.size(), 0};
        ssize_t length = 0;
        for (msghdr told = empty; (length = recvmsg(fd_.get(), &told, 0)) >= 0; told = empty) {
            if (from.sll_pkttype == PACKET_OUTGOING) continue;
            Octets& frame = frames.emplace_back(buffer.begin(), buffer.begin() + length);
            // The kernel keeps the tag beside the frame.
            tpacket_auxdata about{};
            if (CMSG_FIRSTHDR(&told) != nullptr)
                std::memcpy(&about, CMSG_DATA(CMSG_FIRSTHDR(&told)), sizeof about);
            if ((about.tp_status & TP_STATUS_VLAN_VALID) == 0) continue;
            for (const unsigned two : {unsigned{about.tp_vlan_tci}, unsigned{about.tp_vlan_tpid}}) {
                for (const unsigned octet : {two & 0xFF, two >> 8})
                    frame.insert(frame.begin() + 12, static_cast<std::uint8_t>(octet));
            }
        }
        return frames;
    }

private:
    Runtime::FileDescriptor fd_;
    sockaddr_ll where_{};
};
