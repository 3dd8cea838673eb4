#include "Linux/kernel/EpollLoop.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>

using namespace std::chrono_literals;
using Linux::EpollLoop;
using Ready = Runtime::FdLoop::Ready;

namespace {

/// A pipe with one octet in it.
struct FullPipe {
    FullPipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        out = Runtime::FileDescriptor{ends[0]};
        in = Runtime::FileDescriptor{ends[1]};
        fill();
    }
    void fill() const { EXPECT_EQ(write(in.get(), "x", 1), 1); }
    void drain() const {
        char octet = 0;
        EXPECT_EQ(read(out.get(), &octet, 1), 1);
    }
    Runtime::FileDescriptor out;
    Runtime::FileDescriptor in;
};

TEST(EpollLoop, TimersAreNeverEarlyAndKeepTimeBelowTheMillisecond) {
    EpollLoop loop;
    auto best = Runtime::Duration::max();
    for (int i = 0; i < 50; ++i) {  // the best of many, since the machine is not ours alone
        const auto due = loop.now() + 100us;
        Runtime::Timer timer{loop, [&] { best = std::min(best, loop.now() - due), loop.stop(); }};
        timer.armAt(due);
        loop.run();
        EXPECT_GE(loop.now(), due);
    }
    EXPECT_LT(best, 500us);
}

TEST(EpollLoop, TellsHowLateItCameAndWhatKeptIt) {
    EpollLoop loop;
    Runtime::Timer busy{loop, [&] {
                            for (const auto until = loop.now() + 20ms; loop.now() < until;) {
                            }
                        }};
    Runtime::Timer late{loop, [&] { loop.stop(); }};
    busy.armIn(1ms);
    late.armIn(2ms);
    loop.run();
    for (const auto& [delays, atLeast] :
         {std::pair{loop.delays().late, 0.019}, std::pair{loop.delays().turns, 0.02}}) {
        const State::Value told = delays.value();
        EXPECT_GE(std::get<double>(told.member("longest")->data), atLeast) << State::text(told);
        EXPECT_LT(std::get<std::uint64_t>(told.member("within")->member("0.01")->data),
                  std::get<std::uint64_t>(told.member("count")->data));
    }
    loop.delaysClear();
    EXPECT_EQ(loop.delays().late.value(), Runtime::Delays{}.value());
}

TEST(EpollLoop, PostedTasksRunRightAfterTheirHandlerAndBeforeTheNext) {
    EpollLoop loop;
    std::array<FullPipe, 2> pipes;
    std::array<Runtime::FdLoop::Watch, 2> watches;
    std::string order;
    for (std::size_t i = 0; i < 2; ++i) {
        watches[i] = loop.watch(pipes[i].out.get(), Ready::readable, [&, i] {
            pipes[i].drain();
            order += 'h';
            loop.post([&] {
                order += 't';
                loop.post([&] { order += 'u'; });
            });
        });
    }
    loop.stop();
    loop.post([&] { order += 'p'; });
    loop.run();
    EXPECT_EQ(order, "p") << "stopped before it began";
    EXPECT_TRUE(loop.runUntil([&] { return order == "phtuhtu"; }, 5s)) << order;
}

TEST(EpollLoop, AHandlerMayEndWatchesItsOwnIncludedAndAnEventOfAClosedDescriptorReachesNobody) {
    EpollLoop loop;
    std::array<std::optional<FullPipe>, 2> pipes;
    std::array<Runtime::FdLoop::Watch, 2> watches;
    int stale = 0;
    std::size_t calls = 0;
    for (auto& pipe : pipes) pipe.emplace();
    for (std::size_t i = 0; i < 2; ++i) {
        watches[i] = loop.watch(pipes[i]->out.get(), Ready::readable, [&, i, text = std::string(100, 'x')] {
            pipes[i]->drain();
            const std::size_t other = 1 - i;
            const int number = pipes[other]->out.get();
            watches[other] = {};
            pipes[other].reset();
            pipes[other].emplace();
            pipes[other]->drain();
            EXPECT_EQ(pipes[other]->out.get(), number);
            watches[other] = loop.watch(number, Ready::readable, [&] { ++stale; });
            watches[i] = {};
            calls += text.size();  // the handler still owns what it captured
        });
    }
    EXPECT_FALSE(loop.runUntil([] { return false; }, 1ms));
    EXPECT_EQ(stale, 0);
    EXPECT_EQ(calls, 100U);
}

TEST(EpollLoop, ADescriptorThatAlwaysHasMoreGetsNoMoreTurnsThanAnother) {
    EpollLoop loop;
    FullPipe flooded;
    FullPipe quiet;
    int floodCalls = 0;
    int quietCalls = 0;
    const auto one = loop.watch(flooded.out.get(), Ready::readable, [&] { ++floodCalls; });
    const auto two = loop.watch(quiet.out.get(), Ready::readable, [&] {
        quiet.drain();
        quiet.fill();
        ++quietCalls;
    });
    EXPECT_TRUE(loop.runUntil([&] { return quietCalls == 100; }, 5s));
    EXPECT_LE(floodCalls, 101);
}

TEST(EpollLoop, ReadersAndWritersOfOneDescriptorAreWatchedApart) {
    EpollLoop loop;
    FullPipe pipe;
    int writes = 0;
    auto writer = loop.watch(pipe.in.get(), Ready::writable, [&] { ++writes; });
    EXPECT_TRUE(loop.runUntil([&] { return writes == 2; }, 5s));
    pipe.out = {};  // nobody reads: an error, told to whoever watches
    bool broken = false;
    const auto reader = loop.watch(pipe.in.get(), Ready::readable, [&] { broken = true; });
    writer = {};
    const int before = writes;
    EXPECT_TRUE(loop.runUntil([&] { return broken; }, 5s));
    EXPECT_EQ(writes, before);
}

}  // namespace
