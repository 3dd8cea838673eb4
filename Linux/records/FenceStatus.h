/// "linux/fence": from which frames the bridge's ports take the priorities of the SR classes.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <memory>
#include <string>
#include <string_view>

namespace Linux {

/// The fence of one port.
class PortFence : public State::Record<PortFence> {
public:
    static constexpr std::string_view type = "Linux::PortFence";
    explicit PortFence(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    /// The priorities that incoming frames lose.
    [[nodiscard]] const State::FlatMap<Cos, bool>& closed() const { return closed_; }
    void closedIs(Cos priority) { setEntry(closed_, priority, true, "closed"); }
    void closedDel(Cos priority) { delEntry(closed_, priority, "closed"); }
    /// What keeps it from standing; empty: nothing does.
    [[nodiscard]] const std::string& problem() const { return problem_; }
    void problemIs(const std::string& v) { assign(problem_, v, "problem"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("closed", &PortFence::closed_));
        each(State::scalar("problem", &PortFence::problem_));
    }

private:
    IntfId intfId_;
    State::FlatMap<Cos, bool> closed_;
    std::string problem_;
};

class FenceStatus : public State::Record<FenceStatus> {
public:
    static constexpr std::string_view type = "Linux::FenceStatus";

    [[nodiscard]] const State::Collection<IntfId, PortFence>& port() const { return port_; }
    [[nodiscard]] std::shared_ptr<const PortFence> port(IntfId id) const { return port_.get(id); }
    std::shared_ptr<PortFence> portIs(IntfId id) { return makeChild(port_, id, "port"); }
    void portDel(IntfId id) { delChild(port_, id, "port"); }

    /// Why streams are not told apart from other frames; empty: they are.
    [[nodiscard]] const std::string& problem() const { return problem_; }
    void problemIs(const std::string& v) { assign(problem_, v, "problem"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("port", &FenceStatus::port_));
        each(State::scalar("problem", &FenceStatus::problem_));
    }

private:
    std::string problem_;
    State::Collection<IntfId, PortFence> port_;
};

}  // namespace Linux

// Made once, in the source file beside this header.
extern template class State::Record<Linux::PortFence>;
extern template class State::Record<Linux::FenceStatus>;
