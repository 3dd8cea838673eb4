/// Ethernet interface status: what the switch knows of its ports' links.
#pragma once

#include "State/Record.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"

#include <array>
#include <memory>
#include <string_view>

namespace Interface {

enum class LinkStatus : std::uint8_t { linkUnknown, linkDown, linkUp };
constexpr auto linkStatusNames = std::to_array<State::EnumName<LinkStatus>>(
    {{LinkStatus::linkUnknown, "unknown"}, {LinkStatus::linkDown, "down"}, {LinkStatus::linkUp, "up"}});
constexpr const auto& enumNames(LinkStatus) { return linkStatusNames; }

/// Link speeds by the numbers under which the switch's interface service publishes them.
enum class Speed : std::uint8_t {
    speedUnknown = 0,
    speed10Mbps = 1,
    speed100Mbps = 2,
    speed1Gbps = 3,
    speed2500Mbps = 4,
    speed5Gbps = 5,
    speed10Gbps = 6,
    speed25Gbps = 7,
    speed40Gbps = 8,
    speed50Gbps = 9,
    speed100Gbps = 10,
    speed200Gbps = 11,
    speed400Gbps = 12,
};
struct SpeedInfo {
    State::EnumName<Speed> name;
    std::uint32_t megabitsPerSecond;
};
/// In the order of their numbers, which is that of the speeds.
constexpr auto speeds = std::to_array<SpeedInfo>({{{Speed::speedUnknown, "unknown"}, 0},
                                                  {{Speed::speed10Mbps, "10M"}, 10},
                                                  {{Speed::speed100Mbps, "100M"}, 100},
                                                  {{Speed::speed1Gbps, "1G"}, 1'000},
                                                  {{Speed::speed2500Mbps, "2.5G"}, 2'500},
                                                  {{Speed::speed5Gbps, "5G"}, 5'000},
                                                  {{Speed::speed10Gbps, "10G"}, 10'000},
                                                  {{Speed::speed25Gbps, "25G"}, 25'000},
                                                  {{Speed::speed40Gbps, "40G"}, 40'000},
                                                  {{Speed::speed50Gbps, "50G"}, 50'000},
                                                  {{Speed::speed100Gbps, "100G"}, 100'000},
                                                  {{Speed::speed200Gbps, "200G"}, 200'000},
                                                  {{Speed::speed400Gbps, "400G"}, 400'000}});
constexpr auto speedNames = [] {
    std::array<State::EnumName<Speed>, speeds.size()> names{};
    for (std::size_t i = 0; i < speeds.size(); ++i) names[i] = speeds[i].name;
    return names;
}();
constexpr const auto& enumNames(Speed) { return speedNames; }

/// 0 for an unknown speed.
constexpr std::uint32_t megabitsPerSecond(Speed speed) {
    const auto index = static_cast<std::size_t>(speed);
    return index < speeds.size() ? speeds[index].megabitsPerSecond : 0;
}
/// The named speed that a link of so many Mbit/s can keep: the highest that is not above it.  Unknown below
/// 10 Mbit/s and for 0, which is unknown.
constexpr Speed namedSpeed(std::uint32_t megabitsPerSecond) {
    Speed named = Speed::speedUnknown;
    for (const SpeedInfo& speed : speeds) {
        if (speed.megabitsPerSecond <= megabitsPerSecond) named = speed.name.value;
    }
    return named;
}

/// One port's physical status.
class EthPhyIntfStatus : public State::Record<EthPhyIntfStatus> {
public:
    static constexpr std::string_view type = "Interface::EthPhyIntfStatus";
    explicit EthPhyIntfStatus(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] LinkStatus linkStatus() const { return linkStatus_; }
    void linkStatusIs(LinkStatus v) { assign(linkStatus_, v, "linkStatus"); }
    [[nodiscard]] Speed speedEnum() const { return speedEnum_; }
    void speedEnumIs(Speed v) { assign(speedEnum_, v, "speedEnum"); }
    /// The port's own address, the source of the frames that it sends.
    [[nodiscard]] EthAddr macAddr() const { return macAddr_; }
    void macAddrIs(EthAddr v) { assign(macAddr_, v, "macAddr"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("linkStatus", &EthPhyIntfStatus::linkStatus_));
        each(State::scalar("speedEnum", &EthPhyIntfStatus::speedEnum_));
        each(State::scalar("macAddr", &EthPhyIntfStatus::macAddr_));
    }

private:
    IntfId intfId_;
    LinkStatus linkStatus_ = LinkStatus::linkUnknown;
    Speed speedEnum_ = Speed::speedUnknown;
    EthAddr macAddr_;
};

/// All ports' physical status ("interface/status/eth/phy/all").
class AllEthPhyIntfStatusDir : public State::Record<AllEthPhyIntfStatusDir> {
public:
    static constexpr std::string_view type = "AllEthPhyIntfStatusDir";

    [[nodiscard]] const State::Collection<IntfId, EthPhyIntfStatus>& intfStatus() const {
        return intfStatus_;
    }
    [[nodiscard]] std::shared_ptr<const EthPhyIntfStatus> intfStatus(IntfId id) const {
        return intfStatus_.get(id);
    }
    [[nodiscard]] std::shared_ptr<EthPhyIntfStatus> intfStatus(IntfId id) { return intfStatus_.get(id); }
    std::shared_ptr<EthPhyIntfStatus> intfStatusIs(IntfId id) {
        return makeChild(intfStatus_, id, "intfStatus");
    }
    void intfStatusDel(IntfId id) { delChild(intfStatus_, id, "intfStatus"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("intfStatus", &AllEthPhyIntfStatusDir::intfStatus_));
    }

private:
    State::Collection<IntfId, EthPhyIntfStatus> intfStatus_;
};

/// A directory of interfaces by name, kept for agents that only ask which interfaces there are.
template <class Tag>
class IntfDir : public State::Record<IntfDir<Tag>> {
public:
    static constexpr std::string_view type = Tag::type;

    [[nodiscard]] const State::FlatMap<IntfId, bool>& intf() const { return intf_; }
    void intfIs(IntfId id, bool present) { this->setEntry(intf_, id, present, "intf"); }
    void intfDel(IntfId id) { this->delEntry(intf_, id, "intf"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("intf", &IntfDir::intf_));
    }

private:
    State::FlatMap<IntfId, bool> intf_;
};

struct AllIntfStatusTag {
    static constexpr std::string_view type = "AllIntfStatusDir";
};
struct AllIntfStatusLocalTag {
    static constexpr std::string_view type = "AllIntfStatusLocalDir";
};
struct EthIntfStatusTag {
    static constexpr std::string_view type = "EthIntfStatusDir";
};
using AllIntfStatusDir = IntfDir<AllIntfStatusTag>;
using AllIntfStatusLocalDir = IntfDir<AllIntfStatusLocalTag>;
using EthIntfStatusDir = IntfDir<EthIntfStatusTag>;

}  // namespace Interface

// Made once, in the source file beside this header.
extern template class State::Record<Interface::EthPhyIntfStatus>;
extern template class State::Record<Interface::AllEthPhyIntfStatusDir>;
extern template class State::Record<Interface::AllIntfStatusDir>;
extern template class State::Record<Interface::AllIntfStatusLocalDir>;
extern template class State::Record<Interface::EthIntfStatusDir>;
