#include "Control/LogLimiter.h"
#include "Control/LogWriter.h"
#include "Msrp/MsrpEvents.h"
#include "Runtime/RepeatedLines.h"
#include "Runtime/VirtualLoop.h"
#include "programs/DaemonLog.h"
#include "tests/control/TemporaryDirectory.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

TEST(RepeatedLines, ArePassedOnceAndCountedForAsLongAsTheyComeAgain) {
    Runtime::VirtualLoop loop;
    Lines lines;
    Runtime::RepeatedLines folder{
        loop, [&](int severity, std::string_view, const std::string& line, std::uint64_t) {
            lines.push_back(std::to_string(severity) + ' ' + line);
        }};
    const auto told = [&] { return std::exchange(lines, {}); };
    for (int i = 0; i < 5; ++i) {
        folder.line(6, "", "Discard");
        loop.runFor(10s);
    }
    folder.line(4, "swp1", "swp1 link status is up");
    EXPECT_EQ(told(), (Lines{"6 Discard", "4 swp1 link status is up"}));
    loop.runFor(10s);
    EXPECT_EQ(told(), Lines{"6 Discard (again 4 times)"});
    folder.line(6, "", "Discard");  // in the second window
    EXPECT_EQ(told(), Lines{});
    loop.runFor(2min);  // and a quiet one
    for (int i = 0; i < 2; ++i) folder.line(6, "", "Discard");
    EXPECT_EQ(told(), (Lines{"6 Discard (again 1 time)", "6 Discard"}));
    folder.flush();
    EXPECT_EQ(told(), Lines{"6 Discard (again 1 time)"});

    for (int i = 0; i < 2; ++i) folder.line(6, "", "Discard");
    for (std::size_t i = 1; i <= Runtime::RepeatedLines::capacity; ++i) folder.line(6, "", std::to_string(i));
    ASSERT_EQ(lines.size(), Runtime::RepeatedLines::capacity + 2);
    EXPECT_EQ(lines[lines.size() - 2], "6 Discard (again 1 time)") << "so many lines are remembered";
}

TEST(LogLimiter, BoundsWhatOnePortAndAllTogetherWriteAndCountsTheRest) {
    Runtime::VirtualLoop loop;
    std::size_t octets = 0;
    Lines told;
    Control::LogLimiter limiter{loop, [&](int, const std::string& line) {
                                    octets += line.size() + 1;
                                    told.push_back(line);
                                }};
    for (int i = 0; i < 10'000; ++i) {
        if (limiter.asks("swp3")) limiter.line(6, "swp3", "line " + std::to_string(i));
    }
    EXPECT_EQ(told.size(), 200U);
    limiter.line(6, "", "no port");
    limiter.line(6, "swp4", "innocent");
    EXPECT_EQ(told.size(), 202U);
    loop.runFor(1min);
    EXPECT_EQ(told.back(), "swp3: 9,800 more lines in the last minute were left out");
    told.clear();
    for (int i = 0; i < 10'000; ++i) limiter.line(6, "swp3", "line");
    EXPECT_EQ(told.size(), 100U);

    for (int minutes = 0; minutes < 3; ++minutes) {
        octets = 0;
        for (int second = 0; second < 60; ++second) {
            for (int port = 0; port < 6400; ++port)
                limiter.line(6, "p" + std::to_string(port % 64), std::string(200, 'x'));
            loop.runFor(1s);
        }
        EXPECT_LT(octets, std::size_t{1'000'000});
    }
    loop.runFor(10min);
    told.clear();
    loop.runFor(10min);
    EXPECT_EQ(told, Lines{});
}

TEST(LogLimiter, FindsThePortInALine) {
    const auto known = [](std::string_view name) { return name == "swp3" || name == "on"; };
    for (const char* line :
         {"swp3 link status is up", "swp3: malformed MRPDU", "Join on vlan on swp3: StreamId"})
        EXPECT_EQ(Control::portNamed(line, known), "swp3") << line;
    EXPECT_EQ(Control::portNamed("swp31 on swp4 on", known), "");
}

struct Outlet : Control::LogOutlet {
    explicit Outlet(std::string& to, bool toHeads = false) : taken{to}, heads{toHeads} {}
    [[nodiscard]] std::string head(int severity) const override {
        return heads ? std::to_string(severity) : "";
    }
    ssize_t write(const std::string& line, std::size_t offset) override {
        if (error != 0 || line.size() > 1000) return error != 0 ? -error : -EMSGSIZE;
        const std::string rest = (line + '\n').substr(offset, 7);  // never a whole line
        taken += rest;
        return static_cast<ssize_t>(rest.size());
    }
    void reopen() override { error = 0; }
    std::string& taken;
    const bool heads;
    int error = 0;
};

TEST(LogWriter, NeverWaitsAndDropsAndCountsAndGoesOnWhenItCan) {
    Runtime::VirtualLoop loop;
    std::string taken;
    Lines troubles;
    auto owned = std::make_unique<Outlet>(taken);
    Outlet& outlet = *owned;
    Control::LogWriter writer{loop, std::move(owned),
                              [&](const std::string& line) { troubles.push_back(line); }};
    outlet.error = EAGAIN;
    for (int i = 0; i < 1000; ++i) writer.line(6, std::string(999, 'x'));
    loop.runFor(1s);
    EXPECT_EQ(troubles, Lines{"lines of the log are not written: nobody reads them"});
    outlet.error = 0;
    constexpr std::size_t kept = Control::LogWriter::capacity / 999;
    // Others have their turn in between.
    std::size_t most = 0;
    Runtime::Timer other{loop, [&, before = std::size_t{0}]() mutable {
                             most = std::max(most, taken.size() - std::exchange(before, taken.size()));
                             if (taken.size() < kept * 1000) other.armIn(taken.empty() ? 1ms : 0ms);
                         }};
    other.armIn(0ms);
    loop.runFor(1s);
    EXPECT_LT(most, std::size_t{70'000});
    const std::string last = std::to_string(1000 - kept) + " lines were not written: nobody reads them\n";
    ASSERT_EQ(taken.size(), kept * 1000 + last.size());
    EXPECT_EQ(taken.substr(kept * 1000), last);

    // Said once however often it is tried, and what is kept comes out whole.
    taken.clear();
    for (const int error : {ENOSPC, EPIPE}) {
        outlet.error = error;
        writer.line(6, "kept");
        loop.runFor(1min);
    }
    EXPECT_EQ(troubles.back(), "lines of the log are not written: No space left on device");
    EXPECT_EQ(troubles.size(), 2U);
    writer.reopen();
    EXPECT_EQ(taken, "kept\nkept\n");
    writer.line(6, std::string(1001, 'x'));
    writer.line(6, "and\n<0>goes\x1b on");
    loop.runFor(0s);
    EXPECT_EQ(taken, "kept\nkept\nand <0>goes  on\n1 lines were not written: Message too long\n");
}

TEST(DaemonLog, SaysHowMuchALineMattersAndWhatItsNumbersMeanAndLeavesOutTopics) {
    Runtime::VirtualLoop loop;
    std::string taken;
    const auto config = std::make_shared<Runtime::LogConfig>();
    DaemonLog log{loop, std::make_unique<Outlet>(taken, true), config,
                  std::make_shared<Runtime::RecentLog>()};
    Runtime::SystemLog events;
    log.listen(events);
    const auto happens = [&] {
        using namespace Msrp;
        events.log(MSRP_SR_CLASS_TRANSITION, 6, "swp1", 1, 3);
        events.log(MSRP_DOMAIN_JOIN, "received", "swp1", 5, 2, 2);
        events.log(MSRP_LISTENER_JOIN, "received", "swp1", "A1", 2);
        events.log(MSRP_TALKER_FAIL_JOIN, "received", "swp1", "A1", 1, "B1");
        events.log(MSRP_TALKER_FAIL_JOIN, "received", "swp1", "A1", 99, "B1");
        events.log(MSRP_BW_ALLOC_FAIL, 9088, "swp1", "A1");
        events.log(MSRP_ERROR, "Discard streamId 0xA1");
        log.say(Runtime::LogTopic::daemon, Runtime::LogLevel::notice, "a change");
        loop.runFor(2min);
        return std::exchange(taken, {});
    };
    EXPECT_EQ(happens(),
              "5MSRP_SR_CLASS_TRANSITION MSRP 6 state on swp1 changed from 1 to 3 "
              "(class A on swp1: WaitingForPeer -> Core)\n"
              "6MSRP_DOMAIN_JOIN Domain Join received on swp1: Class: 5, Priority: 2, SrVID: 2 (class B)\n"
              "6MSRP_LISTENER_JOIN Listener Join received on swp1: StreamId 0xA1, state 2 (Ready)\n"
              "5MSRP_TALKER_FAIL_JOIN TalkerFail Join received on swp1: StreamId 0xA1, failureCode 1, "
              "failedBridgeId 0xB1 (insufficient bandwidth)\n"
              "5MSRP_TALKER_FAIL_JOIN TalkerFail Join received on swp1: StreamId 0xA1, failureCode 99, "
              "failedBridgeId 0xB1 (99)\n"
              "4MSRP_BW_ALLOC_FAIL Bandwidth 9088 kbps allocation failed for listener on swp1 and streamId "
              "0xA1\n"
              "4MSRP_ERROR Discard streamId 0xA1\n"
              "5a change\n");
    using enum Runtime::LogTopic;
    for (const auto topic : {domains, bandwidth, daemon}) {
        EXPECT_FALSE(config->apply(
            State::Object{{"level", State::Object{{State::enumText(topic), State::Value{"error"}}}}}));
    }
    EXPECT_FALSE(
        config->apply(State::Object{{"level", State::Object{{"streams", State::Value{"warning"}}}}}));
    EXPECT_EQ(happens(), "4MSRP_ERROR Discard streamId 0xA1\n");
}

TEST(LogWriter, FindsTheSystemLogAgainWhenThatWasAway) {
    Runtime::VirtualLoop loop;
    const TemporaryDirectory directory;
    const std::string path = directory.file("log");
    const auto listen = [&] { return Runtime::FileDescriptor{directory.boundSocket("log", SOCK_DGRAM)}; };
    const auto heard = [](const Runtime::FileDescriptor& fd) {
        std::string text(2000, '\0');
        const ssize_t count = ::recv(fd.get(), text.data(), text.size(), 0);
        return count < 0 ? "nothing" : text.substr(0, static_cast<std::size_t>(count));
    };
    Control::LogWriter writer{loop, Control::systemLogSocket(loop, "msrpd", path), [](const std::string&) {}};
    for (const char* line : {"first", "second"}) {
        writer.line(6, line);
        loop.runFor(1min);
        const auto log = listen();
        loop.runFor(2s);
        const std::string text = heard(log);
        EXPECT_EQ(text.substr(0, 4), "<30>");
        EXPECT_EQ(text.substr(text.find("msrpd")), "msrpd[" + std::to_string(::getpid()) + "]: " + line);
        ::unlink(path.c_str());
    }
    // Nor does one that is there and reads nothing make anybody wait.
    const auto log = listen();
    for (int i = 0; i < 5000; ++i) writer.line(6, "unread");
    loop.runFor(1s);
    EXPECT_NE(heard(log), "nothing");
}

}  // namespace
