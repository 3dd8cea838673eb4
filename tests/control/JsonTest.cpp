#include "Control/Json.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace {

using Control::parseJson;
using State::Object;
using State::Value;

std::string problem(std::string_view text) {
    const auto result = parseJson(text);
    if (!result.problem) return "";
    return std::to_string(result.problem->line) + ':' + std::to_string(result.problem->column) + ": " +
           result.problem->what;
}

TEST(Json, EveryKindOfValueComesBackAsItWas) {
    const Value value{Object{{"none", {}},
                             {"yes", true},
                             {"largest", std::numeric_limits<std::uint64_t>::max()},
                             {"below zero", std::numeric_limits<std::int64_t>::min()},
                             {"tenth", 0.1},
                             {"whole double", 1.0},
                             {"tiny", std::numeric_limits<double>::denorm_min()},
                             {"text", "tab\t quote\" slash/ umlaut \xc3\xbc"},
                             {"inner", Object{{"empty", Object{}}}}}};
    for (const std::string& text : {Control::jsonText(value), Control::jsonLines(value)}) {
        const auto back = parseJson(text);
        ASSERT_FALSE(back.problem) << back.problem->what;
        EXPECT_EQ(back.value, value) << text;
    }
}

TEST(Json, MembersKeepTheirOrder) {
    const Value value{Object{{"swp2", true}, {"swp10", false}}};
    EXPECT_EQ(Control::jsonLines(value), "{\n  \"swp2\": true,\n  \"swp10\": false\n}");
    EXPECT_EQ(Control::jsonLines(Value{Object{}}), "{}");
    EXPECT_EQ(Control::jsonText(Value{"a\xff z"}), "\"a\xef\xbf\xbd z\"") << "octets that are no text";
}

TEST(Json, ProblemsHaveTheirPlace) {
    EXPECT_EQ(problem("{\n  \"a\": [1]}"), "2:8: arrays are not used here");
    EXPECT_EQ(problem("{\"a\": 1").substr(0, 5), "1:7: ");
    EXPECT_EQ(problem("{} {}").substr(0, 5), "1:4: ");
    EXPECT_EQ(problem("1e999"), "1:5: number overflow parsing '1e999'");
    EXPECT_EQ(problem("").substr(0, 5), "1:1: ");
    EXPECT_NE(problem("{} // note"), "");
    std::string deep;
    for (int i = 0; i < 100'000; ++i) deep += "{\"a\":";
    EXPECT_EQ(problem(deep), "1:321: objects are nested too deeply");
}

}  // namespace
