/// What the operator decides about stream reservation.  The agent only reads these records.
#pragma once

#include "Msrp/types/Enums.h"
#include "State/Record.h"
#include "Switch/IntfId.h"
#include "Switch/PortChoice.h"
#include "Switch/Ranged.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace Msrp {

/// "msrp/config"
class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Msrp::Config";

    /// The ports on which MSRP runs: those whose entry is true.
    [[nodiscard]] const State::FlatMap<IntfId, bool>& intfEnable() const { return intfEnable_.ports(); }
    [[nodiscard]] bool intfEnable(IntfId id) const { return intfEnable_.chooses(id); }
    void intfEnableIs(IntfId id, bool v) { intfEnableField.sayIs(*this, id, v); }
    void intfEnableDel(IntfId id) { intfEnableField.sayIs(*this, id, std::nullopt); }
    /// The same in the operator's words, of which one may be for all ports of the bridge.
    [[nodiscard]] const PortChoice& choice() const { return intfEnable_; }
    /// The bridge's ports, for that.
    void bridgePortsAre(const std::set<IntfId>& ports) { intfEnableField.bridgePortsAre(*this, ports); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(intfEnableField);
    }

private:
    static const PortChoiceField<Config> intfEnableField;

    PortChoice intfEnable_;
};
inline constexpr PortChoiceField<Config> Config::intfEnableField{"intfEnable", &Config::intfEnable_};

struct SrPvidTag {
    static constexpr const char* error = "SrPvid::value > 4094 not allowed";
};
/// SR PVID of a port; 0 stands for the default of all ports.
using SrPvid = Ranged<SrPvidTag, U16, 0, 4094>;

/// How long a frame of each class may take through this bridge and out of one port, nanoseconds
/// (portTcMaxLatency, 35.2.1.4).
struct ClassLatency {
    U32 a = 0;
    U32 b = 0;
    bool operator==(const ClassLatency&) const = default;
};

}  // namespace Msrp

/// { "A": 280000, "B": 2000000 }; what is left out is 0.
template <>
struct State::Codec<Msrp::ClassLatency> {
    static constexpr std::string_view typeName = "latency";
    static Value encode(const Msrp::ClassLatency& v) {
        return Value{Object{{"A", Value{std::uint64_t{v.a}}}, {"B", Value{std::uint64_t{v.b}}}}};
    }
    static std::optional<Msrp::ClassLatency> decode(const Value& v);
    static std::string expected() {
        return "nanoseconds by class, at most 4294967295, like { \"A\": 280000, \"B\": 2000000 }";
    }
    static Schema schema() {
        const Schema nanoseconds = Codec<std::uint32_t>::schema();
        return {.type = "object", .fields = {{"A", nanoseconds}, {"B", nanoseconds}}};
    }
};

namespace Msrp {

/// "msrp/cliConfig"
class CliConfig : public State::Record<CliConfig> {
public:
    static constexpr std::string_view type = "Msrp::CliConfig";

    /// SRclassVID of the Domain that a port declares.
    [[nodiscard]] const State::FlatMap<IntfId, SrPvid>& srPvid() const { return srPvid_; }
    void srPvidIs(IntfId id, U16 v) { setEntry(srPvid_, id, SrPvid{v}, "srPvid"); }
    void srPvidDel(IntfId id) { delEntry(srPvid_, id, "srPvid"); }
    /// The same for ports without an entry of their own, 1 to 4094.
    [[nodiscard]] U16 defaultSrPvid() const { return defaultSrPvid_; }
    /// The VLAN that streams use on the port.
    [[nodiscard]] U16 streamVlan(IntfId id) const {
        const U16 own = srPvid_.get(id).value();
        return own != 0 ? own : defaultSrPvid_;
    }
    void defaultSrPvidIs(U16 v) { assign(defaultSrPvid_, v, "defaultSrPvid"); }

    /// Whether the class is offered at all.
    [[nodiscard]] bool srClassASupported() const { return srClassASupported_; }
    void srClassASupportedIs(bool v) { assign(srClassASupported_, v, "srClassASupported"); }
    [[nodiscard]] bool srClassBSupported() const { return srClassBSupported_; }
    void srClassBSupportedIs(bool v) { assign(srClassBSupported_, v, "srClassBSupported"); }
    /// Priority of the class's frames, 0 to 7.
    [[nodiscard]] U8 srClassAPriority() const { return srClassAPriority_; }
    void srClassAPriorityIs(U8 v) { assign(srClassAPriority_, v, "srClassAPriority"); }
    [[nodiscard]] U8 srClassBPriority() const { return srClassBPriority_; }
    void srClassBPriorityIs(U8 v) { assign(srClassBPriority_, v, "srClassBPriority"); }

    /// Largest MaxFrameSize that a talker may announce, octets of payload.
    [[nodiscard]] U16 maxFrameSizeLimit() const { return maxFrameSizeLimit_; }
    void maxFrameSizeLimitIs(U16 v) { assign(maxFrameSizeLimit_, v, "maxFrameSizeLimit"); }
    /// Share of a link's speed that the class may reserve, per cent.
    [[nodiscard]] U8 srClassABandwidthPercent() const { return srClassABandwidthPercent_; }
    void srClassABandwidthPercentIs(U8 v) {
        assign(srClassABandwidthPercent_, v, "srClassABandwidthPercent");
    }
    [[nodiscard]] U8 srClassBBandwidthPercent() const { return srClassBBandwidthPercent_; }
    void srClassBBandwidthPercentIs(U8 v) {
        assign(srClassBBandwidthPercent_, v, "srClassBBandwidthPercent");
    }

    /// Shape rate of a queue per reserved kbit/s.
    [[nodiscard]] double shapeRateFactor() const { return shapeRateFactor_; }
    void shapeRateFactorIs(double v) { assign(shapeRateFactor_, v, "shapeRateFactor"); }
    /// Reserve without shaping any queue.
    [[nodiscard]] bool shapingDisabled() const { return shapingDisabled_; }
    void shapingDisabledIs(bool v) { assign(shapingDisabled_, v, "shapingDisabled"); }

    /// What is added to the AccumulatedLatency of streams that are declared on a port; nothing where there is
    /// no entry.
    [[nodiscard]] const State::FlatMap<IntfId, ClassLatency>& latency() const { return latency_; }
    void latencyIs(IntfId id, ClassLatency v) { setEntry(latency_, id, v, "latency"); }
    void latencyDel(IntfId id) { delEntry(latency_, id, "latency"); }

    template <class F>
    static constexpr void fields(F&& each) {
        using C = CliConfig;
        each(State::map("srPvid", &C::srPvid_));
        each(State::scalar("defaultSrPvid", &C::defaultSrPvid_, U16{1}, U16{4094}));
        each(State::scalar("srClassASupported", &C::srClassASupported_));
        each(State::scalar("srClassBSupported", &C::srClassBSupported_));
        each(State::scalar("srClassAPriority", &C::srClassAPriority_, U8{0}, U8{7}));
        each(State::scalar("srClassBPriority", &C::srClassBPriority_, U8{0}, U8{7}));
        each(State::scalar("maxFrameSizeLimit", &C::maxFrameSizeLimit_));
        each(State::scalar("srClassABandwidthPercent", &C::srClassABandwidthPercent_, U8{0}, U8{100}));
        each(State::scalar("srClassBBandwidthPercent", &C::srClassBBandwidthPercent_, U8{0}, U8{100}));
        each(State::scalar("shapeRateFactor", &C::shapeRateFactor_, 0.0, 1000.0));
        each(State::scalar("shapingDisabled", &C::shapingDisabled_));
        each(State::map("latency", &C::latency_));
    }

private:
    State::FlatMap<IntfId, SrPvid> srPvid_;
    U16 defaultSrPvid_ = 2;
    bool srClassASupported_ = true;
    bool srClassBSupported_ = true;
    U8 srClassAPriority_ = 3;
    U8 srClassBPriority_ = 2;
    U16 maxFrameSizeLimit_ = 1500;
    U8 srClassABandwidthPercent_ = 75;
    U8 srClassBBandwidthPercent_ = 0;
    double shapeRateFactor_ = 1.0;
    bool shapingDisabled_ = false;
    State::FlatMap<IntfId, ClassLatency> latency_;
};

}  // namespace Msrp

// Made once, in the source file beside this header.
extern template class State::Record<Msrp::Config>;
extern template class State::Record<Msrp::CliConfig>;
