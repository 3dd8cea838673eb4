/// What the engine tells of its attributes and timers to whoever looks: made at the moment of reading, since
/// a large switch holds millions of them.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

namespace Mrp {

/// Where a port's record gets its values from: the port's participant.
struct PortView {
    std::function<State::Value()> machines;  ///< its timers and totals
    /// "type/key" to states, values and age; from there on, at most so many.
    std::function<State::Object(const State::From& from, std::size_t most)> attributes;
};

// What the two are.
State::Schema machinesSchema();
State::Schema attributesSchema();

/// One enabled port.
class IntfAttributes : public State::Record<IntfAttributes> {
public:
    static constexpr std::string_view type = "Mrp::IntfAttributes";
    explicit IntfAttributes(IntfId) {}
    void viewIs(PortView view) { view_ = std::move(view); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::derived<IntfAttributes>(
            "machines",
            [](const IntfAttributes& r) { return r.view_.machines ? r.view_.machines() : State::Value{}; },
            machinesSchema));
        each(State::derivedEntries<IntfAttributes>(
            "attribute",
            [](const IntfAttributes& r, const State::From& from, std::size_t most) {
                return r.view_.attributes ? r.view_.attributes(from, most) : State::Object{};
            },
            attributesSchema));
    }

private:
    PortView view_;
};

/// "mrp/attributes"
class AttributesStatus : public State::Record<AttributesStatus> {
public:
    static constexpr std::string_view type = "Mrp::AttributesStatus";

    std::shared_ptr<IntfAttributes> intfIs(IntfId id) { return makeChild(intf_, id, "intf"); }
    void intfDel(IntfId id) { delChild(intf_, id, "intf"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("intf", &AttributesStatus::intf_));
    }

private:
    State::Collection<IntfId, IntfAttributes> intf_;
};

}  // namespace Mrp

// Made once, in Records.cpp.
extern template class State::Record<Mrp::IntfAttributes>;
extern template class State::Record<Mrp::AttributesStatus>;
