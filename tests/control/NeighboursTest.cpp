#include "programs/Neighbours.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

TEST(Neighbours, OfAProgramThatIsAbsentFailsHangsOrDoesNotStopNothingIsTaken) {
    const auto output = [](const std::string& script) { return outputOf({"sh", "-c", script}, 300ms, 10); };
    EXPECT_EQ(output("printf 1234567890"), "1234567890");
    for (const char* bad : {"echo 12345678901", "echo 1; exit 3", "sleep 9", "exec >&-; sleep 9", "yes"})
        EXPECT_EQ(output(bad), std::nullopt) << bad;
    EXPECT_EQ(outputOf({"no-such-program-here"}, 300ms, 10), std::nullopt);
}

}  // namespace
