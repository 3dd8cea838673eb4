#include "Msrp/types/StreamData.h"

#include <algorithm>
#include <map>

namespace Msrp {

namespace {
auto lowerBound(auto& ports, IntfId intf) {
    return std::lower_bound(ports.begin(), ports.end(), intf,
                            [](const StreamPort& p, IntfId key) { return p.intf < key; });
}
}  // namespace

const StreamPort* StreamData::port(IntfId intf) const {
    const auto at = lowerBound(ports_, intf);
    return at != ports_.end() && at->intf == intf ? &*at : nullptr;
}

const StreamPort& StreamData::row(IntfId intf) const {
    static const StreamPort none;
    const StreamPort* found = port(intf);
    return found != nullptr ? *found : none;
}

StreamPort& StreamData::rowIs(IntfId intf) {
    auto at = lowerBound(ports_, intf);
    if (at == ports_.end() || at->intf != intf) {
        at = ports_.insert(at, StreamPort{});
        at->intf = intf;
    }
    return *at;
}

void StreamData::rowChanged(IntfId intf, std::string_view field) {
    const auto at = lowerBound(ports_, intf);
    if (at != ports_.end() && at->intf == intf && at->empty()) ports_.erase(at);
    changed(State::Change{*this, field, intf});
}

bool StreamData::hasTalkerFailureCode() const {
    return std::ranges::any_of(ports_, [](const StreamPort& p) { return p.hasFailureCode; });
}

std::optional<IntfId> StreamData::portWithListener() const {
    const auto at = std::ranges::find_if(
        ports_, [](const StreamPort& p) { return p.hasListenerState || p.hasListenerStateOrig; });
    return at == ports_.end() ? std::nullopt : std::optional<IntfId>{at->intf};
}

void StreamData::setTalkerStateAndAge(IntfId intf, TalkerState state, double now) {
    StreamPort& p = rowIs(intf);
    p.talkerState = state;
    p.hasTalkerState = true;
    p.statusTime = now;
    p.hasStatusTime = true;
    rowChanged(intf, "talkerState");
}

void StreamData::setListenerStateAndAge(IntfId intf, ListenerState state, double now) {
    StreamPort& p = rowIs(intf);
    if (p.hasListenerState && p.listenerState == state) return;
    p.listenerState = state;
    p.hasListenerState = true;
    p.statusTime = now;
    p.hasStatusTime = true;
    rowChanged(intf, "listenerState");
}

void StreamData::delTalkerStateAndAge(IntfId intf) {
    if (!row(intf).hasTalkerState) return;
    StreamPort& p = rowIs(intf);
    p.talkerState = TalkerState::None;
    p.hasTalkerState = false;
    p.statusTime = 0.0;
    p.hasStatusTime = false;
    rowChanged(intf, "talkerState");
}

void StreamData::delListenerStateAndAge(IntfId intf) {
    if (!row(intf).hasListenerState) return;
    StreamPort& p = rowIs(intf);
    p.listenerState = ListenerState::Ignore;
    p.hasListenerState = false;
    p.statusTime = 0.0;
    p.hasStatusTime = false;
    rowChanged(intf, "listenerState");
}

void StreamData::listenerStateOrigIs(IntfId intf, ListenerState state) {
    StreamPort& p = rowIs(intf);
    if (p.hasListenerStateOrig && p.listenerStateOrig == state) return;
    p.listenerStateOrig = state;
    p.hasListenerStateOrig = true;
    rowChanged(intf, "listenerStateOrig");
}

void StreamData::listenerStateOrigDel(IntfId intf) {
    if (!row(intf).hasListenerStateOrig) return;
    StreamPort& p = rowIs(intf);
    p.listenerStateOrig = ListenerState::Ignore;
    p.hasListenerStateOrig = false;
    rowChanged(intf, "listenerStateOrig");
}

void StreamData::talkerDelAll() {
    const std::vector<StreamPort> before = ports_;
    for (const StreamPort& p : before) {
        delTalkerStateAndAge(p.intf);
        talkerFailureCodeDel(p.intf);
    }
    failedBridgeIdIs(0);
}

void StreamData::talkerFailureCodeIs(IntfId intf, TalkerFailureCode code) {
    StreamPort& p = rowIs(intf);
    if (p.hasFailureCode && p.talkerFailureCode == code) return;
    p.talkerFailureCode = code;
    p.hasFailureCode = true;
    rowChanged(intf, "talkerFailureCode");
}

void StreamData::talkerFailureCodeDel(IntfId intf) {
    if (!row(intf).hasFailureCode) return;
    StreamPort& p = rowIs(intf);
    p.talkerFailureCode = TalkerFailureCode::noFailure;
    p.hasFailureCode = false;
    rowChanged(intf, "talkerFailureCode");
}

void StreamData::statusTimeIs(IntfId intf, double time) {
    StreamPort& p = rowIs(intf);
    if (p.hasStatusTime && p.statusTime == time) return;
    p.statusTime = time;
    p.hasStatusTime = true;
    rowChanged(intf, "statusTime");
}

template <class T>
State::MaybeProblem StreamData::restoreColumn(std::string_view field, T StreamPort::*member,
                                              bool StreamPort::*has, const State::Value& value,
                                              double shift) {
    const State::Object* entries = value.object();
    if (entries == nullptr) return State::badValue(value, "an object");
    std::map<IntfId, T> given;
    for (const auto& [name, text] : *entries) {
        const auto intf = State::KeyText<IntfId>::parse(name);
        if (!intf) return State::badKey(name, State::KeyText<IntfId>::expected());
        auto told = State::Codec<Told<T>>::decode(text);
        if (!told) return State::badValue(text, State::Codec<Told<T>>::expected()).below(name);
        if constexpr (std::is_same_v<T, double>) *told += shift;
        given[*intf] = static_cast<T>(*told);
    }
    std::vector<IntfId> changes;
    for (StreamPort& port : ports_) {
        if (!(port.*has) || given.contains(port.intf)) continue;
        port.*has = false;
        port.*member = T{};
        changes.push_back(port.intf);
    }
    for (const auto& [intf, told] : given) {
        StreamPort& port = rowIs(intf);
        if (port.*has && port.*member == told) continue;
        port.*has = true;
        port.*member = told;
        changes.push_back(intf);
    }
    for (const IntfId intf : changes) rowChanged(intf, field);
    return std::nullopt;
}

State::MaybeProblem StreamData::restoreFailedBridge(const State::Value& value) {
    const auto* text = std::get_if<std::string>(&value.data);
    const auto id = text != nullptr ? State::HexKey::parse(*text) : std::nullopt;
    if (!id) return State::badValue(value, State::HexKey::expected());
    failedBridgeIdIs(*id);
    return std::nullopt;
}

State::MaybeProblem StreamData::restoreGroup(const State::Value& value) {
    if (value.isNull()) {
        ethGroupIs(nullptr);
        return std::nullopt;
    }
    const auto addr = State::Codec<EthAddr>::decode(value);
    if (!addr) return State::badValue(value, State::Codec<EthAddr>::expected());
    if (!ethGroup_ || ethGroup_->addr() != *addr)
        ethGroupIs(std::make_shared<Bridging::Input::EthGroup>(*addr));
    return std::nullopt;
}

template State::MaybeProblem StreamData::restoreColumn(std::string_view, TalkerState StreamPort::*,
                                                       bool StreamPort::*, const State::Value&, double);
template State::MaybeProblem StreamData::restoreColumn(std::string_view, ListenerState StreamPort::*,
                                                       bool StreamPort::*, const State::Value&, double);
template State::MaybeProblem StreamData::restoreColumn(std::string_view, TalkerFailureCode StreamPort::*,
                                                       bool StreamPort::*, const State::Value&, double);
template State::MaybeProblem StreamData::restoreColumn(std::string_view, double StreamPort::*,
                                                       bool StreamPort::*, const State::Value&, double);

}  // namespace Msrp

template class State::Record<Msrp::StreamData>;
