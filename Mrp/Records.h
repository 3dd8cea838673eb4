/// The engine's configuration and status records.
#pragma once

#include "Mrp/Events.h"
#include "State/Record.h"
#include "Switch/IntfId.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

namespace Mrp {

/// "mrp/config".  Timers in milliseconds (IEEE 802.1Q 10.7.4 and 10.7.11).
class MrpConfig : public State::Record<MrpConfig> {
public:
    static constexpr std::string_view type = "Mrp::MrpConfig";

    /// Upper bound of the wait for a transmit opportunity, 10 to 1000 ms.
    [[nodiscard]] std::uint32_t joinTime() const { return joinTime_; }
    void joinTimeIs(std::uint32_t v) { assign(joinTime_, v, "joinTime"); }
    /// How long a registration outlives a Leave, 100 to 60000 ms.
    [[nodiscard]] std::uint32_t leaveTime() const { return leaveTime_; }
    void leaveTimeIs(std::uint32_t v) { assign(leaveTime_, v, "leaveTime"); }
    /// Shortest time between two LeaveAlls of a port, 1000 to 600000 ms; the longest is 1.5 times that.
    [[nodiscard]] std::uint32_t leaveAllTime() const { return leaveAllTime_; }
    void leaveAllTimeIs(std::uint32_t v) { assign(leaveAllTime_, v, "leaveAllTime"); }
    /// Whether every port repeats its declarations once a second.
    [[nodiscard]] bool periodicEnabled() const { return periodicEnabled_; }
    void periodicEnabledIs(bool v) { assign(periodicEnabled_, v, "periodicEnabled"); }
    /// MRPDUs that one transmit opportunity may send, 1 to 1000; 1 is the strict reading of the standard.
    [[nodiscard]] std::uint32_t pdusPerOpportunity() const { return pdusPerOpportunity_; }
    void pdusPerOpportunityIs(std::uint32_t v) { assign(pdusPerOpportunity_, v, "pdusPerOpportunity"); }
    /// Attributes of one type that one port may register, refused ones included, 1 to 1000000.
    [[nodiscard]] std::uint32_t maxAttributesPerType() const { return maxAttributesPerType_; }
    void maxAttributesPerTypeIs(std::uint32_t v) { assign(maxAttributesPerType_, v, "maxAttributesPerType"); }

    template <class F>
    static constexpr void fields(F&& each) {
        using C = MrpConfig;
        each(State::scalar("joinTime", &C::joinTime_, std::uint32_t{10}, std::uint32_t{1000}));
        each(State::scalar("leaveTime", &C::leaveTime_, std::uint32_t{100}, std::uint32_t{60'000}));
        each(State::scalar("leaveAllTime", &C::leaveAllTime_, std::uint32_t{1000}, std::uint32_t{600'000}));
        each(State::scalar("periodicEnabled", &C::periodicEnabled_));
        each(State::scalar("pdusPerOpportunity", &C::pdusPerOpportunity_, std::uint32_t{1},
                           std::uint32_t{1000}));
        each(State::scalar("maxAttributesPerType", &C::maxAttributesPerType_, std::uint32_t{1},
                           std::uint32_t{1'000'000}));
    }

private:
    std::uint32_t joinTime_ = 200;
    std::uint32_t leaveTime_ = 600;
    std::uint32_t leaveAllTime_ = 10'000;
    bool periodicEnabled_ = false;
    std::uint32_t pdusPerOpportunity_ = 1000;
    std::uint32_t maxAttributesPerType_ = 4096;
};

/// What a port counts, as plain numbers: what is added to the record below in one go after each PDU.
struct MrpCounts {
    std::uint64_t rxPdus = 0;
    std::uint64_t txPdus = 0;
    std::uint64_t refusedJoins = 0;
    std::uint64_t rangeErrors = 0;
    std::uint64_t droppedRegistrations = 0;
    std::uint64_t droppedPdus = 0;
    std::array<std::uint64_t, eventKinds> rxEvents{};
    std::array<std::uint64_t, eventKinds> txEvents{};
    std::array<std::uint64_t, malformedKinds> malformed{};
};

/// One port's counters.  They survive the port's being disabled.
class MrpIntfStatus : public State::Record<MrpIntfStatus> {
public:
    static constexpr std::string_view type = "Mrp::MrpIntfStatus";
    explicit MrpIntfStatus(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] std::uint64_t rxPdus() const { return rxPdus_; }
    [[nodiscard]] std::uint64_t txPdus() const { return txPdus_; }
    /// Join indications that the application refused.
    [[nodiscard]] std::uint64_t refusedJoins() const { return refusedJoins_; }
    /// Indications that met a value out of range.
    [[nodiscard]] std::uint64_t rangeErrors() const { return rangeErrors_; }
    /// MRPDUs lost because they came faster than the port could work them off.
    [[nodiscard]] std::uint64_t droppedPdus() const { return droppedPdus_; }
    /// Registrations not taken because the port had `maxAttributesPerType`.
    [[nodiscard]] std::uint64_t droppedRegistrations() const { return droppedRegistrations_; }
    [[nodiscard]] std::uint64_t rxEvents(Event event) const { return rxEvents_.get(event); }
    [[nodiscard]] std::uint64_t txEvents(Event event) const { return txEvents_.get(event); }
    /// Parts of received PDUs that were discarded.
    [[nodiscard]] std::uint64_t malformed(Malformed reason) const { return malformed_.get(reason); }

    void add(const MrpCounts& more) {
        addTo(rxPdus_, more.rxPdus, "rxPdus");
        addTo(txPdus_, more.txPdus, "txPdus");
        addTo(refusedJoins_, more.refusedJoins, "refusedJoins");
        addTo(rangeErrors_, more.rangeErrors, "rangeErrors");
        addTo(droppedRegistrations_, more.droppedRegistrations, "droppedRegistrations");
        addTo(droppedPdus_, more.droppedPdus, "droppedPdus");
        for (const auto& kind : eventNames) {
            addTo(rxEvents_, kind.value, more.rxEvents[static_cast<std::size_t>(kind.value)], "rxEvents");
            addTo(txEvents_, kind.value, more.txEvents[static_cast<std::size_t>(kind.value)], "txEvents");
        }
        for (const auto& reason : malformedNames) {
            addTo(malformed_, reason.value, more.malformed[static_cast<std::size_t>(reason.value)],
                  "malformed");
        }
    }

    /// Everything to zero.
    void clear() {
        constexpr std::uint64_t zero = 0;
        assign(rxPdus_, zero, "rxPdus");
        assign(txPdus_, zero, "txPdus");
        assign(refusedJoins_, zero, "refusedJoins");
        assign(rangeErrors_, zero, "rangeErrors");
        assign(droppedRegistrations_, zero, "droppedRegistrations");
        assign(droppedPdus_, zero, "droppedPdus");
        for (const auto& kind : eventNames) {
            setEntry(rxEvents_, kind.value, zero, "rxEvents");
            setEntry(txEvents_, kind.value, zero, "txEvents");
        }
        for (const auto& reason : malformedNames) setEntry(malformed_, reason.value, zero, "malformed");
    }

    template <class F>
    static constexpr void fields(F&& each) {
        using C = MrpIntfStatus;
        each(State::scalar("rxPdus", &C::rxPdus_));
        each(State::scalar("txPdus", &C::txPdus_));
        each(State::map("rxEvents", &C::rxEvents_));
        each(State::map("txEvents", &C::txEvents_));
        each(State::map("malformed", &C::malformed_));
        each(State::scalar("refusedJoins", &C::refusedJoins_));
        each(State::scalar("rangeErrors", &C::rangeErrors_));
        each(State::scalar("droppedRegistrations", &C::droppedRegistrations_));
        each(State::scalar("droppedPdus", &C::droppedPdus_));
    }

private:
    void addTo(std::uint64_t& counter, std::uint64_t more, std::string_view name) {
        if (more != 0) assign(counter, counter + more, name);
    }
    template <class K>
    void addTo(State::FlatMap<K, std::uint64_t>& counters, K key, std::uint64_t more, std::string_view name) {
        if (more != 0) setEntry(counters, key, counters.get(key) + more, name);
    }

    IntfId intfId_;
    std::uint64_t rxPdus_ = 0;
    std::uint64_t txPdus_ = 0;
    State::FlatMap<Event, std::uint64_t> rxEvents_;
    State::FlatMap<Event, std::uint64_t> txEvents_;
    State::FlatMap<Malformed, std::uint64_t> malformed_;
    std::uint64_t refusedJoins_ = 0;
    std::uint64_t rangeErrors_ = 0;
    std::uint64_t droppedRegistrations_ = 0;
    std::uint64_t droppedPdus_ = 0;
};

/// "mrp/status"
class MrpStatus : public State::Record<MrpStatus> {
public:
    static constexpr std::string_view type = "Mrp::MrpStatus";

    [[nodiscard]] const State::Collection<IntfId, MrpIntfStatus>& intf() const { return intf_; }
    [[nodiscard]] std::shared_ptr<const MrpIntfStatus> intf(IntfId id) const { return intf_.get(id); }
    std::shared_ptr<MrpIntfStatus> intfIs(IntfId id) { return makeChild(intf_, id, "intf"); }
    void intfDel(IntfId id) { delChild(intf_, id, "intf"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("intf", &MrpStatus::intf_));
    }

private:
    State::Collection<IntfId, MrpIntfStatus> intf_;
};

}  // namespace Mrp

// Made once, in the source file beside this header.
extern template class State::Record<Mrp::MrpConfig>;
extern template class State::Record<Mrp::MrpIntfStatus>;
extern template class State::Record<Mrp::MrpStatus>;
