#include "Runtime/Agent.h"
#include "Runtime/ReviewTimer.h"
#include "Runtime/VirtualLoop.h"
#include "State/Record.h"
#include "tests/control/TemporaryDirectory.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>
#include <vector>

namespace Runtime {
namespace {

using namespace std::chrono_literals;

struct Thing : State::Record<Thing> {
    static constexpr std::string_view type = "Thing";
    template <class F>
    static void fields(F&&) {}
};

TEST(VirtualLoop, KeepsTheOrderOfTimeOfArmingAndOfTasks) {
    VirtualLoop loop;
    std::string order;
    Timer a{loop, [&] { order += 'a'; }};
    Timer b{loop, [&] {
                order += 'b';
                loop.post([&] { order += 't'; });
            }};
    Timer c{loop, [&] { order += 'c'; }};
    int fired = 0;
    Timer again{loop, [&] {  // rearms itself for now, and does not stop time
                    if (++fired < 100) again.armIn(0ms);
                }};
    again.armIn(0ms);
    c.armIn(2ms);
    b.armIn(1ms);
    a.armIn(1ms);
    a.armIn(1ms);  // moved behind b
    loop.post([&] { order += 'p'; });
    loop.runFor(1ms);
    EXPECT_EQ(order, "pbta");
    EXPECT_EQ(fired, 100);
    c.cancel();
    loop.runFor(10ms);
    EXPECT_EQ(order, "pbta");
    EXPECT_FALSE(loop.runUntil([] { return false; }, 5ms));
}

TEST(ReviewTimer, BoundsTheRateAndHonoursAnExplicitTime) {
    VirtualLoop loop;
    const Time start = loop.now();
    std::vector<double> reviews;
    std::unique_ptr<ReviewTimer> timer;
    auto notifiee = std::make_shared<ClockNotifiee>(loop, [&] {
        reviews.push_back(seconds(loop.now()) - seconds(start));
        timer->lastReviewIs(seconds(loop.now()));
        if (reviews.size() < 6) timer->doUpdateNextReview();
    });
    timer = std::make_unique<ReviewTimer>(notifiee, 1.0, 4, 0.1, 0.1);
    timer->doUpdateNextReview();
    EXPECT_TRUE(timer->reviewPending());
    loop.runFor(5s);
    ASSERT_EQ(reviews.size(), 6U);
    EXPECT_NEAR(reviews[0], 0.1, 1e-6);
    EXPECT_NEAR(reviews[3], 0.4, 1e-6);
    EXPECT_NEAR(reviews[4], 1.1, 1e-6) << "four in a second are enough";
    notifiee->timeMinIs(seconds(start) + 9.0);
    loop.runFor(5s);
    EXPECT_NEAR(reviews.back(), 9.0, 1e-6);
}

struct RingFiles : testing::Test {
    [[nodiscard]] std::string file(const std::string& name) const { return directory.file(name); }
    /// As a process of that number leaves it, the lines of which are all of that label.
    void leave(const std::string& name, const std::string& label) const {
        RingLog log;
        ASSERT_EQ(log.initialise(file(name), 24, 0, 1, 1), "");
        log.write(Time{}, label);
    }
    [[nodiscard]] std::string label(const std::string& name) const {
        const auto records = RingLog::read(file(name));
        return records && !records->empty() ? records->front().label : "none";
    }
    const std::string number = std::to_string(::getpid());
    const TemporaryDirectory directory;
};

TEST_F(RingFiles, KeepTheLastRecordsAndTellTheirTimesByBothClocks) {
    {
        RingLog log;
        log.write(Time{}, "dropped before it is open");
        log.clocksAre(Time{10s}, WallTime{1'000'000s});
        ASSERT_EQ(log.initialise(file("Msrp.rl"), 24, 0, 1, 1), "");  // 15 slots
        for (std::uint64_t i = 1; i <= 40; ++i)
            log.write(Time{std::chrono::seconds{i}}, "a label of more than 24 octets", i, i * 2);
    }
    const auto records = RingLog::read(file("Msrp.rl"));
    ASSERT_EQ(records ? records->size() : 0, 15U);
    EXPECT_EQ(records->front().arguments[0], 26U);
    EXPECT_EQ(records->back().arguments[1], 80U);
    EXPECT_EQ(records->back().label, "a label of more than 24 ");
    EXPECT_EQ(records->back().wallTime, WallTime{1'000'030s});
    EXPECT_NE(RingLog{}.initialise("/nonexistent/x.rl", 24, 0, 1, 512), "");
}

TEST_F(RingFiles, OfTheLastProcessAreKeptAndOlderOnesGoAndWhatIsNotOursStays) {
    for (const char* life : {"first", "second", "third"}) leave("Msrp.rl", life);
    EXPECT_EQ(label("Msrp.rl") + ' ' + label("Msrp-last.rl"), "third second");

    RingLog alive;
    ASSERT_EQ(alive.initialise(file("Msrp-1.rl"), 24, 0, 1, 1), "");
    alive.write(Time{}, "alive");
    EXPECT_NE(RingLog{}.initialise(file("Msrp-1.rl"), 24, 0, 1, 1).find("still runs"), std::string::npos);
    auto written = std::filesystem::file_time_type::clock::now() - 1h;
    for (const char* process : {"Msrp-2.rl", "Msrp-4-last.rl", "Msrp-3.rl"}) {
        leave(process, process);
        std::filesystem::last_write_time(file(process), written -= 1h);
    }
    std::filesystem::last_write_time(file("Msrp-4-last.rl"), written + 3h);
    std::ofstream{file("Msrp-5.rl")} << "precious";
    std::filesystem::create_symlink(file("Msrp-5.rl"), file("Msrp-6.rl"));
    RingLog log;
    ASSERT_EQ(log.initialise(file("Msrp-" + number + ".rl"), 24, 0, 1, 1), "");
    log.write(Time{}, "before");
    EXPECT_EQ(log.reopen(), "");
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator{file("")})
        left.insert(entry.path().filename());
    EXPECT_EQ(left,
              (std::set<std::string>{"Msrp.rl", "Msrp-last.rl", "Msrp-1.rl", "Msrp-4-last.rl", "Msrp-5.rl",
                                     "Msrp-6.rl", "Msrp-" + number + ".rl", "Msrp-" + number + "-last.rl"}));
    EXPECT_EQ(label("Msrp-" + number + "-last.rl"), "before");

    RingLog refused;
    for (const char* other : {"Msrp-5.rl", "Msrp-6.rl"})
        EXPECT_NE(refused.initialise(file(other), 24, 0, 1, 1).find("is in the way"), std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(file("Msrp-5.rl")), 8U);
    std::filesystem::permissions(file(""), std::filesystem::perms::all);
    EXPECT_NE(refused.initialise(file("x.rl"), 24, 0, 1, 1).find("anybody"), std::string::npos);
}

TEST(SystemLog, FillsFormatsFromTheLeftAndMakesNoTextThatNobodyWillRead) {
    struct Port {
        [[nodiscard]] std::string text() const { return ++made, "p1"; }
        int& made;
    };
    constexpr LogEvent event{
        .name = "X", .severity = 6, .format = "%s", .explanation = {}, .recommendedAction = {}};
    SystemLog log;
    int made = 0;
    const Port port{made};
    bool open = true;
    std::string told;
    log.sinkIs([&](const LogEvent&, std::string_view, const std::string& text) { told += text; },
               [&](const LogEvent&, std::string_view) { return open; });
    log.log(event, format("%s is up", port));
    open = false;
    log.log(event, format("%s is up", port));
    EXPECT_EQ(told + std::to_string(made), "p1 is up1");
    EXPECT_EQ(format("%s on %s: 0x%s, %llu %d 100 % %s", "Join", "p1", "AB", std::uint64_t{7}, 3).text(),
              "Join on p1: 0xAB, 7 3 100 % %s");
}

TEST(EntityManager, MountsByPathTypeAndMode) {
    State::Database database;
    std::string failure;
    EntityManager reading{database};
    reading.mountIs("a", "Thing", "r");
    EXPECT_EQ(reading.doMounts(failure), MountStatus::failed);
    EXPECT_EQ(failure, "mount of a as Thing (r) failed: no such record");
    database.typeIs<Thing>();
    EntityManager creating{database};
    creating.mountIs("a", "Thing", "wc");
    EXPECT_EQ(creating.doMounts(failure), MountStatus::success);
    EXPECT_EQ(database.entityIs("a", "Another"), nullptr);
    EXPECT_EQ(reading.doMounts(failure), MountStatus::success);
    EXPECT_NE(creating.writer<Thing>("a"), nullptr);
    EXPECT_EQ(reading.writer<Thing>("a"), nullptr) << "mounted for reading";
    EXPECT_NE(reading.reader<Thing>("a"), nullptr);
}

}  // namespace
}  // namespace Runtime
