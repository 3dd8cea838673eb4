#include "Linux/fence/FencePlan.h"
#include "Linux/fence/FenceProgram.h"
#include "Runtime/Text.h"

#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/rtnetlink.h>

using Linux::FenceRules;

namespace {

constexpr unsigned fencedPort = 7;

Linux::Filter fence(const FenceRules& rules) {
    return Linux::fenceFilter(fencedPort, {rules.name(), 100U + rules.closed, 5});
}

/// "add qdisc, replace filter"
std::string steps(const std::optional<FenceRules>& wanted, const Linux::FencePlace& have) {
    std::string text;
    for (const auto& step :
         Linux::planFence(fencedPort, wanted ? std::optional{fence(*wanted)} : std::nullopt, have)) {
        const auto& header = *reinterpret_cast<const nlmsghdr*>(step.request.bytes().data());
        const bool deletes = header.nlmsg_type == RTM_DELTFILTER || header.nlmsg_type == RTM_DELQDISC;
        const bool qdisc = header.nlmsg_type == RTM_NEWQDISC || header.nlmsg_type == RTM_DELQDISC;
        text += Runtime::concat(text.empty() ? "" : ", ",
                                deletes                                     ? "delete"
                                : (header.nlmsg_flags & NLM_F_REPLACE) != 0 ? "replace"
                                                                            : "add",
                                qdisc ? " qdisc" : " filter");
    }
    return text;
}

TEST(FencePlan, ChangesOurFilterInPlaceAndTouchesNoOther) {
    const FenceRules both{.closed = 0x0C};
    Linux::FencePlace nothing;
    Linux::FencePlace others;
    others.ingress = Linux::Qdisc{fencedPort, TC_H_MAJ(TC_H_CLSACT), TC_H_CLSACT, "clsact", {}};
    Linux::Filter foreign = fence(both);
    std::get<Linux::FrameProgram>(foreign.options).name = "theirs";
    others.filters = {foreign};
    Linux::FencePlace ours = others;
    ours.filters = {fence(both)};
    Linux::FencePlace older = ours;
    std::get<Linux::FrameProgram>(older.filters.front().options).id = 9;

    EXPECT_EQ(steps(both, nothing), "add qdisc, add filter");
    EXPECT_EQ(steps(both, others), "add filter");
    EXPECT_EQ(steps(both, ours), "");
    EXPECT_EQ(steps(FenceRules{.closed = 4}, ours), "replace filter");
    EXPECT_EQ(steps(both, older), "replace filter") << "same rules, another program";
    EXPECT_EQ(steps({}, ours), "delete filter");
    EXPECT_EQ(steps({}, others) + steps({}, nothing), "");
    EXPECT_EQ(Linux::fenceOf(others), std::nullopt);
    EXPECT_EQ(Linux::fenceOf(older), both);
}

TEST(FenceRules, AreToldByTheNameOfTheirFilter) {
    for (const FenceRules& rules : {FenceRules{},
                                    {.closed = 0x0C},
                                    {0x80, 0x05, true},
                                    {0xFF, 0xFF, false},
                                    {.closed = 8, .mvrp = true},
                                    {.guarded = true, .mvrp = true}})
        EXPECT_EQ(FenceRules::parse(rules.name()), rules) << rules.name();
    EXPECT_EQ((FenceRules{.closed = 0x0C, .streams = 0x81, .guarded = true}.name()),
              "msrpd-fence:23:07:guarded");
    for (const char* name : {"", "msrpd", "msrpd-fence:", "msrpd-fence:23",
                             "msrpd-fence:8::", "fence:23::", "msrpd-fence:23::other"})
        EXPECT_EQ(FenceRules::parse(name), std::nullopt) << name;
}

TEST(FencePlace, FollowsTheNewsOfItsOwnFilterAlone) {
    Linux::FencePlace place;
    const auto take = [&](const Linux::NetlinkMessage& message) {
        place.take(*reinterpret_cast<const nlmsghdr*>(message.bytes().data()));
    };
    const Linux::Qdisc clsact{fencedPort, TC_H_MAJ(TC_H_CLSACT), TC_H_CLSACT, "clsact", {}};
    take(Linux::newQdisc(clsact, 0));
    EXPECT_TRUE(place.ingress);
    Linux::Filter elsewhere = fence({});
    elsewhere.preference = 33;
    take(Linux::newFilter(elsewhere, 0));
    EXPECT_TRUE(place.filters.empty());
    take(Linux::newFilter(fence({}), 0));
    EXPECT_EQ(place.filters.size(), 1U);
    Linux::Filter all = fence({});
    all.handle = 0;
    take(Linux::deleteFilter(all));
    EXPECT_TRUE(place.filters.empty());
    take(Linux::newFilter(fence({}), 0));
    take(Linux::deleteQdisc(clsact));
    EXPECT_EQ(place, Linux::FencePlace{}) << "what was in it is gone with it";
}

}  // namespace
