#include "tests/mrp/Engines.h"
#include "tests/mrp/Golden.h"

#include <gtest/gtest.h>
#include <iostream>

using namespace MrpTest;

TEST(Codec, GoldenPdusAreReadAndWritten) {
    for (const auto& golden : goldenPdus) {
        const auto pdu = octets(golden.octets);
        EXPECT_EQ(text(pdu), golden.says) << golden.name;
        if (!golden.canonical) continue;
        Mrp::DecodedPdu decoded;
        Mrp::decode(pdu, msrp, decoded);
        Mrp::PduWriter writer{msrp, decoded.leaveAll.any()};
        for (const auto& e : decoded.events) EXPECT_TRUE(writer.add(e.typeIndex, e.event, e.value));
        EXPECT_EQ(hex(writer.finish()), golden.octets) << golden.name;
    }
}

TEST(Codec, MalformedPartsAreLeftOutAndTheRestIsKept) {
    struct Case {
        const char* what;
        const char* octets;
        const char* says;
    };
    const std::string good =
        "0404000900010603000224"
        "0000";  // JoinIn of domain 6
    const Case cases[] = {
        {"nothing", "", "tooShort@0"},
        {"shorter than a header", "00040400", "tooShort@4"},
        {"end mark only", "0000000000", ""},
        {"header cut off", "00GOOD0404", "JoinIn 4/6; listPastEnd@14"},
        {"list runs past the end", "00GOOD04040010000106", "JoinIn 4/6; listPastEnd@14"},
        {"unknown type runs past the end", "004d030020000106", "listPastEnd@1"},
        {"unknown type of any length", "004dff0003aabbccGOOD0000", "JoinIn 4/6"},
        {"wrong AttributeLength",
         "000405000a000106030002002400"
         "00GOOD0000",
         "JoinIn 4/6; wrongLength@2"},
        {"vector too long",
         "0004040009"
         "100006030002240000"
         "GOOD0000",
         "JoinIn 4/6; vectorPastEnd@5"},
        {"good vector before it",
         "00040400120001050200022400"
         "10060300022400000000GOOD0000",
         "JoinIn 4/5; JoinIn 4/6; vectorPastEnd@12"},
        {"FourPacked missing",
         "000308000b0001000000000000000524"
         "GOOD",
         "JoinIn 4/6; vectorPastEnd@5"},
        {"event above 215", "000404000a0004010300022ad80000GOOD",
         "JoinIn 4/1; JoinIn 4/2; New 4/3; JoinIn 4/6; eventPastRange@12"},
        {"LeaveAll goes with its vector", "0004040009300006030002240000", "vectorPastEnd@5"},
        {"unknown LeaveAllEvent", "0004040009400106030002240000", "JoinIn 4/6"},
        {"LeaveAll without FirstValue",
         "00040400042000"
         "0000GOOD",
         "LeaveAll 4; JoinIn 4/6"},
        {"LeaveAll with FirstValue and a vector",
         "000404000f20000000000000010603000224"
         "0000",
         "LeaveAll 4; JoinIn 4/6"},
        {"octets behind the list's end",
         "000404000b00010603000224"
         "0000ffffGOOD",
         "JoinIn 4/6; JoinIn 4/6; listLengthMismatch@14"},
        {"list without end",
         "0004040007"
         "00010603000224"
         "GOOD",
         "JoinIn 4/6; JoinIn 4/6; listLengthMismatch@12"},
        {"list without end at the end",
         "0004040007"
         "00010603000224",
         "JoinIn 4/6"},
        {"values past 255",
         "0004040009"
         "0003fe0300022b0000",
         "JoinIn 4/254; JoinIn 4/255; valuePastRange@11"},
        {"id wraps within its 16 bits",
         "000308000e0002"
         "000000000000ffff"
         "2a"
         "a0"
         "0000",
         "JoinIn 3/65535=2; JoinIn 3/0=2"},
    };
    for (const auto& c : cases) {
        std::string input = c.octets;
        if (const auto at = input.find("GOOD"); at != std::string::npos) input.replace(at, 4, good);
        EXPECT_EQ(text(octets(input)), c.says) << c.what;
    }
}
