/// Has the frames of each stream counted where they come in from its talker, and puts on record what flows.
///
/// The limits of a stream are entered into the table that the fence's programs look into; every stream is
/// read once a second, some at a time.
#pragma once

#include "Linux/fence/KernelTable.h"
#include "Linux/links/DeviceTable.h"
#include "Linux/records/TrafficStatus.h"
#include "Runtime/Loop.h"
#include "Switch/Streams.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace Linux {

/// The limits of a stream with such frames, with all counters 0.  `kbps` as reservations are counted.
MeterEntry meterEntry(std::uint64_t kbps, std::uint8_t priority, std::uint16_t maxFrameSize,
                      std::uint32_t interval);

class StreamMeter {
public:
    static constexpr std::uint32_t defaultRoom = 16'384;
    /// Between two readings of one stream.
    static constexpr Runtime::Duration period = std::chrono::seconds{1};

    /// `stirred` is called when there is something for `carryOut`.  `room`: streams that can be measured. The
    /// loop must outlive it.
    StreamMeter(Runtime::Loop& loop, std::shared_ptr<const Switch::Streams> streams,
                std::shared_ptr<TrafficStatus> status, std::function<void()> stirred, Report report,
                std::uint32_t room = defaultRoom);

    /// Where the kernel refuses the table, which is told, it may be called again.
    void start();
    /// Forgets all.
    void stop();
    /// That the port has that interface index, or (0) is none of the bridge.
    void portIs(IntfId port, unsigned ifindex);
    /// Why the kernel takes no program that would count; empty: that is not known any more.
    void refused(const std::string& why);
    /// Makes at most so many changes; false when there are more.
    bool carryOut(std::size_t changes);
    /// For programs; -1 before `start`, and where no table can be made.
    [[nodiscard]] int descriptor() const { return table_.descriptor(); }

private:
    struct Metered {
        IntfId port;                  ///< of its talker, whether or not it is one of ours
        std::optional<FenceKey> key;  ///< under which it is in the table
        MeterEntry before;            ///< counted before it was entered there
        MeterEntry told;              ///< all that is on record
        Runtime::Time read{};
    };
    using Metering = std::map<std::uint64_t, Metered>;

    void streamChanged(const State::Change& change);
    void look(std::uint64_t id);
    /// Takes it out of the table, and keeps what was counted.
    void takeOut(std::uint64_t id, Metered& stream);
    void putIn(std::uint64_t id, Metered& stream, const FenceKey& key, const Switch::Stream& limits);
    void readSome();
    void publish(std::uint64_t id, Metered& stream);
    /// What the kernel says to entries of its table.
    void answered(int error);
    void problemIs(const std::string& problem);

    Runtime::Loop& loop_;
    const std::shared_ptr<const Switch::Streams> streams_;
    const std::shared_ptr<TrafficStatus> status_;
    const std::function<void()> stirred_;
    const Report report_;
    KernelTable<MeterEntry> table_;
    Metering metering_;
    std::map<FenceKey, std::uint64_t> owners_;  ///< of what is in the table
    std::map<IntfId, unsigned> indexes_;
    std::map<IntfId, std::set<std::uint64_t>> behind_;  ///< streams by their talkers' ports
    std::set<std::uint64_t> due_;
    std::set<std::uint64_t> refused_;  ///< by the kernel
    std::string programRefused_;       ///< why the kernel takes none; empty: it does
    std::uint64_t readNext_ = 0;
    Runtime::Timer timer_;
    State::Reactor reactor_;
};

}  // namespace Linux
