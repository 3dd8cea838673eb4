#include "Linux/fence/FenceRules.h"

#include <gtest/gtest.h>

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

}  // namespace
