/// The decisions that need no state machine.
#include "Msrp/MsrpLib.h"
#include "Msrp/bandwidth/Admission.h"
#include "Msrp/bandwidth/MediaFormats.h"
#include "Msrp/types/Waiting.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>

namespace Msrp {
namespace {

using Code = TalkerFailureCode;
constexpr SrClassId A = SrClassId::SrClassA;
constexpr SrClassId B = SrClassId::SrClassB;

TEST(ListenerStates, HaveNamesWhateverTheirNumber) {
    EXPECT_EQ(stateName(ListenerState::ReadyFailed), "ReadyFailed");
    EXPECT_EQ(stateName(ListenerState{4}), "unknown");
}

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
        EXPECT_EQ(request.needed == 0 || availableBandwidth(request) >= request.needed, missing == 0)
            << c.request.needed;
        EXPECT_EQ(missing == 0, c.code == Code::noFailure) << c.request.needed;
        if (missing == 0 || missing > request.needed) continue;
        request.needed -= missing;
        EXPECT_EQ(admit(request), Code::noFailure) << c.request.needed;
        ++request.needed;
        EXPECT_NE(admit(request), Code::noFailure) << c.request.needed;
    }
}

TEST(MediaFormats, ReserveForTheLargestFramesOfAnInterval) {
    using enum MediaFormat;
    struct Case {
        MediaStream stream;
        SrClassId srClass;
        Tspec tspec;
        U64 kbps;
    };
    const auto pcm = [](MediaFormat format, U32 channels, U32 rate, U32 samples = 0) {
        return MediaStream{.format = format, .channels = channels, .rate = rate, .samples = samples};
    };
    const std::vector<Case> cases{
        {pcm(aafInt32, 8, 48'000), A, {216, 1}, 16'512},
        {pcm(aafInt24, 8, 48'000), A, {168, 1}, 13'440},
        {pcm(aafInt16, 8, 48'000), A, {120, 1}, 10'368},
        {pcm(aafInt32, 8, 48'000), B, {408, 1}, 14'400},
        {pcm(aafInt32, 8, 96'000), A, {408, 1}, 28'800},
        {pcm(aafInt32, 8, 192'000), A, {792, 1}, 53'376},
        {pcm(aafInt32, 2, 48'000), A, {72, 1}, 7'296},
        {pcm(aafInt16, 2, 48'000), A, {48, 1}, 5'760},
        {pcm(aafInt32, 8, 44'100), A, {216, 1}, 16'512},
        {pcm(aafInt32, 8, 88'200), B, {792, 1}, 26'688},  // 24 samples of each channel
        {pcm(am824, 8, 88'200), B, {768, 1}, 25'920},     // 23
        {pcm(am824, 2, 48'000), A, {80, 1}, 7'808},
        {pcm(am824, 8, 48'000), A, {224, 1}, 17'024},
        {pcm(am824, 8, 48'000, 7), A, {256, 1}, 19'072},
        {pcm(aafInt32, 64, 48'000), A, {792, 2}, 106'752},  // 3 samples of 256 octets in each frame
        {{.format = crf}, A, {28, 1}, 4'480},
        {{.format = h264, .kbps = 20'000}, A, {341, 1}, 24'512},
        {{.format = mjpeg, .kbps = 200'000}, A, {32 + 1042, 3}, 214'272},
        {{.format = mpegTs, .kbps = 8'000}, B, {32 + 2 * 192, 1}, 14'656},
    };
    for (const Case& c : cases) {
        const MediaTspec found = mediaTspec(c.stream, c.srClass);
        const Tspec& t = found.tspec;
        EXPECT_EQ(t, c.tspec) << t.maxFrameSize << " x " << t.maxIntervalFrames << found.problem;
        EXPECT_EQ(streamBandwidth(c.srClass, t.maxIntervalFrames, t.maxFrameSize), c.kbps);
    }
    for (const auto& [stream, problem] : std::vector<std::pair<MediaStream, std::string>>{
             {pcm(aafInt32, 0, 48'000), "channels 0 is not from 1 to 1024"},
             {pcm(aafInt32, 8, 7'999), "rate 7999 is not from 8000 to 192000"},
             {pcm(am824, 400, 48'000),
              "one sample of all channels has 1600 octets, and a frame has room for 1468"},
             {pcm(aafInt32, 300, 0, 300), "it needs 300 frames in an interval; 255 is the most"},
             {{.format = h264}, "kbps 0 is not from 1 to 4000000"},
             {{.format = crf, .timestamps = 186}, "timestamps 186 is not from 1 to 185"}})
        EXPECT_EQ(mediaTspec(stream, A).problem, problem);
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
