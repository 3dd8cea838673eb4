#include "Mrp/OrderedChunks.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

namespace {

/// Grows and shrinks again, beside a map that does the same: with keys near each other and far apart, in
/// order from below and from above, and in none.
TEST(OrderedChunks, AreAMap) {
    std::mt19937_64 random{1};
    Mrp::OrderedChunks<std::uint64_t> chunks;
    std::map<std::uint64_t, std::uint64_t*> map;  // where each value lies
    std::uint64_t key = 0;
    for (unsigned round = 0; round < 60'000; ++round) {
        const bool grows = round / 10'000 % 2 == 0;
        switch (round / 500 % 4) {
            case 0:
                key = random() % 4096;
                break;
            case 1:
                key = random();
                break;
            default:
                key += round / 500 % 4 == 2 ? 1U : ~0ULL;
        }
        if (random() % 8 < (grows ? 6U : 1U)) {
            const auto [value, fresh] = chunks.tryEmplace(key);
            if (fresh) value = key;
            EXPECT_EQ(fresh, map.emplace(key, &value).second);
        } else {
            const auto victim = map.lower_bound(key);
            const std::uint64_t gone = victim == map.end() || grows ? key : victim->first;
            chunks.erase(gone);
            map.erase(gone);
        }
        const auto known = map.find(key);
        ASSERT_EQ(chunks.find(key), known == map.end() ? nullptr : known->second);
        ASSERT_EQ(chunks.size(), map.size());
        if (round % 97 != 0) continue;
        auto at = map.lower_bound(key);
        for (auto walk = chunks.lowerBound(key); walk != chunks.end(); ++walk, ++at) {
            ASSERT_NE(at, map.end());
            ASSERT_EQ(&(*walk).value, at->second);
            ASSERT_EQ((*walk).key, at->first);
            ASSERT_EQ((*walk).value, at->first);
        }
        ASSERT_EQ(at, map.end());
    }
}

}  // namespace
