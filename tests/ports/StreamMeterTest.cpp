#include "Linux/fence/BpfCall.h"
#include "Linux/fence/StreamMeter.h"
#include "Runtime/Text.h"
#include "Runtime/VirtualLoop.h"
#include "tests/ports/Namespace.h"

namespace {

using namespace std::chrono_literals;
using Runtime::concat;

/// Room for two streams; p1 and p2 have the interface indexes 1 and 2.
class StreamMeterTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root";
        meter.start();
        for (const unsigned index : {1U, 2U}) meter.portIs(IntfId{concat("p", index)}, index);
    }
    void streamIs(std::uint64_t id, const std::string& port) {
        const auto stream = streams->streamIs(id);
        stream->macDaIs(EthAddr::fromNumber(0x91e0f0000000 + id));
        stream->vlanIdIs(2);
        stream->kbpsIs(9088);
        stream->talkerIntfIs(IntfId{port});
    }
    /// As a program would, so many frames of 100 octets.
    void count(std::uint64_t id, unsigned index, std::uint64_t frames) {
        const Linux::FenceKey key{EthAddr::fromNumber(0x91e0f0000000 + id).octets(), 2, index};
        Linux::MeterEntry entry;
        entry.frames = frames;
        entry.octets = 100 * frames;
        entry.last = 5'000'000'000;
        bpf_attr request = Linux::bpfAttributes();
        request.map_fd = static_cast<std::uint32_t>(meter.descriptor());
        request.key = Linux::bpfAddress(&key);
        request.value = Linux::bpfAddress(&entry);
        request.flags = BPF_EXIST;
        EXPECT_EQ(Linux::bpfCall(BPF_MAP_UPDATE_ELEM, request), 0)
            << "stream " << id << " is not in the table";
    }
    std::string told() {
        while (!meter.carryOut(1)) {
        }
        loop.runFor(1s);
        std::string text;
        status->stream().each([&](std::uint64_t id, const auto& s) {
            text += concat(id, ": ", s.frames(), " frames, ", s.kbps(), " kbps; ");
        });
        return text + std::exchange(said, {});
    }

    Runtime::VirtualLoop loop;
    std::shared_ptr<Switch::Streams> streams = std::make_shared<Switch::Streams>();
    std::shared_ptr<Linux::TrafficStatus> status = std::make_shared<Linux::TrafficStatus>();
    std::string said;
    Linux::StreamMeter meter{loop, streams, status, [] {}, [this](auto, auto& line) { said += line; }, 2};
};

TEST_F(StreamMeterTest, CountersOutliveMovesAndRoomIsGivenToThoseThatWait) {
    streamIs(1, "p1");
    streamIs(2, "p2");
    EXPECT_EQ(told(), "1: 0 frames, 0 kbps; 2: 0 frames, 0 kbps; ");
    count(1, 1, 8000);
    EXPECT_EQ(told(), "1: 8000 frames, 9088 kbps; 2: 0 frames, 0 kbps; ");
    EXPECT_EQ(status->stream(1)->lastFrame(), 5.0);
    streamIs(1, "p2");
    EXPECT_EQ(told(), "1: 8000 frames, 0 kbps; 2: 0 frames, 0 kbps; ");
    count(1, 2, 1);
    streamIs(3, "p1");
    EXPECT_EQ(told(),
              "1: 8001 frames, 1 kbps; 2: 0 frames, 0 kbps; "
              "there are more than 2 streams, not all are measured");
    meter.portIs(IntfId{"p2"}, 0);
    EXPECT_EQ(told(),
              "1: 8001 frames, 0 kbps; 2: 0 frames, 0 kbps; 3: 0 frames, 0 kbps; "
              "all streams are measured again");
    streams->streamDelAll();
    EXPECT_EQ(told(), "");
    meter.refused("no programs here");
    streamIs(1, "p1");
    EXPECT_EQ(told(), "1: 0 frames, 0 kbps; streams are not measured: no programs here");
    meter.refused({});
    EXPECT_EQ(told(), "1: 0 frames, 0 kbps; all streams are measured again");
}

TEST(MeterEntry, HoldsWhatWasReserved) {
    // A frame of 100 octets and what is around it, 8,000 times a second, on a clock that is 200 ppm slow.
    const Linux::MeterEntry entry = Linux::meterEntry(9088, 3, 100, 125'000);
    EXPECT_EQ((142 * entry.octetTime >> Linux::MeterEntry::timeShift) + 1, 124'975U);
    EXPECT_EQ((std::tuple{entry.burst, entry.priority, entry.smallest}), (std::tuple{12'125'000U, 3U, 46U}));
    EXPECT_EQ(Linux::meterEntry(4480, 3, 28, 125'000).smallest, 28U) << "the wire fills it up";
    EXPECT_GT(Linux::meterEntry(0, 3, 100, 125'000).octetTime >> Linux::MeterEntry::timeShift, 1'000'000U);
}

}  // namespace
