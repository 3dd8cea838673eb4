#include "Control/LogFolder.h"
#include "Control/RecentLog.h"
#include "Runtime/VirtualLoop.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

struct Folder : ::testing::Test {
    Lines told() { return std::exchange(lines, {}); }

    Runtime::VirtualLoop loop;
    Lines lines;
    Control::LogFolder folder{loop, [this](int severity, const std::string& line) {
                                  lines.push_back(std::to_string(severity) + ' ' + line);
                              }};
};

TEST_F(Folder, CountsWhatComesAgainWithinAMinuteAndPassesTheRestAtOnce) {
    for (int i = 0; i < 5; ++i) {
        folder.line(6, "Discard");
        loop.runFor(10s);
    }
    folder.line(4, "swp1 link status is up");
    EXPECT_EQ(told(), (Lines{"6 Discard", "4 swp1 link status is up"}));
    loop.runFor(10s);
    EXPECT_EQ(told(), Lines{"6 Discard (again 4 times)"});
    loop.runFor(10min);
    EXPECT_EQ(told(), Lines{});
}

TEST_F(Folder, GoesOnFoldingWhatGoesOnAndForgetsWhatHasEnded) {
    folder.line(6, "Discard");
    folder.line(6, "Discard");
    loop.runFor(1min);
    folder.line(6, "Discard");  // in the second window
    EXPECT_EQ(told(), (Lines{"6 Discard", "6 Discard (again 1 time)"}));
    loop.runFor(1min);
    EXPECT_EQ(told(), Lines{"6 Discard (again 1 time)"});
    loop.runFor(1min);  // a quiet window
    folder.line(6, "Discard");
    EXPECT_EQ(told(), Lines{"6 Discard"});
}

TEST_F(Folder, FlushTellsCountsThatAreHeldBack) {
    folder.line(6, "a");
    folder.line(6, "b");
    folder.line(6, "b");
    folder.flush();
    EXPECT_EQ(told(), (Lines{"6 a", "6 b", "6 b (again 1 time)"}));
    loop.runFor(10min);
    EXPECT_EQ(told(), Lines{});
}

TEST_F(Folder, RemembersABoundedNumberOfLines) {
    folder.line(6, "first");
    folder.line(6, "first");
    for (std::size_t i = 1; i <= Control::LogFolder::capacity; ++i) folder.line(6, std::to_string(i));
    const Lines all = told();
    ASSERT_EQ(all.size(), Control::LogFolder::capacity + 2);
    EXPECT_EQ(all[all.size() - 2], "6 first (again 1 time)");
}

TEST(RecentLog, KeepsTheLastLines) {
    Control::RecentLog log;
    for (std::size_t i = 1; i <= Control::RecentLog::capacity + 2; ++i)
        log.add(1.5, "line " + std::to_string(i));
    EXPECT_EQ(log.line().size(), Control::RecentLog::capacity);
    EXPECT_EQ(log.line().get(3)->text(), "line 3");
    EXPECT_EQ(log.line().get(2), nullptr);
}

}  // namespace
