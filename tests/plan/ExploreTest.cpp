/// That what goes wrong is found, told, cut down to what it needs, and found again.
#include "Plan/explore/Oracle.h"
#include "Plan/explore/Small.h"
#include "Plan/explore/Walk.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace Plan {
namespace {

std::string after(const char* network, const std::string& text) {
    const auto drawn = networkNamed(network);
    std::string problem;
    const auto story = parseStory(*drawn, text, problem);
    return story ? storyText(*drawn, *story) + '\n' + judge(*drawn, *story) : problem;
}

TEST(Story, IsReadDoneAndJudged) {
    EXPECT_EQ(after("ring-3",
                    "hush s1\n listen s2 at b3;leave s1 at b1; cut sw3--sw2; mend sw2--sw3;; restart "
                    "sw1; takeover sw2; leaveall sw3; lose 2 sw1>sw2; late 1 a1>sw1; loss 5%; wait "
                    "1s; loss 0%; settle; stay"),
              "hush s1; listen s2 at b3; leave s1 at b1; cut sw2--sw3; mend sw2--sw3; restart sw1; takeover "
              "sw2; leaveall sw3; lose 2 sw1>sw2; late 1 a1>sw1; loss 5%; wait 1000ms; loss 0%; settle; "
              "stay\n");
    for (const auto& [text, problem] : std::initializer_list<std::pair<const char*, const char*>>{
             {"dance", "no act is called \"dance\""},
             {"cut sw1--sw3", "nothing here is called so"},
             {"listen s1 at a1", "nothing here is called so"},
             {"restart a1", "nothing here is called so"},
             {"lose 0 sw1>sw2", "nothing here is called so"},
             {"loss 101%", "nothing here is called so"},
             {"settle; talk s1 s2", "there is more than belongs to it"}}) {
        const std::string told = after("line-2", text);
        EXPECT_TRUE(told.ends_with(problem) && told.starts_with("story: ")) << told;
    }
}

TEST(Oracle, NamesWhatDiffersBeforeItHasSettled) {
    const auto network = networkNamed("line-2");
    World world{*network, {}};
    ASSERT_EQ(settle(world, std::chrono::seconds{5}), "");
    ASSERT_EQ(perform(world, {.kind = Act::Kind::hush, .what = 0}), "");
    EXPECT_EQ(faultsOf(world), R"(a1 to sw1: "Advertise 0x200000100010001" is there and not declared
a1 to sw1: 1 talkers of s1 are registered where 0 should be
sw1 to a1: 1 listeners of s1 are registered where 0 should be
sw1 to b1: 1 talkers of s1 are registered where 0 should be
sw2 to a2: 1 talkers of s1 are registered where 0 should be
sw2 to b2: 1 talkers of s1 are registered where 0 should be
sw1 to sw2: 1 talkers of s1 are registered where 0 should be
sw2 to sw1: 1 listeners of s1 are registered where 0 should be
)");
}

TEST(Explore, FindsNothingAndCountsTheSameInAnyNumberOfProcesses) {
    const auto network = networkNamed("line-1");
    std::string texts[2];
    for (unsigned copies : {1U, 2U})
        texts[copies - 1] =
            exploredText(*network, explore(*network, {.depth = 1, .burst = 1, .copies = copies}));
    EXPECT_EQ(texts[0], texts[1]);
    EXPECT_EQ(texts[0],
              "220 bursts tried, 15 different rests, 207 led to one that was known, 220 orders decided\n");
}

/// A fault that takes two acts, of all that may happen.
std::string planted(const World& world) {
    return !world.carries(0) && !world.talks(1) && world.listens(0, 2) ? "planted\n" : "";
}

TEST(Explore, CutsAStoryDownToWhatItNeeds) {
    const auto network = networkNamed("line-1");
    const Explored found = explore(*network, {.depth = 2, .burst = 2, .mishaps = 0, .copies = 1}, planted);
    EXPECT_EQ(storyText(*network, found.story), "hush s2; cut a1--sw1; settle 5000ms");
    EXPECT_EQ(found.fault, "planted\n");
    EXPECT_EQ(judge(*network, found.story, planted), "planted\n");
    const Explored ended = explore(*network, {.depth = 1, .burst = 1, .copies = 1}, [](const World& world) {
        if (!world.talks(0) && world.talks(1)) std::abort();
        return std::string{};
    });
    EXPECT_EQ(storyText(*network, ended.story) + '\n' + ended.fault,
              "hush s1; settle\nthe process ended by signal 6");
}

TEST(Walk, IsDecidedByItsSeedAndCutDown) {
    const Wrong wrong = [](const World& world) { return world.carries(0) ? "" : std::string{"cut\n"}; };
    const WalkOptions options{.steps = 1000, .seed = 3};
    const Walked one = walk(options, wrong);
    EXPECT_EQ(one.fault, "cut\n");
    EXPECT_EQ(one.story.size(), 2U) << walkedText(options, one);
    EXPECT_EQ(judge(*networkNamed(one.network), one.story, wrong), "cut\n");
}

}  // namespace
}  // namespace Plan
