#include "Linux/queues/PortQueues.h"
#include "Linux/queues/QueuePlan.h"
#include "Runtime/Text.h"
#include "tests/linux/Golden.h"

#include <linux/if_ether.h>
#include <linux/rtnetlink.h>

using Linux::deleteFilter;
using Linux::deleteQdisc;
using Linux::newFilter;
using Linux::newQdisc;
using Linux::queueId;

namespace {

Linux::NetlinkMessage add(const Linux::Qdisc& qdisc) { return newQdisc(qdisc, Linux::requestAdd); }
Linux::NetlinkMessage add(const Linux::Filter& filter) { return newFilter(filter, Linux::requestAdd); }

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
        {"mqprio, 3 traffic classes", add(byPriority)},
        {"cbs add class A, software", add(credits(1, a))},
        {"cbs add class A, hardware", add(credits(1, a, true))},
        {"cbs add class B, software", add(credits(2, {20'000, -980'000, 41, -336}))},
        {"cbs replace class A", newQdisc(credits(1, {150'000, -850'000, 232, -291}), Linux::requestReplace)},
        {"htb root", add(Linux::Qdisc{p2, queueId(0x100), TC_H_ROOT, "htb", Linux::TokenBuckets{0x30}})},
        {"htb class del", Linux::deleteClass(p2, queueId(0x100, 0x20), queueId(0x100, 1))},
        {"clsact", add(clsact)},
        {"clsact del", deleteQdisc(clsact)},
        {"ingress: tag priority 3 to packet priority 3", add(priority3)},
        {"ingress: tag priority 3 to packet priority 3, cookie 6d73727064", add(marked)},
        {"ingress filter del", deleteFilter(priority3)},
    };
    for (const auto& [name, message] : cases) {
        EXPECT_EQ(golden::hex(message.bytes()), queues().requests(name).front()) << name;
        golden::cutAnywhere({message.bytes().begin(), message.bytes().end()},
                            [](const nlmsghdr& cut) { Linux::PortQueues{}.take(cut); });
    }
    // Ours names the kind as well, so that another's is not deleted: a longer message that begins alike.
    const auto ours = golden::hex(deleteQdisc(credits(1, {})).bytes());
    EXPECT_EQ(ours.substr(8, 64), queues().requests("cbs del class A").front().substr(8, 64));
}

TEST(TrafficControl, ClassesOfTokenBucketsAreUnderstoodWithAndWithoutTheTablesOfTheTool) {
    for (const auto& [name, rate, overhead] :
         {std::tuple{"htb class A", std::uint64_t{9'375'000}, 0},
          {"htb rate above 32 bits", 5'000'000'000, 0},
          {"htb class that counts 24 octets more a frame", 9'375'000, 24}}) {
        const auto tool = golden::bytes(queues().requests(name).front());
        const auto decoded = Linux::decodeClass(golden::header(tool));
        ASSERT_TRUE(decoded) << name;
        EXPECT_EQ(std::tuple(decoded->rate, decoded->ceiling, decoded->overhead),
                  std::tuple(rate, rate, overhead));
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
            golden::cutAnywhere(message, [](const nlmsghdr& cut) { Linux::PortQueues{}.take(cut); });
        }
    }
    return have;
}

TEST(PortQueues, AreReadFromTheDumpsAndNotificationsOfAllKernels) {
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

        have = {};
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

TEST(PortQueues, FollowEveryChangeAndKnowWhatGoesWithWhat) {
    Linux::PortQueues have;
    /// How it reads after these: the root, then the numbers of children, classes and filters.
    const auto after = [&](const std::vector<Linux::NetlinkMessage>& messages) {
        for (const auto& message : messages)
            have.take(*reinterpret_cast<const nlmsghdr*>(message.bytes().data()));
        return Runtime::concat(have.root ? have.root->kind : "none", ' ', have.children.size(), ' ',
                               have.classes.size(), ' ', have.filters.size());
    };
    const Linux::Qdisc root{p1, queueId(0x100), TC_H_ROOT, "htb", Linux::TokenBuckets{0x30}};
    const Linux::Qdisc leaf{p1, queueId(0x101), queueId(0x100, 0x10), "pfifo", Linux::FrameFifo{9}};
    const Linux::TokenBucketClass bucket{
        .ifindex = p1, .id = leaf.parent, .parent = queueId(0x100), .rate = 9};
    const Linux::Filter sorting{
        p1, 3, queueId(0x100), 1, ETH_P_ALL, "bpf", Linux::ClassProgram{{{6, 0, 0, 0}}}};
    const std::vector<Linux::NetlinkMessage> below{newClass(bucket, 0), add(leaf), add(sorting)};
    EXPECT_EQ(after({add(root), add(clsact), add(priority3), add(marked)}), "htb 0 0 1") << "one handle";
    EXPECT_EQ(have.filters.back(), marked);
    EXPECT_EQ(after(below), "htb 1 1 2") << "one handle, at another place";
    // Filters where ours would not be are not even looked at.
    for (const auto spoil : std::to_array<void (*)(Linux::Filter&)>(
             {[](auto& f) { f.preference = 7; }, [](auto& f) { f.protocol = ETH_P_ALL; },
              [](auto& f) { f.parent = Linux::egressFilters; },
              [](auto& f) { f.parent = queueId(0x100); }})) {
        Linux::Filter elsewhere = marked;
        elsewhere.handle = 9;
        spoil(elsewhere);
        EXPECT_EQ(after({add(elsewhere)}), "htb 1 1 2");
    }
    EXPECT_EQ(after({add(root)}), "htb 1 1 2") << "as it was";
    EXPECT_EQ(after({Linux::deleteClass(p1, bucket.id, bucket.parent)}), "htb 0 0 2")
        << "its queue goes, too";
    auto all = marked;
    all.handle = 0;
    after({deleteFilter(all)});
    EXPECT_EQ(have.filters, std::vector{sorting});
    for (const auto& message : queues().notifications("6.18 filters flushed"))
        have.take(golden::header(message));
    EXPECT_EQ(after({}), "htb 0 0 0");
    after({add(marked)});
    after(below);
    // With a root goes what is below it, whether or not its end was told, and when.
    auto another = root;
    another.handle = queueId(0x200);
    EXPECT_EQ(after({add(another)}), "htb 0 0 1");
    EXPECT_EQ(after({deleteQdisc(root)}), "htb 0 0 1");
    after(below);
    another.kind = "mqprio";
    another.options = byPriority.options;
    EXPECT_EQ(after({add(another)}), "mqprio 0 0 1");
    // Of a queue that was replaced, the end is told after the beginning of the new one.
    auto before = credits(1, {});
    before.handle = queueId(0x999);
    EXPECT_EQ(after({add(before), add(credits(1, {})), deleteQdisc(before)}), "mqprio 1 0 1");
    EXPECT_EQ(have.children, std::vector{credits(1, {})});
    EXPECT_EQ(after({deleteQdisc(clsact), deleteQdisc(another)}), "none 0 0 0");
}

}  // namespace
