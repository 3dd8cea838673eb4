/// All that the agent knows of one stream.
#pragma once

#include "Msrp/types/Enums.h"
#include "State/Record.h"
#include "Switch/BridgingInput.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Msrp {

/// What was declared on, or is declared to, one port for one stream.  A field that was never set or was
/// removed reads as its zero.
struct StreamPort {
    IntfId intf;
    bool hasTalkerState = false;
    bool hasListenerState = false;
    bool hasListenerStateOrig = false;
    bool hasFailureCode = false;
    bool hasStatusTime = false;
    TalkerState talkerState = TalkerState::None;
    ListenerState listenerState = ListenerState::Ignore;
    ListenerState listenerStateOrig = ListenerState::Ignore;
    TalkerFailureCode talkerFailureCode = TalkerFailureCode::noFailure;
    double statusTime = 0.0;

    [[nodiscard]] bool empty() const {
        return !hasTalkerState && !hasListenerState && !hasListenerStateOrig && !hasFailureCode &&
               !hasStatusTime;
    }
};

/// One stream; the key is its id.  The first value is the one with which the talker registered it.
class StreamData : public State::Record<StreamData> {
    /// What a port's value is in a record: a failure code goes by its number.
    template <class T>
    using Told = std::conditional_t<std::is_same_v<T, TalkerFailureCode>, U8, T>;
    /// One column of the table of ports, by port.
    template <auto member, auto has>
    static constexpr auto column(std::string_view name) {
        using T = std::decay_t<decltype(std::declval<StreamPort>().*member)>;
        return State::restored<StreamData>(
            name,
            [](const StreamData& s) {
                std::vector<std::pair<std::string, Told<T>>> entries;
                for (const StreamPort& p : s.ports_) {
                    if (p.*has) entries.emplace_back(p.intf.name(), static_cast<Told<T>>(p.*member));
                }
                return entries;
            },
            [name](StreamData& s, const State::Value& value, double shift) {
                return s.restoreColumn<T>(name, member, has, value, shift);
            },
            nullptr, std::is_same_v<T, double>);  // a time is set together with a state
    }

public:
    static constexpr std::string_view type = "Msrp::StreamData";
    explicit StreamData(U64 streamId) : streamId_{streamId} {}

    [[nodiscard]] U64 streamId() const { return streamId_; }

    /// kbit/s
    [[nodiscard]] U64 bandwidth() const { return bandwidth_; }
    void bandwidthIs(U64 v) { assign(bandwidth_, v, "bandwidth"); }
    [[nodiscard]] EthAddr macDa() const { return macDa_; }
    void macDaIs(EthAddr v) { assign(macDa_, v, "macDa"); }
    /// 1 to 4094, or 0 while no talker is known.
    [[nodiscard]] U16 vlanId() const { return vlanId_; }
    void vlanIdIs(U16 v) { assign(vlanId_, v, "vlanId"); }
    [[nodiscard]] SrClassId srClass() const { return srClass_; }
    void srClassIs(SrClassId v) { assign(srClass_, v, "srClass"); }
    /// 0 emergency, 1 not.
    [[nodiscard]] U8 rank() const { return rank_; }
    void rankIs(U8 v) { assign(rank_, v, "rank"); }
    [[nodiscard]] U8 dataFramePriority() const { return dataFramePriority_; }
    void dataFramePriorityIs(U8 v) { assign(dataFramePriority_, v, "dataFramePriority"); }
    [[nodiscard]] U16 maxFrameSize() const { return maxFrameSize_; }
    void maxFrameSizeIs(U16 v) { assign(maxFrameSize_, v, "maxFrameSize"); }
    [[nodiscard]] U16 maxIntervalFrames() const { return maxIntervalFrames_; }
    void maxIntervalFramesIs(U16 v) { assign(maxIntervalFrames_, v, "maxIntervalFrames"); }
    /// Nanoseconds, as received.
    [[nodiscard]] U32 accumulatedLatency() const { return accumulatedLatency_; }
    void accumulatedLatencyIs(U32 v) { assign(accumulatedLatency_, v, "accumulatedLatency"); }
    /// The bridge that found the failure; 0 while there is none.
    [[nodiscard]] U64 failedBridgeId() const { return failedBridgeId_; }
    void failedBridgeIdIs(U64 v) { assign(failedBridgeId_, v, "failedBridgeId"); }
    /// The talker's port; none while no talker is known.
    [[nodiscard]] IntfId ingressIntf() const { return ingressIntf_; }
    void ingressIntfIs(IntfId v) { assign(ingressIntf_, v, "ingressIntf"); }
    /// The forwarding group that carries the stream.
    [[nodiscard]] const std::shared_ptr<Bridging::Input::EthGroup>& ethGroup() const { return ethGroup_; }
    void ethGroupIs(const std::shared_ptr<Bridging::Input::EthGroup>& v) { assign(ethGroup_, v, "ethGroup"); }

    /// One row for each port of which anything is known, in the order of the ports.
    [[nodiscard]] const std::vector<StreamPort>& port() const { return ports_; }
    /// The port's row, or null.
    [[nodiscard]] const StreamPort* port(IntfId intf) const;

    [[nodiscard]] TalkerState talkerState(IntfId intf) const { return row(intf).talkerState; }
    [[nodiscard]] ListenerState listenerState(IntfId intf) const { return row(intf).listenerState; }
    [[nodiscard]] ListenerState listenerStateOrig(IntfId intf) const { return row(intf).listenerStateOrig; }
    [[nodiscard]] bool hasListenerStateOrig(IntfId intf) const { return row(intf).hasListenerStateOrig; }
    [[nodiscard]] TalkerFailureCode talkerFailureCode(IntfId intf) const {
        return row(intf).talkerFailureCode;
    }
    [[nodiscard]] bool hasTalkerFailureCode() const;
    /// The first port with a listener state, registered or effective.
    [[nodiscard]] std::optional<IntfId> portWithListener() const;
    /// Seconds on the agent's clock; 0 for never.
    [[nodiscard]] double statusTime(IntfId intf) const { return row(intf).statusTime; }

    /// Set the state and stamp the port's time.
    void setTalkerStateAndAge(IntfId intf, TalkerState state, double now);
    /// Also stamps; a state that the port has already is left alone, time included.
    void setListenerStateAndAge(IntfId intf, ListenerState state, double now);
    void delTalkerStateAndAge(IntfId intf);
    void delListenerStateAndAge(IntfId intf);
    void listenerStateOrigIs(IntfId intf, ListenerState state);
    void listenerStateOrigDel(IntfId intf);
    /// Removes the talker states and failure codes of all ports.
    void talkerDelAll();
    void talkerFailureCodeIs(IntfId intf, TalkerFailureCode code);
    void talkerFailureCodeDel(IntfId intf);
    void statusTimeIs(IntfId intf, double time);

    template <class F>
    static constexpr void fields(F&& each) {
        using S = StreamData;
        each(State::scalar("bandwidth", &S::bandwidth_));
        each(State::scalar("macDa", &S::macDa_));
        each(State::scalar("vlanId", &S::vlanId_));
        each(State::scalar("srClass", &S::srClass_));
        each(State::scalar("rank", &S::rank_));
        each(State::scalar("dataFramePriority", &S::dataFramePriority_));
        each(State::scalar("maxFrameSize", &S::maxFrameSize_));
        each(State::scalar("maxIntervalFrames", &S::maxIntervalFrames_));
        each(State::scalar("accumulatedLatency", &S::accumulatedLatency_));
        each(State::restored<S>(
            "failedBridgeId", [](const S& s) { return State::hexText(s.failedBridgeId_); },
            [](S& s, const State::Value& v, double) { return s.restoreFailedBridge(v); },
            State::HexKey::schema));
        each(State::scalar("ingressIntf", &S::ingressIntf_));
        each(State::restored<S>(
            "ethGroup",
            [](const S& s) { return s.ethGroup_ ? std::optional{s.ethGroup_->addr()} : std::nullopt; },
            [](S& s, const State::Value& v, double) { return s.restoreGroup(v); }));
        each(column<&StreamPort::talkerState, &StreamPort::hasTalkerState>("talkerState"));
        each(column<&StreamPort::listenerState, &StreamPort::hasListenerState>("listenerState"));
        each(column<&StreamPort::listenerStateOrig, &StreamPort::hasListenerStateOrig>("listenerStateOrig"));
        each(column<&StreamPort::talkerFailureCode, &StreamPort::hasFailureCode>("talkerFailureCode"));
        each(column<&StreamPort::statusTime, &StreamPort::hasStatusTime>("statusTime"));
    }

private:
    [[nodiscard]] const StreamPort& row(IntfId intf) const;
    StreamPort& rowIs(IntfId intf);
    /// Drops the row of a port of which nothing is known any more, and tells the change.
    void rowChanged(IntfId intf, std::string_view field);

    template <class T>
    State::MaybeProblem restoreColumn(std::string_view field, T StreamPort::*member, bool StreamPort::*has,
                                      const State::Value& value, double shift);
    State::MaybeProblem restoreFailedBridge(const State::Value& value);
    /// Stands for the group of that address until the agent has found it.
    State::MaybeProblem restoreGroup(const State::Value& value);

    U64 streamId_;
    U64 bandwidth_ = 0;
    U64 failedBridgeId_ = 0;
    EthAddr macDa_;
    U16 vlanId_ = 0;
    U32 accumulatedLatency_ = 0;
    U16 maxFrameSize_ = 0;
    U16 maxIntervalFrames_ = 0;
    IntfId ingressIntf_;
    SrClassId srClass_{};
    U8 rank_ = 0;
    U8 dataFramePriority_ = 0;
    std::shared_ptr<Bridging::Input::EthGroup> ethGroup_;
    std::vector<StreamPort> ports_;
};

}  // namespace Msrp

// Made once, in the source file beside this header.
extern template class State::Record<Msrp::StreamData>;
