/// "linux/config": which bridge of this machine is the switch, and what may be done to it.  Read at start; a
/// change needs a restart.
#pragma once

#include "State/Record.h"
#include "Switch/Ranged.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace Linux {

/// How a port's queues give the SR classes their bandwidth.
enum class Shaping : std::uint8_t {
    automatic,  ///< the best that the port can: credits in hardware, in software, token buckets, none
    hardware,   ///< credits, in hardware or not at all
    software,   ///< credits, without asking the hardware
    htb,        ///< token buckets
    none,       ///< the queues are left alone
};
constexpr auto shapingNames = std::to_array<State::EnumName<Shaping>>({{Shaping::automatic, "automatic"},
                                                                       {Shaping::hardware, "hardware"},
                                                                       {Shaping::software, "software"},
                                                                       {Shaping::htb, "htb"},
                                                                       {Shaping::none, "none"}});
constexpr const auto& enumNames(Shaping) { return shapingNames; }

/// Where to ask about common time; not at all where the path is empty.
struct Gptp {
    std::string socket;  ///< of a ptp4l process
    bool operator==(const Gptp&) const = default;
};

}  // namespace Linux

template <>
struct State::Codec<Linux::Gptp> {
    static constexpr std::string_view typeName = "gptp";
    static Value encode(const Linux::Gptp& v) { return Value{Object{{"socket", Value{v.socket}}}}; }
    static std::optional<Linux::Gptp> decode(const Value& v) {
        const Object* members = v.object();
        if (members == nullptr || members->size() > 1) return std::nullopt;
        if (members->empty()) return Linux::Gptp{};
        const auto path = Codec<std::string>::decode(members->front().second);
        if (members->front().first != "socket" || !path) return std::nullopt;
        return Linux::Gptp{*path};
    }
    static std::string expected() { return "like { \"socket\": \"/var/run/ptp4l\" }"; }
    static Schema schema() {
        return {.type = "object", .fields = {{"socket", Codec<std::string>::schema()}}};
    }
};

namespace Linux {

/// Which frames may use the queues of the SR classes.
enum class Fencing : std::uint8_t {
    ports,    ///< those that come in on ports inside the classes' domain
    streams,  ///< of these, the frames of streams that are registered there
    none,     ///< all that have a class's priority
};
constexpr auto fencingNames = std::to_array<State::EnumName<Fencing>>(
    {{Fencing::ports, "ports"}, {Fencing::streams, "streams"}, {Fencing::none, "none"}});
constexpr const auto& enumNames(Fencing) { return fencingNames; }

/// What is done with the frames of streams where they come in from their talkers.
enum class Metering : std::uint8_t {
    none,
    measure,  ///< they are counted
    police,   ///< and dropped where they are over their reservation for longer than bursts last
};
constexpr auto meteringNames = std::to_array<State::EnumName<Metering>>(
    {{Metering::none, "none"}, {Metering::measure, "measure"}, {Metering::police, "police"}});
constexpr const auto& enumNames(Metering) { return meteringNames; }

class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Linux::Config";

    /// Name of the bridge; empty: none, and the bridging records are the operator's own.
    [[nodiscard]] const std::string& bridge() const { return bridge_; }
    void bridgeIs(const std::string& v) { assign(bridge_, v, "bridge"); }
    /// VLANs whose members are all ports of a bridge that does not filter VLANs, and whether their frames
    /// carry the tag.
    [[nodiscard]] const State::FlatMap<VlanId, bool>& srVlan() const { return srVlan_; }
    void srVlanIs(VlanId id, bool tagged) { setEntry(srVlan_, id, tagged, "srVlan"); }
    /// Number that marks the bridge's group entries as ours, 4 to 255.
    [[nodiscard]] std::uint8_t groupProtocol() const { return groupProtocol_; }
    void groupProtocolIs(std::uint8_t v) { assign(groupProtocol_, v, "groupProtocol"); }
    /// Room for groups that the bridge is given at start; 0: left as it is.
    [[nodiscard]] std::uint32_t groupTableSize() const { return groupTableSize_; }
    void groupTableSizeIs(std::uint32_t v) { assign(groupTableSize_, v, "groupTableSize"); }
    /// Whether ports behind which the kernel takes a multicast router to be get every stream.
    [[nodiscard]] bool routerPorts() const { return routerPorts_; }
    void routerPortsIs(bool v) { assign(routerPorts_, v, "routerPorts"); }
    [[nodiscard]] Shaping shaping() const { return shaping_; }
    void shapingIs(Shaping v) { assign(shaping_, v, "shaping"); }
    /// Major number of the root queueing discipline that marks a port's queues as ours, 1 to 0xFFEF.  The two
    /// numbers behind it are used too.
    [[nodiscard]] std::uint16_t queueHandle() const { return queueHandle_; }
    /// Whether ports let the tag's priority choose the queue, which a bridge does not do by itself.
    [[nodiscard]] bool ingressPriority() const { return ingressPriority_; }
    void ingressPriorityIs(bool v) { assign(ingressPriority_, v, "ingressPriority"); }
    [[nodiscard]] Fencing fence() const { return fence_; }
    void fenceIs(Fencing v) { assign(fence_, v, "fence"); }

    [[nodiscard]] Metering streams() const { return streams_; }
    void streamsIs(Metering v) { assign(streams_, v, "streams"); }

    /// The ptp4l that knows which ports keep common time with their neighbours: streams are offered to those
    /// alone.
    [[nodiscard]] const Gptp& gptp() const { return gptp_; }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("bridge", &Config::bridge_));
        each(State::map("srVlan", &Config::srVlan_));
        each(State::scalar("groupProtocol", &Config::groupProtocol_, std::uint8_t{4}, std::uint8_t{255}));
        each(State::scalar("groupTableSize", &Config::groupTableSize_));
        each(State::scalar("routerPorts", &Config::routerPorts_));
        each(State::scalar("shaping", &Config::shaping_));
        each(State::scalar("queueHandle", &Config::queueHandle_, std::uint16_t{1}, std::uint16_t{0xFFEF}));
        each(State::scalar("ingressPriority", &Config::ingressPriority_));
        each(State::scalar("gptp", &Config::gptp_));
        each(State::scalar("fence", &Config::fence_));
        each(State::scalar("streams", &Config::streams_));
    }

private:
    std::string bridge_;
    State::FlatMap<VlanId, bool> srVlan_;
    std::uint8_t groupProtocol_ = 78;
    std::uint32_t groupTableSize_ = 0;
    bool routerPorts_ = false;
    Shaping shaping_ = Shaping::automatic;
    std::uint16_t queueHandle_ = 0x100;
    bool ingressPriority_ = true;
    Gptp gptp_;
    Fencing fence_ = Fencing::ports;
    Metering streams_ = Metering::none;
};

}  // namespace Linux

// Made once, in the source file beside this header.
extern template class State::Record<Linux::Config>;
