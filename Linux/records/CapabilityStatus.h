/// "linux/capabilities": what this machine can do of what a switch needs, and how its ports' queues are
/// shaped.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Linux {

enum class Ability : std::uint8_t {
    unknown,  ///< could not be tried without touching what is in use
    absent,
    present,
};
constexpr auto abilityNames = std::to_array<State::EnumName<Ability>>(
    {{Ability::unknown, "unknown"}, {Ability::absent, "absent"}, {Ability::present, "present"}});
constexpr const auto& enumNames(Ability) { return abilityNames; }

/// How a port's queues are shaped, the best way first.
enum class Shaper : std::uint8_t {
    hardware,  ///< credits, counted by the network card
    software,  ///< credits, counted by the kernel
    htb,       ///< token buckets
    none,
};
constexpr auto shaperNames = std::to_array<State::EnumName<Shaper>>({{Shaper::hardware, "hardware"},
                                                                     {Shaper::software, "software"},
                                                                     {Shaper::htb, "htb"},
                                                                     {Shaper::none, "none"}});
constexpr const auto& enumNames(Shaper) { return shaperNames; }

/// What the kernel offers.
struct Abilities {
    Ability mqprio = Ability::unknown;         ///< transmit queues by priority
    Ability cbs = Ability::unknown;            ///< shaping by credits
    Ability htb = Ability::unknown;            ///< shaping by token buckets
    Ability bpf = Ability::unknown;            ///< filter for the latter
    Ability clsact = Ability::unknown;         ///< filters of incoming packets
    Ability flower = Ability::unknown;         ///< a tag's priority to the packet's, by such a filter
    Ability ebpf = Ability::unknown;           ///< programs that change incoming frames
    Ability vlanFiltering = Ability::unknown;  ///< of bridges
    Ability groups = Ability::unknown;         ///< a bridge's groups by MAC address
    Ability groupOwner = Ability::unknown;     ///< a mark on groups that tells whose they are
    Ability ethtool = Ability::unknown;        ///< notifications of speeds
    bool operator==(const Abilities&) const = default;
};

/// How one port's queues are shaped.
class ShapingStatus : public State::Record<ShapingStatus> {
public:
    static constexpr std::string_view type = "Linux::ShapingStatus";
    explicit ShapingStatus(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] Shaper shaper() const { return shaper_; }
    void shaperIs(Shaper v) { assign(shaper_, v, "shaper"); }
    /// Why no better way; empty where there is none better.
    [[nodiscard]] const std::string& why() const { return why_; }
    void whyIs(const std::string& v) { assign(why_, v, "why"); }
    /// What keeps priorities in tags of incoming frames from choosing their queues; empty: nothing does, or
    /// nothing has to choose.
    [[nodiscard]] const std::string& ingressProblem() const { return ingressProblem_; }
    void ingressProblemIs(const std::string& v) { assign(ingressProblem_, v, "ingressProblem"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("shaper", &ShapingStatus::shaper_));
        each(State::scalar("why", &ShapingStatus::why_));
        each(State::scalar("ingressProblem", &ShapingStatus::ingressProblem_));
    }

private:
    IntfId intfId_;
    Shaper shaper_ = Shaper::none;
    std::string why_ = "nothing is reserved";
    std::string ingressProblem_;
};

class CapabilityStatus : public State::Record<CapabilityStatus> {
public:
    static constexpr std::string_view type = "Linux::CapabilityStatus";

    [[nodiscard]] const Abilities& abilities() const { return abilities_; }
    void abilitiesAre(const Abilities& v);

    [[nodiscard]] const State::Collection<IntfId, ShapingStatus>& shaping() const { return shaping_; }
    [[nodiscard]] std::shared_ptr<const ShapingStatus> shaping(IntfId id) const { return shaping_.get(id); }
    std::shared_ptr<ShapingStatus> shapingIs(IntfId id) { return makeChild(shaping_, id, "shaping"); }
    void shapingDel(IntfId id) { delChild(shaping_, id, "shaping"); }

    template <class F>
    static constexpr void fields(F&& each) {
        for (const auto& [name, ability] : abilityFields) {
            each(State::derived<CapabilityStatus>(name, [ability = ability](const CapabilityStatus& status) {
                return status.abilities_.*ability;
            }));
        }
        each(State::collection("shaping", &CapabilityStatus::shaping_));
    }

    /// The abilities by the names of their fields.
    static constexpr auto abilityFields = std::to_array<std::pair<std::string_view, Ability Abilities::*>>(
        {{"mqprio", &Abilities::mqprio},
         {"cbs", &Abilities::cbs},
         {"htb", &Abilities::htb},
         {"bpf", &Abilities::bpf},
         {"clsact", &Abilities::clsact},
         {"flower", &Abilities::flower},
         {"ebpf", &Abilities::ebpf},
         {"vlanFiltering", &Abilities::vlanFiltering},
         {"groups", &Abilities::groups},
         {"groupOwner", &Abilities::groupOwner},
         {"ethtool", &Abilities::ethtool}});

private:
    Abilities abilities_;
    State::Collection<IntfId, ShapingStatus> shaping_;
};

}  // namespace Linux

// Made once, in the source file beside this header.
extern template class State::Record<Linux::ShapingStatus>;
extern template class State::Record<Linux::CapabilityStatus>;
