/// "switch/domain": where the domain of the SR classes ends, and how large class A's frames are, written by
/// the agent that reserves for them.
///
/// Frames with a class's priority may use its queues only when they come in from inside the domain: on a port
/// that is a core port for that priority (IEEE 802.1Q 6.9.4, where all others are called boundary ports).  A
/// port that is not told of is a core port for none.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace Switch {

/// What one port is to the classes.
class DomainPort : public State::Record<DomainPort> {
public:
    static constexpr std::string_view type = "Switch::DomainPort";
    explicit DomainPort(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    /// True for the classes' priorities for which it is a core port, false for the others of them.
    [[nodiscard]] const State::FlatMap<Cos, bool>& core() const { return core_; }
    void coreIs(Cos priority, bool v) { setEntry(core_, priority, v, "core"); }
    void coreDel(Cos priority) { delEntry(core_, priority, "core"); }
    /// Octets behind the tag of the largest frame that is reserved there in class A; 0: none is.
    [[nodiscard]] std::uint16_t largestFrameA() const { return largestFrameA_; }
    void largestFrameAIs(std::uint16_t v) { assign(largestFrameA_, v, "largestFrameA"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("core", &DomainPort::core_));
        each(State::scalar("largestFrameA", &DomainPort::largestFrameA_));
    }

private:
    IntfId intfId_;
    State::FlatMap<Cos, bool> core_;
    std::uint16_t largestFrameA_ = 0;
};

class Domain : public State::Record<Domain> {
public:
    static constexpr std::string_view type = "Switch::Domain";
    /// Before anybody has said otherwise the classes have the default priorities of IEEE 802.1Q 34.5.
    Domain();

    /// The priorities of the classes that are supported.
    [[nodiscard]] const State::FlatMap<Cos, bool>& classPriority() const { return classPriority_; }
    void classPriorityIs(Cos priority) { setEntry(classPriority_, priority, true, "classPriority"); }
    void classPriorityDel(Cos priority) { delEntry(classPriority_, priority, "classPriority"); }

    [[nodiscard]] const State::Collection<IntfId, DomainPort>& port() const { return port_; }
    [[nodiscard]] std::shared_ptr<DomainPort> port(IntfId id) { return port_.get(id); }
    [[nodiscard]] std::shared_ptr<const DomainPort> port(IntfId id) const { return port_.get(id); }
    std::shared_ptr<DomainPort> portIs(IntfId id) { return makeChild(port_, id, "port"); }
    void portDel(IntfId id) { delChild(port_, id, "port"); }
    void portDelAll() { delChildren(port_, "port"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("classPriority", &Domain::classPriority_));
        each(State::collection("port", &Domain::port_));
    }

private:
    State::FlatMap<Cos, bool> classPriority_;
    State::Collection<IntfId, DomainPort> port_;
};

}  // namespace Switch

// Made once, in the source file beside this header.
extern template class State::Record<Switch::DomainPort>;
extern template class State::Record<Switch::Domain>;
