#include "Runtime/Agent.h"
#include "Runtime/ReviewTimer.h"
#include "Runtime/VirtualLoop.h"
#include "State/Record.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace Runtime {
namespace {

using namespace std::chrono_literals;

class Thing : public State::Record<Thing> {
public:
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

TEST(RingLog, KeepsTheLastRecordsInItsFile) {
    const std::string path = testing::TempDir() + "ring-" + std::to_string(::getpid()) + ".rl";
    {
        RingLog log;
        log.write(Time{}, "dropped before it is open");
        ASSERT_EQ(log.initialise(path, 24, 0, 1, 1), "");  // 15 slots
        for (std::uint64_t i = 1; i <= 40; ++i)
            log.write(Time{std::chrono::seconds{i}}, "a label of more than 24 octets", i, i * 2);
    }
    const auto records = RingLog::read(path);
    ASSERT_TRUE(records.has_value());
    ASSERT_EQ(records->size(), 15U);
    EXPECT_EQ(records->front().arguments[0], 26U);
    EXPECT_EQ(records->back().arguments[1], 80U);
    EXPECT_EQ(records->back().label, "a label of more than 24 ");
    std::filesystem::remove(path);
    EXPECT_FALSE(RingLog::read(path).has_value());
    EXPECT_NE(RingLog{}.initialise("/nonexistent/x.rl", 24, 0, 1, 512), "");
}

TEST(SystemLog, FillsFormatsFromTheLeft) {
    EXPECT_EQ(
        format("%s on %s: 0x%s, %llu %d 100 % %s", "Join", std::string{"p1"}, "AB", std::uint64_t{7}, 3),
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
    EXPECT_EQ(reading.doMounts(failure), MountStatus::success);
    EXPECT_NE(creating.writer<Thing>("a"), nullptr);
    EXPECT_EQ(reading.writer<Thing>("a"), nullptr) << "mounted for reading";
    EXPECT_NE(reading.reader<Thing>("a"), nullptr);
}

}  // namespace
}  // namespace Runtime
