#include "Mrp/PduWriter.h"
#include "tests/Octets.h"
#include "tests/mrp/Engines.h"
#include "tests/mrp/Golden.h"

#include <gtest/gtest.h>

using namespace MrpTest;

namespace {

TEST(Codec, GoldenPdusAreReadAndWritten) {
    for (const auto& golden : goldenPdus) {
        const auto pdu = octets(golden.octets);
        EXPECT_EQ(text(pdu), golden.says) << golden.name;
        if (!golden.canonical) continue;
        Mrp::DecodedPdu decoded;
        Mrp::decode(pdu, Msrp::application(), decoded);
        Mrp::PduWriter writer{Msrp::application(), decoded.leaveAll.any()};
        for (const auto& e : decoded.events) EXPECT_TRUE(writer.add(e.typeIndex, e.event, e.value));
        EXPECT_TRUE(std::ranges::equal(writer.finish(), pdu)) << golden.name;
    }
}

TEST(Codec, MalformedPartsAreLeftOutAndTheRestIsKept) {
    struct Case {
        const char* what;
        const char* octets;
        const char* says;
    };
    const std::string good = "04040009000106030002240000";  // JoinIn of domain 6
    const Case cases[] = {
        {"nothing", "", "tooShort@0"},
        {"shorter than a header", "00040400", "tooShort@4"},
        {"end mark only", "0000000000", ""},
        {"header cut off", "00GOOD0404", "JoinIn 4/6; listPastEnd@14"},
        {"list runs past the end", "00GOOD04040010000106", "JoinIn 4/6; listPastEnd@14"},
        {"unknown type runs past the end", "004d030020000106", "listPastEnd@1"},
        {"unknown type of any length", "004dff0003aabbccGOOD0000", "JoinIn 4/6"},
        {"wrong AttributeLength", "000405000a00010603000200240000GOOD0000", "JoinIn 4/6; wrongLength@2"},
        {"vector too long", "0004040009100006030002240000GOOD0000", "JoinIn 4/6; vectorPastEnd@5"},
        // Half of the EndMark would be read as events.
        {"4 values, events of 1", "0004040009000406030002240000GOOD0000", "JoinIn 4/6; vectorPastEnd@5"},
        {"5 values, events of 1", "0004040009200506030002240000GOOD0000", "JoinIn 4/6; vectorPastEnd@5"},
        {"the same of a FourPacked type", "000308000e0004000000000000000524800000GOOD",
         "JoinIn 4/6; vectorPastEnd@5"},
        {"good vector before it", "0004040012000105020002240010060300022400000000GOOD0000",
         "JoinIn 4/5; JoinIn 4/6; vectorPastEnd@12"},
        {"FourPacked missing", "000308000b0001000000000000000524GOOD", "JoinIn 4/6; vectorPastEnd@5"},
        {"event above 215", "000404000a0004010300022ad80000GOOD",
         "JoinIn 4/1; JoinIn 4/2; New 4/3; JoinIn 4/6; eventPastRange@12"},
        {"LeaveAll goes with its vector", "0004040009300006030002240000", "vectorPastEnd@5"},
        {"unknown LeaveAllEvent", "0004040009400106030002240000", "JoinIn 4/6"},
        {"LeaveAll without FirstValue", "000404000420000000GOOD", "LeaveAll 4; JoinIn 4/6"},
        {"LeaveAll with FirstValue and a vector", "000404000f200000000000000106030002240000",
         "LeaveAll 4; JoinIn 4/6"},
        {"octets behind the list's end", "000404000b000106030002240000ffffGOOD",
         "JoinIn 4/6; JoinIn 4/6; listLengthMismatch@14"},
        {"list without end", "000404000700010603000224GOOD", "JoinIn 4/6; JoinIn 4/6; listLengthMismatch@12"},
        {"list without end at the end", "000404000700010603000224", "JoinIn 4/6"},
        {"values past 255", "00040400090003fe0300022b0000", "JoinIn 4/254; JoinIn 4/255; valuePastRange@11"},
        {"id wraps within its 16 bits", "000308000e0002000000000000ffff2aa00000",
         "JoinIn 3/65535=2; JoinIn 3/0=2"},
    };
    for (const auto& c : cases) {
        std::string input = c.octets;
        if (const auto at = input.find("GOOD"); at != std::string::npos) input.replace(at, 4, good);
        EXPECT_EQ(text(octets(input)), c.says) << c.what;
    }
}

}  // namespace
