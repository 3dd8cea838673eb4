#include "Linux/queues/PortQueues.h"
#include "Linux/queues/QueuePlan.h"
#include "tests/linux/Golden.h"

#include <linux/if_ether.h>
#include <linux/rtnetlink.h>

using Linux::deleteFilter;
using Linux::deleteQdisc;
using Linux::newFilter;
using Linux::newQdisc;
using Linux::queueId;

namespace {

const golden::Recording& queues() {
    static const golden::Recording recording{"queues"};
    return recording;
}

constexpr unsigned p1 = 11;
constexpr unsigned p2 = 12;
const Linux::Qdisc byPriority{
    p1, queueId(0x100), TC_H_ROOT, "mqprio",
    Linux::PriorityQueues{{2, 2, 1, 0, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2}, {{1, 0}, {1, 1}, {2, 2}}, false}};
Linux::Qdisc credits(std::uint16_t queue, Linux::Credits credits, bool hardware = false) {
    return {p1, queueId(static_cast<std::uint16_t>(0x100 + queue)), queueId(0x100, queue), "cbs",
            Linux::CreditShaper{credits, hardware}};
}
const Linux::Qdisc clsact{p1, 0xFFFF0000, TC_H_CLSACT, "clsact", {}};
const Linux::Filter priority3{p1,          3,        Linux::ingressFilters,       33,
                              ETH_P_8021Q, "flower", Linux::TagPriorityRule{3, 3}};

const Linux::Filter marked{
    p1, 3, Linux::ingressFilters, 33, ETH_P_8021Q, "flower", Linux::TagPriorityRule{3, 3, true}};

TEST(TrafficControl, RequestsAreThoseOfTheStandardTool) {
    const Linux::Credits a{75'000, -925'000, 116, -317};
    const std::vector<std::pair<std::string, Linux::NetlinkMessage>> cases{
        {"mqprio, 3 traffic classes", newQdisc(byPriority, Linux::requestAdd)},
        {"cbs add class A, software", newQdisc(credits(1, a), Linux::requestAdd)},
        {"cbs add class A, hardware", newQdisc(credits(1, a, true), Linux::requestAdd)},
        {"cbs add class B, software", newQdisc(credits(2, {20'000, -980'000, 41, -336}), Linux::requestAdd)},
        {"cbs replace class A", newQdisc(credits(1, {150'000, -850'000, 232, -291}), Linux::requestReplace)},
        {"htb root",
         newQdisc({p2, queueId(0x100), TC_H_ROOT, "htb", Linux::TokenBuckets{0x30}}, Linux::requestAdd)},
        {"htb class del", Linux::deleteClass(p2, queueId(0x100, 0x20), queueId(0x100, 1))},
        {"clsact", newQdisc(clsact, Linux::requestAdd)},
        {"clsact del", deleteQdisc(clsact)},
        {"ingress: tag priority 3 to packet priority 3", newFilter(priority3, Linux::requestAdd)},
        {"ingress: tag priority 3 to packet priority 3, cookie 6d73727064",
         newFilter(marked, Linux::requestAdd)},
        {"ingress filter del", deleteFilter(priority3)},
    };
    for (const auto& [name, message] : cases)
        EXPECT_EQ(golden::hex(message.bytes()), queues().requests(name).front()) << name;
    // Ours names the kind as well, so that another's is not deleted: a longer message that begins alike.
    const auto ours = golden::hex(deleteQdisc(credits(1, {})).bytes());
    EXPECT_EQ(ours.substr(8, 64), queues().requests("cbs del class A").front().substr(8, 64));
}

TEST(TrafficControl, ClassesOfTokenBucketsAreUnderstoodWithAndWithoutTheTablesOfTheTool) {
    const auto request = [](const std::string& name) {
        return golden::bytes(queues().requests(name).front());
    };
    for (const auto& [name, rate, overhead] :
         {std::tuple{"htb class A", std::uint64_t{9'375'000}, 0},
          {"htb rate above 32 bits", 5'000'000'000, 0},
          {"htb class that counts 24 octets more a frame", 9'375'000, 24}}) {
        const auto tool = request(name);
        const auto decoded = Linux::decodeClass(golden::header(tool));
        ASSERT_TRUE(decoded) << name;
        EXPECT_EQ(decoded->rate, rate);
        EXPECT_EQ(decoded->ceiling, rate);
        EXPECT_EQ(decoded->overhead, overhead);
        const auto ours = Linux::newClass(*decoded, Linux::requestAdd);
        EXPECT_EQ(*Linux::decodeClass(*reinterpret_cast<const nlmsghdr*>(ours.bytes().data())), *decoded);
    }
    EXPECT_EQ(Linux::burstTicks(3200, 9'375'000), 0x14D5U) << "the tool: 0x14d0, in units of its own";
}

/// What the dumps tell of one device.
Linux::PortQueues dumped(unsigned ifindex, const std::vector<std::string>& names) {
    Linux::PortQueues have;
    for (const auto& name : names) {
        for (const auto& message : queues().dump(name)) {
            if (Linux::queueDevice(golden::header(message)) == ifindex) have.take(golden::header(message));
        }
    }
    return have;
}

TEST(PortQueues, AreReadFromTheDumpsOfAllKernels) {
    for (const std::string kernel : {"6.12 ", "6.1 "}) {
        const auto have = dumped(p1, {kernel + "qdisc dump of one device", kernel + "class dump of mqprio"});
        EXPECT_EQ(have.root, byPriority);
        EXPECT_EQ(have.children.size(), 2U);
        EXPECT_EQ(*have.child(queueId(0x100, 1)), credits(1, {150'000, -850'000, 232, -291}));
        EXPECT_EQ(Linux::shapedRates(have, 0x100), (Linux::ClassRates{150'000, 20'000}));
        EXPECT_TRUE(have.classes.empty() && have.filters.empty());
    }
    for (const std::string kernel : {"6.18 ", "6.12 ", "6.1 "}) {
        auto have = dumped(p2, {kernel + "htb class dump", kernel + "filter dump"});
        ASSERT_EQ(have.classes.size(), 6U);
        EXPECT_EQ(have.findClass(queueId(0x100, 1))->parent, queueId(0x100));
        EXPECT_EQ(have.findClass(queueId(0x100, 0x40))->rate, 5'000'000'000U);
        // The filter is the one that a plan asks for.
        have.root = Linux::Qdisc{p2, queueId(0x100), TC_H_ROOT, "htb", Linux::TokenBuckets{0x30}};
        std::erase_if(have.classes, [](const auto& c) { return c.id > queueId(0x100, 0x30); });
        for (const auto& step :
             Linux::planQueues({p2, 0x100, Linux::Shaper::htb, 1'000'000, {1, 1}, {}, 1}, have))
            EXPECT_EQ(step.difference.find("frames are"), std::string::npos) << step.difference;
    }
}

TEST(PortQueues, FollowNotifications) {
    for (const std::string kernel : {"6.18 ", "6.12 ", "6.1 "}) {
        Linux::PortQueues have;
        const auto take = [&](const std::string& name) {
            for (const auto& message : queues().notifications(kernel + name))
                have.take(golden::header(message));
        };
        take("qdisc added");
        EXPECT_EQ(have.root, (Linux::Qdisc{13, queueId(0x100), TC_H_ROOT, "htb", Linux::TokenBuckets{0x30}}));
        take("class added");
        EXPECT_EQ(have.classes.front().rate, 9'375'000U);
        take("qdisc deleted");
        EXPECT_EQ(have, Linux::PortQueues{});
    }
}

TEST(PortQueues, KnowTheirOwnFiltersAndThatAFlushTakesThem) {
    const Linux::Filter sorting{
        p1, 1, queueId(0x100), 1, ETH_P_ALL, "bpf", Linux::ClassProgram{{{6, 0, 0, 0}}}};
    auto elsewhere = priority3;
    elsewhere.preference = 7;
    Linux::PortQueues have;
    for (const Linux::Filter& filter : {priority3, marked, sorting, elsewhere}) {
        const auto request = newFilter(filter, Linux::requestAdd);
        have.take(*reinterpret_cast<const nlmsghdr*>(request.bytes().data()));
        if (filter == elsewhere) continue;
        EXPECT_EQ(have.filters.back(), filter);
    }
    EXPECT_EQ(have.filters.size(), 2U) << "two have one handle, and one is at another's place";
    for (const auto& message : queues().notifications("6.18 filters flushed"))
        have.take(golden::header(message));
    EXPECT_TRUE(have.filters.empty());
    // Of a queue that was replaced, the end is told after the beginning of the new one.
    auto before = credits(1, {});
    before.handle = queueId(0x999);
    for (const auto& request : {newQdisc(before, Linux::requestAdd),
                                newQdisc(credits(1, {}), Linux::requestAdd), deleteQdisc(before)})
        have.take(*reinterpret_cast<const nlmsghdr*>(request.bytes().data()));
    EXPECT_EQ(have.children, std::vector{credits(1, {})});
}

TEST(PortQueues, SurviveMessagesThatAreCutAnywhere) {
    for (const char* name : {"6.12 qdisc dump of one device", "6.12 htb class dump", "6.18 filter dump"}) {
        for (const auto& message : queues().dump(name)) {
            golden::cutAnywhere(message, [](const nlmsghdr& cut) { Linux::PortQueues{}.take(cut); });
        }
    }
    const auto request = newFilter(marked, Linux::requestAdd);
    golden::cutAnywhere({request.bytes().begin(), request.bytes().end()},
                        [](const nlmsghdr& cut) { Linux::PortQueues{}.take(cut); });
}

}  // namespace
