#include "Linux/kernel/EpollLoop.h"
#include "Linux/time/TimeAgent.h"
#include "Runtime/Text.h"
#include "tests/Octets.h"
#include "tests/control/TemporaryDirectory.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Linux::PtpAnswer;
using Linux::PtpData;
using Runtime::concat;

/// Heard from ptp4l 3.1.1: the length, the clock's port and the sequence number, and what follows.
std::string heard(const char* length, const char* portAndNumber, const std::string& rest) {
    return concat("1d0200", length, std::string(32, '0'), "020000fffe00000a", portAndNumber, "047f", rest);
}
const std::string inAnswer = "00000000000000001234000002000001";
const std::string capable = heard("3e", "00010007", inAnswer + "000ac00201312d0000000001");
const std::string notCapable = heard("3e", "00020007", inAnswer + "000ac00201312d0000000000");
const std::string master =
    heard("50", "00010007", inAnswer + "001c2004020000fffe00000a0001060000000000065b00000003fd020002");
const std::string faulty = heard("50", "00010000",
                                 "00000000000000001235010102000001001c2004020000fffe00000a0001020000000000"
                                 "053800000003fd020002");
const std::string unknown = heard("3c", "00010007", "0000000000000000123400000200000200080002dfff00000000");
/// PORT_PROPERTIES_NP of port 1: its interface is "swp1".
const std::string properties =
    heard("47", "00010007", inAnswer + "0013c004020000fffe00000a000106010473777031");

TEST(PtpMessages, AreThoseOfAnotherProgram) {
    EXPECT_EQ(Linux::ptpGet(PtpData::capable, {0x1234, 1}, 7),
              octets("1d020036" + std::string(48, '0') + "12340007047f" + std::string(20, 'f') +
                     "0000000000010002c002"));
    const Octets order = Linux::ptpSubscribe({0x1234, 0}, 7, 90);
    EXPECT_EQ(order.size(), 54U + 66U);
    EXPECT_EQ(order[3], 120);
    EXPECT_EQ(Octets(order.begin() + 48, order.begin() + 57), octets("00010044c003005a01"));
    EXPECT_EQ(Linux::decodePtp(octets(capable)), (PtpAnswer{.port = 1, .capable = true}));
    EXPECT_EQ(Linux::decodePtp(octets(notCapable)), (PtpAnswer{.port = 2, .capable = false}));
    EXPECT_EQ(Linux::decodePtp(octets(master)), (PtpAnswer{.port = 1, .state = 6}));
    EXPECT_EQ(Linux::decodePtp(octets(faulty)), (PtpAnswer{.port = 1, .state = 2}));
    EXPECT_EQ(Linux::decodePtp(octets(properties)), (PtpAnswer{.port = 1, .interface = "swp1"}));
    EXPECT_EQ(Linux::decodePtp(octets(unknown)), std::nullopt);
    // Whatever is cut off, nothing is read that is not there.
    for (const std::string& whole : {capable, master, properties}) {
        for (std::size_t n = 0; n < whole.size(); n += 2)
            EXPECT_EQ(Linux::decodePtp(octets(whole.substr(0, n))), std::nullopt) << n;
    }
}

/// A ptp4l of a few words, and who asks it.
class TimeAgentTest : public testing::Test {
protected:
    /// Answers everything that was asked since the last call in the same words; how much that was.
    int answer(const std::vector<std::string>& words) {
        loop.runUntil([] { return false; }, 30ms);
        Octets asked(500);
        sockaddr_un from{};
        socklen_t length = sizeof from;
        int count = 0;
        while (recvfrom(server, asked.data(), asked.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from),
                        &length) > 0)
            ++count;
        for (const std::string& word : words) {
            const Octets said = octets(word);
            sendto(server, said.data(), said.size(), 0, reinterpret_cast<const sockaddr*>(&from),
                   sizeof from);
        }
        loop.runUntil([] { return false; }, 20ms);
        return count;
    }
    [[nodiscard]] std::string port() const {
        const auto held = std::as_const(*status).port(IntfId{"swp1"});
        return held ? held->state() + (held->capable() ? ", capable" : "") : "unknown";
    }
    void TearDown() override { close(server); }

    const TemporaryDirectory directory;
    const int server = directory.boundSocket("ptp4l", SOCK_DGRAM);
    Linux::EpollLoop loop;
    std::shared_ptr<Switch::TimeStatus> status = std::make_shared<Switch::TimeStatus>();
    std::string lines;
    Linux::TimeAgent agent{
        loop, status,
        [this](bool good, const std::string& line) {
            lines += (good ? "+" : "-") +
                     line.substr(line.find(directory.file("ptp4l")) + directory.file("ptp4l").size()) + '\n';
        },
        directory.file("own")};
};

TEST_F(TimeAgentTest, APortIsCapableWhileItsClockRunsAndItsNeighbourIsThere) {
    EXPECT_TRUE(status->capable(IntfId{"swp1"})) << "nobody has asked";
    ASSERT_EQ(agent.start(directory.file("ptp4l"), {20ms, 1500ms}), "");
    EXPECT_FALSE(status->capable(IntfId{"swp1"}));
    EXPECT_GE(answer({properties, master, capable}), 3);
    EXPECT_EQ(port(), "master, capable");
    answer({faulty});
    EXPECT_EQ(port(), "faulty") << "told, not asked for; asCapable keeps its old value meanwhile";
    std::string lost = capable;
    lost.back() = '0';
    answer({master, lost});
    EXPECT_EQ(port(), "not capable");
    answer({capable, unknown, "1d"});
    EXPECT_EQ(port(), "master, capable");
    // Somebody else's words.
    const int stranger = directory.boundSocket("stranger", SOCK_DGRAM);
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    directory.file("own").copy(to.sun_path, sizeof to.sun_path - 1);
    const Octets said = octets(lost);
    sendto(stranger, said.data(), said.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    close(stranger);
    loop.runUntil([] { return false; }, 20ms);
    EXPECT_EQ(port(), "master, capable");
    // The same from another user, whose socket's name leads to that of ptp4l.
    if (geteuid() == 0) {
        std::filesystem::permissions(directory.file(""), std::filesystem::perms{0755});
        const int pretender = directory.boundSocket("link", SOCK_DGRAM);
        std::filesystem::remove(directory.file("link"));
        std::filesystem::create_symlink(directory.file("ptp4l"), directory.file("link"));
        std::thread{[&] {
            syscall(SYS_setresuid, 65534, 65534, 65534);  // of this thread alone
            EXPECT_GT(sendto(pretender, said.data(), said.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                             sizeof to),
                      0);
        }}.join();
        close(pretender);
        loop.runUntil([] { return false; }, 20ms);
        EXPECT_EQ(port(), "master, capable");
    }
    // Started anew, ptp4l has another number for the interface.
    int losses = 0;
    const auto watched =
        status->watch([&](const State::Change&) { losses += status->capable(IntfId{"swp1"}) ? 0 : 1; });
    const auto ofPort2 = [](std::string message) { return message.replace(56, 4, "0002"); };
    answer({ofPort2(properties), ofPort2(master), ofPort2(capable)});
    for (int i = 0; i < 32; ++i) answer({ofPort2(capable)});
    EXPECT_EQ(losses, 0);
    EXPECT_EQ(lines, "+ tells the time state of ports\n");
}

TEST_F(TimeAgentTest, PathsThatCannotBeAreRefused) {
    EXPECT_NE(agent.start(std::string(200, 'x')).find("too long"), std::string::npos);
    Linux::TimeAgent nowhere{loop, status, [](bool, const std::string&) {}, directory.file("missing/own")};
    EXPECT_NE(nowhere.start(directory.file("ptp4l")).find("No such file"), std::string::npos);
}

}  // namespace
