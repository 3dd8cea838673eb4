/// The decisions that need no state machine.
#include "Msrp/MsrpLib.h"
#include "Msrp/bandwidth/Admission.h"
#include "Msrp/types/Waiting.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>

namespace Msrp {
namespace {

using Code = TalkerFailureCode;
constexpr SrClassId A = SrClassId::SrClassA;
constexpr SrClassId B = SrClassId::SrClassB;

TEST(Bandwidth, CountsWholeFramesPerMillisecond) {
    EXPECT_EQ(streamBandwidth(A, 1, 100), 9088U);
    EXPECT_EQ(streamBandwidth(B, 1, 100), 4544U);
    EXPECT_EQ(streamBandwidth(A, 0, 1500), 0U);
    EXPECT_EQ(streamBandwidth(A, 0xffff, 0xffff), (65535U * 8U) * 65577U * 8U) << "wraps in 32 bits";
    EXPECT_EQ(linkSpeedKbps(Interface::Speed::speed400Gbps), 400'000'000U);
    EXPECT_EQ(linkSpeedKbps(Interface::Speed{13}), 0U);
}

TEST(Bandwidth, AdmitsWhatFitsExactly) {
    struct Case {
        AdmissionRequest request;
        Code code;
    };
    constexpr U64 gigabit = 1'000'000;
    const std::array cases{
        Case{{A, 750'000, gigabit, 75, 0, 0, 0}, Code::noFailure},
        Case{{A, 750'001, gigabit, 75, 0, 0, 0}, Code::insufficientBandwidth},
        Case{{B, 350'000, gigabit, 50, 25, 400'000, 0}, Code::noFailure},
        Case{{B, 350'001, gigabit, 50, 25, 400'000, 0}, Code::insufficientBandwidth},
        Case{{A, 500'001, gigabit, 50, 25, 0, 0}, Code::insufficientBandwidthForClass},
        Case{{A, 1, 0, 75, 0, 0, 0}, Code::insufficientBandwidth},  // 2.5G, 5G and unknown speeds
        Case{{A, 0, 0, 75, 0, 0, 0}, Code::noFailure},
        Case{{A, 1, gigabit, 200, 100, 3'000'000, 0}, Code::insufficientBandwidth},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(admit(c.request), c.code) << c.request.needed;
        AdmissionRequest request = c.request;
        const U64 missing = missingBandwidth(request);
        EXPECT_EQ(missing == 0, c.code == Code::noFailure) << c.request.needed;
        if (missing == 0 || missing > request.needed) continue;
        request.needed -= missing;
        EXPECT_EQ(admit(request), Code::noFailure) << c.request.needed;
        ++request.needed;
        EXPECT_NE(admit(request), Code::noFailure) << c.request.needed;
    }
}

TEST(FailedStreamQueue, IndicesGrowAndAStreamStandsTwiceAtMost) {
    FailedStreamQueue queue;
    for (const U64 id : std::vector<U64>{7, 8, 7, 7}) queue.failedStreamEnq(id, 1.0);
    EXPECT_EQ(queue.entry(), (std::map<U32, FailedStream>{{0, {7, 1.0}}, {1, {8, 1.0}}, {2, {7, 1.0}}}));
    queue.failedStreamDeq();
    queue.failedStreamEnq(9, 2.0);
    EXPECT_EQ(queue.tail(), 3U);
    queue.failedStreamDel(3);
    queue.failedStreamEnq(9, 2.0);
    EXPECT_EQ(queue.tail(), 3U) << "the counter's own value, as the tail is below it";
    queue.failedStreamIs(2, {8, 3.0});
    EXPECT_TRUE(queue.failedStreamDelFirst(8));
    EXPECT_EQ(queue.entry(), (std::map<U32, FailedStream>{{2, {8, 3.0}}, {3, {9, 2.0}}}));
    EXPECT_TRUE(queue.failedStreamDelEvery(8));
    EXPECT_FALSE(queue.failedStreamDelEvery(8));
    queue.failedStreamDelAll();
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.head(), std::nullopt);
}

TEST(Attributes, IncrementsDoNotWrapIntoTheNextField) {
    MsrpTalkerFailedAttribute failed{MsrpTalkerAdvertiseAttribute{}, 0x8000'0011'2233'4455,
                                     Code::latencyChanged};
    failed.macDaIs(*EthAddr::parse("91:e0:f0:00:ff:ff"));
    MsrpTalkerFailedAttribute next = failed;
    next.streamIdIs(1);
    next.macDaIs(*EthAddr::parse("91:e0:f0:01:00:00"));
    const auto& types = application().types;
    EXPECT_TRUE(types[1].follows(failed.octets(), next.octets()));
    auto value = failed.octets();
    types[1].increment(value);
    EXPECT_EQ(value, next.octets());
    next.failureCodeIs(Code::noFailure);
    EXPECT_FALSE(types[1].follows(failed.octets(), next.octets()));
    const MsrpListenerAttribute last{0x1'ffff, ListenerState::Ready};
    EXPECT_FALSE(
        types[2].follows(last.octets(), MsrpListenerAttribute{0x2'0000, ListenerState::Ready}.octets()));
    EXPECT_TRUE(
        types[3].follows(MsrpDomainAttribute{B, 2, 2}.octets(), MsrpDomainAttribute{A, 3, 2}.octets()));
}

}  // namespace
}  // namespace Msrp
