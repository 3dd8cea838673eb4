/// The switch's redundancy status: which of two supervisors this one is.
#pragma once

#include "State/Record.h"

#include <array>
#include <string>
#include <string_view>

namespace Redundancy {

/// The numbers are the platform's; agents know three of them.
enum class Mode : std::uint32_t {
    unknown = 0,
    disabled = 1,
    simplex = 2,
    standby = 3,
    active = 4,
    switchover = 5
};
constexpr auto modeNames = std::to_array<State::EnumName<Mode>>({{Mode::unknown, "unknown"},
                                                                 {Mode::disabled, "disabled"},
                                                                 {Mode::simplex, "simplex"},
                                                                 {Mode::standby, "standby"},
                                                                 {Mode::active, "active"},
                                                                 {Mode::switchover, "switchover"}});
constexpr const auto& enumNames(Mode) { return modeNames; }

/// "redundancy/status"
class RedundancyStatus : public State::Record<RedundancyStatus> {
public:
    static constexpr std::string_view type = "Redundancy::RedundancyStatus";

    [[nodiscard]] Mode mode() const { return mode_; }
    void modeIs(Mode v) { assign(mode_, v, "mode"); }
    /// Start-up events of the platform and whether each is complete.
    [[nodiscard]] bool eventComplete(const std::string& name) const { return event_.get(name, false); }
    void eventIs(const std::string& name, bool complete) { setEntry(event_, name, complete, "event"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("mode", &RedundancyStatus::mode_));
        each(State::map("event", &RedundancyStatus::event_));
    }

private:
    Mode mode_ = Mode::unknown;
    State::FlatMap<std::string, bool> event_;
};

}  // namespace Redundancy

// Made once, in the source file beside this header.
extern template class State::Record<Redundancy::RedundancyStatus>;
