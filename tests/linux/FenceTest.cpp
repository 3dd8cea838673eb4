#include "Linux/fence/FencePlan.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

namespace {

using Linux::FenceRules;

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

TEST(FencePlan, ReplacesAnotherProgramOfTheSameRulesAndKnowsThatAllGoesWithItsPlace) {
    const auto header = [](const Linux::NetlinkMessage& message) {
        return reinterpret_cast<const nlmsghdr*>(message.bytes().data());
    };
    const auto filter = [](std::uint32_t id) { return Linux::fenceFilter(7, {FenceRules{}.name(), id, 5}); };
    const Linux::Qdisc clsact{7, TC_H_MAJ(TC_H_CLSACT), TC_H_CLSACT, "clsact", {}};
    Linux::FencePlace place{clsact, {filter(1)}};
    const auto steps = Linux::planFence(7, filter(2), place);
    ASSERT_EQ(steps.size(), 1U);
    EXPECT_NE(header(steps.front().request)->nlmsg_flags & NLM_F_REPLACE, 0);
    place.take(*header(Linux::deleteQdisc(clsact)));
    EXPECT_EQ(place, Linux::FencePlace{});
}

}  // namespace
