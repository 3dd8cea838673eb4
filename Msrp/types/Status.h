/// What the agent publishes: per-port status and the registered streams.  The agent is the only writer.
#pragma once

#include "Msrp/types/Enums.h"
#include "Msrp/types/StreamData.h"
#include "State/Record.h"
#include "Switch/Interface.h"
#include "Switch/IntfId.h"

#include <memory>
#include <string_view>

namespace Msrp {

/// One port on which MSRP is configured.
class IntfStatus : public State::Record<IntfStatus> {
public:
    static constexpr std::string_view type = "Msrp::IntfStatus";
    explicit IntfStatus(IntfId id, double time = 0.0) : intfId_{id}, creationTime_{time} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    /// Seconds on the agent's clock.
    [[nodiscard]] double creationTime() const { return creationTime_; }

    [[nodiscard]] const State::FlatMap<SrClassId, SrClassState>& srClassState() const {
        return srClassState_;
    }
    /// `NotSupported` when absent.
    [[nodiscard]] SrClassState srClassState(SrClassId c) const {
        return srClassState_.get(c, SrClassState::NotSupported);
    }
    void srClassStateIs(SrClassId c, SrClassState v) { setEntry(srClassState_, c, v, "srClassState"); }

    /// Reserved kbit/s.
    [[nodiscard]] const State::FlatMap<SrClassId, U64>& classBandwidthAllocated() const {
        return classBandwidthAllocated_;
    }
    [[nodiscard]] U64 classBandwidthAllocated(SrClassId c) const {
        return classBandwidthAllocated_.get(c, 0);
    }
    void classBandwidthAllocatedIs(SrClassId c, U64 v) {
        setEntry(classBandwidthAllocated_, c, v, "classBandwidthAllocated");
    }

    [[nodiscard]] const State::FlatMap<MsrpCounter, U32>& rxCounters() const { return rxCounters_; }
    void rxCountersIs(MsrpCounter c, U32 v) { setEntry(rxCounters_, c, v, "rxCounters"); }
    [[nodiscard]] const State::FlatMap<MsrpCounter, U32>& txCounters() const { return txCounters_; }
    void txCountersIs(MsrpCounter c, U32 v) { setEntry(txCounters_, c, v, "txCounters"); }
    /// All of them, in both directions, to zero.
    void countersClear() {
        for (const auto& counter : msrpCounterNames) {
            rxCountersIs(counter.value, 0);
            txCountersIs(counter.value, 0);
        }
    }

    [[nodiscard]] MsrpPortState portState() const { return portState_; }
    void portStateIs(MsrpPortState v) { assign(portState_, v, "portState"); }
    [[nodiscard]] Interface::LinkStatus linkStatus() const { return linkStatus_; }
    void linkStatusIs(Interface::LinkStatus v) { assign(linkStatus_, v, "linkStatus"); }
    /// The speed under which the port's bandwidth was given out.
    [[nodiscard]] Interface::Speed speedEnum() const { return speedEnum_; }
    void speedEnumIs(Interface::Speed v) { assign(speedEnum_, v, "speedEnum"); }
    /// Whether the LeaveAll that starts the port's life has been asked for.
    [[nodiscard]] bool lvAllSent() const { return lvAllSent_; }
    void lvAllSentIs(bool v) { assign(lvAllSent_, v, "lvAllSent"); }

    template <class F>
    static constexpr void fields(F&& each) {
        using S = IntfStatus;
        each(State::time("creationTime", &S::creationTime_));
        each(State::scalar("linkStatus", &S::linkStatus_));
        each(State::scalar("speedEnum", &S::speedEnum_));
        each(State::scalar("portState", &S::portState_));
        each(State::map("srClassState", &S::srClassState_));
        each(State::map("classBandwidthAllocated", &S::classBandwidthAllocated_));
        each(State::scalar("lvAllSent", &S::lvAllSent_));
        each(State::map("rxCounters", &S::rxCounters_));
        each(State::map("txCounters", &S::txCounters_));
    }

private:
    IntfId intfId_;
    double creationTime_;
    State::FlatMap<SrClassId, SrClassState> srClassState_;
    State::FlatMap<SrClassId, U64> classBandwidthAllocated_;
    State::FlatMap<MsrpCounter, U32> rxCounters_;
    State::FlatMap<MsrpCounter, U32> txCounters_;
    MsrpPortState portState_ = MsrpPortState::Blocked;
    Interface::LinkStatus linkStatus_ = Interface::LinkStatus::linkUnknown;
    Interface::Speed speedEnum_ = Interface::Speed::speedUnknown;
    bool lvAllSent_ = false;
};

/// "msrp/status"
class Status : public State::Record<Status> {
public:
    static constexpr std::string_view type = "Msrp::Status";

    [[nodiscard]] bool msrpEnabled() const { return msrpEnabled_; }
    void msrpEnabledIs(bool v) { assign(msrpEnabled_, v, "msrpEnabled"); }

    [[nodiscard]] const State::Collection<IntfId, IntfStatus>& intfStatus() const { return intfStatus_; }
    [[nodiscard]] std::shared_ptr<IntfStatus> intfStatus(IntfId id) { return intfStatus_.get(id); }
    [[nodiscard]] IntfStatus* peekIntfStatus(IntfId id) { return intfStatus_.peek(id); }
    [[nodiscard]] std::shared_ptr<const IntfStatus> intfStatus(IntfId id) const {
        return intfStatus_.get(id);
    }
    /// Creates the port's status at `time`, or gives the one that is there.
    std::shared_ptr<IntfStatus> intfStatusIs(IntfId id, double time) {
        if (auto held = intfStatus_.get(id)) return held;
        auto created = std::make_shared<IntfStatus>(id, time);
        putChild(intfStatus_, id, created, "intfStatus");
        return created;
    }
    void intfStatusDel(IntfId id) { delChild(intfStatus_, id, "intfStatus"); }

    /// The published streams by id.
    [[nodiscard]] const State::Collection<U64, StreamData>& registeredStreams() const {
        return registeredStreams_;
    }
    [[nodiscard]] std::shared_ptr<StreamData> registeredStreams(U64 id) { return registeredStreams_.get(id); }
    [[nodiscard]] std::shared_ptr<const StreamData> registeredStreams(U64 id) const {
        return registeredStreams_.get(id);
    }
    void registeredStreamsIs(const std::shared_ptr<StreamData>& stream) {
        putChild(registeredStreams_, stream->streamId(), stream, "registeredStreams");
    }
    void registeredStreamsDel(U64 id) { delChild(registeredStreams_, id, "registeredStreams"); }

    /// Streams on their way to be published.  They are no field of the record; whoever watches it hears of
    /// their changes, and of their end when they were not published.
    [[nodiscard]] std::shared_ptr<const StreamData> arriving(U64 id) const { return arriving_.get(id); }
    /// A new one.
    std::shared_ptr<StreamData> arrivingIs(U64 id) {
        auto stream = std::make_shared<StreamData>(id);
        arriving_.put(id, stream, this);
        return stream;
    }
    void arrivingDel(U64 id) { delChild(arriving_, id, "arriving"); }
    void arrivingDelAll() { delChildren(arriving_, "arriving"); }
    /// Publishes it, if it is on its way.
    void publish(U64 id) {
        if (const auto stream = arriving_.erase(id)) registeredStreamsIs(stream);
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("msrpEnabled", &Status::msrpEnabled_));
        each(State::collection("intfStatus", &Status::intfStatus_));
        each(State::collection<State::HexKey>("registeredStreams", &Status::registeredStreams_));
    }

private:
    bool msrpEnabled_ = false;
    State::Collection<IntfId, IntfStatus> intfStatus_;
    State::Collection<U64, StreamData> registeredStreams_;
    State::Collection<U64, StreamData> arriving_;
};

}  // namespace Msrp

// Made once, in the source file beside this header.
extern template class State::Record<Msrp::IntfStatus>;
extern template class State::Record<Msrp::Status>;
