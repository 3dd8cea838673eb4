/// "switch/time": which ports have a neighbour with which they keep common time (asCapable of IEEE
/// 802.1AS 10.2.4.1). Streams need it: without it their frames are not spaced as promised.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"

#include <memory>
#include <string>

namespace Switch {

class PortTime : public State::Record<PortTime> {
public:
    static constexpr std::string_view type = "Switch::PortTime";
    static constexpr std::string_view capableField = "capable";
    explicit PortTime(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] bool capable() const { return capable_; }
    void capableIs(bool v) { assign(capable_, v, "capable"); }
    /// In words: the state of the port's clock, or why it is not capable.
    [[nodiscard]] const std::string& state() const { return state_; }
    void stateIs(const std::string& v) { assign(state_, v, "state"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar(capableField, &PortTime::capable_));
        each(State::scalar("state", &PortTime::state_));
    }

private:
    IntfId intfId_;
    bool capable_ = false;
    std::string state_;
};

class TimeStatus : public State::Record<TimeStatus> {
public:
    static constexpr std::string_view type = "Switch::TimeStatus";

    /// Whether it matters here: then a port without an entry is not capable.
    [[nodiscard]] bool asked() const { return asked_; }
    void askedIs(bool v) { assign(asked_, v, "asked"); }
    [[nodiscard]] const State::Collection<IntfId, PortTime>& port() const { return port_; }
    [[nodiscard]] std::shared_ptr<const PortTime> port(IntfId id) const { return port_.get(id); }
    std::shared_ptr<PortTime> portIs(IntfId id) { return makeChild(port_, id, "port"); }
    /// The same for one that is made as it is to be, so that nobody sees it before.
    void portIs(IntfId id, bool capable, const std::string& state) {
        const auto held = port_.get(id);
        const auto entry = held ? held : std::make_shared<PortTime>(id);
        entry->stateIs(state);
        entry->capableIs(capable);
        if (!held) putChild(port_, id, entry, "port");
    }
    void portDel(IntfId id) { delChild(port_, id, "port"); }

    /// Whether the port may carry streams as far as time is concerned.
    [[nodiscard]] bool capable(IntfId id) const {
        const auto entry = port_.get(id);
        return !asked_ || (entry && entry->capable());
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("asked", &TimeStatus::asked_));
        each(State::collection("port", &TimeStatus::port_));
    }

private:
    bool asked_ = false;
    State::Collection<IntfId, PortTime> port_;
};

}  // namespace Switch

// Made once, in the source file beside this header.
extern template class State::Record<Switch::PortTime>;
extern template class State::Record<Switch::TimeStatus>;
