#include "History/StreamFollower.h"

#include <algorithm>
#include <typeinfo>

namespace History {

using Msrp::StreamData;
using Runtime::Time;

namespace {

/// Streams that are looked at in one go: some tenths of a millisecond.
constexpr std::size_t atOnce = 256;

constexpr auto talkerField = State::fieldName<StreamData>("talkerState");
constexpr auto ingressField = State::fieldName<StreamData>("ingressIntf");
constexpr auto askedField = State::fieldName<StreamData>("listenerStateOrig");
constexpr auto listenerField = State::fieldName<StreamData>("listenerState");
constexpr auto codeField = State::fieldName<StreamData>("talkerFailureCode");

Time timeOf(double seconds) { return Time{Runtime::secondsDuration(seconds)}; }

}  // namespace

StreamFollower::StreamFollower(Runtime::Loop& loop, Records records, bool kernel)
    : loop_{loop},
      records_{std::move(records)},
      kernel_{kernel},
      again_{loop, [this] { lookAtSome(); }},
      reactor_{records_.status->watch([this](const State::Change& change) { changed(change); })} {
    records_.status->registeredStreams().each(
        [this](std::uint64_t id, const StreamData&) { mark(id, seen(id)); });
}

void StreamFollower::changed(const State::Change& change) {
    // Counters of ports come by as well, and as often as frames: the quick questions first.
    if (typeid(change.entity) == typeid(StreamData))
        return streamChanged(static_cast<const StreamData&>(change.entity), change);
    const auto* id = change.key<std::uint64_t>();
    if (id == nullptr) return;
    // One that has come to be published is as it was; one that has gone is not.
    if (const auto at = streams_.find(*id); at != streams_.end() && !records_.status->registeredStreams(*id))
        mark(*id, at->second);
}

void StreamFollower::streamChanged(const StreamData& stream, const State::Change& change) {
    const std::uint64_t id = stream.streamId();
    if (change.field == ingressField) return mark(id, seen(id));
    const auto* intf = change.key<IntfId>();
    if (intf == nullptr) return;
    const std::string_view field = change.field;
    if (field == talkerField || field == codeField || field == askedField || field == listenerField)
        portChanged(id, stream, *intf, field);
}

void StreamFollower::portChanged(std::uint64_t id, const StreamData& stream, IntfId intf,
                                 std::string_view field) {
    Seen& known = seen(id);
    const Msrp::StreamPort* row = stream.port(intf);
    if (intf == stream.ingressIntf()) {
        if (field == talkerField && row != nullptr && row->talkerState != Msrp::TalkerState::None &&
            known.told.talker != intf)
            known.talker = loop_.now();
        if (field == talkerField || field == codeField) mark(id, known);
        return;
    }
    const bool asks = row != nullptr && row->hasListenerStateOrig;
    if (!asks) {
        if (field == askedField) mark(id, known);
        return;
    }
    Reservation& reservation = records_.reservations->reservationIs(id, intf);
    if (reservation.asked == Time{}) {
        reservation.asked = loop_.now();
        // The row's time is that of the declaration as long as no listener had an answer.
        if (row->talkerState == Msrp::TalkerState::Advertise && !row->hasListenerState &&
            row->hasStatusTime) {
            reservation.talker = known.talker;
            declared(reservation, timeOf(row->statusTime));
        }
    }
    if (field == talkerField && row->talkerState == Msrp::TalkerState::Advertise) {
        reservation.talker = known.talker;
        declared(reservation, loop_.now());
    }
    if (field == listenerField && Msrp::wantsStream(row->listenerState)) {
        if (reservation.admitted == Time{}) admitted(id, stream, reservation);
    } else if (field == listenerField && reservation.admitted != Time{}) {
        released(id, reservation);
    }
    mark(id, known);
}

StreamFollower::Seen& StreamFollower::seen(std::uint64_t id) {
    if (last_ == streams_.end() || last_->first != id) last_ = streams_.try_emplace(id).first;
    return last_->second;
}

void StreamFollower::mark(std::uint64_t id, Seen& stream) {
    if (stream.due) return;
    stream.due = true;
    stream.since = loop_.now();
    const bool first = due_.empty();
    due_.push_back(id);
    if (!first) return;
    loop_.post([this, alive = std::weak_ptr<bool>{alive_}] {
        if (!alive.expired()) lookAtSome();
    });
}

void StreamFollower::lookAtSome() {
    for (std::size_t left = atOnce; left > 0 && looked_ < due_.size(); --left) {
        const std::uint64_t id = due_[looked_++];
        const auto at = streams_.find(id);
        if (at != streams_.end()) look(id, at->second);
    }
    const bool more = looked_ < due_.size();
    // Also while more come than are looked at; each moves once for each that was looked at.
    if (2 * looked_ > due_.size()) {
        due_.erase(due_.begin(), due_.begin() + static_cast<std::ptrdiff_t>(looked_));
        looked_ = 0;
    }
    if (more) again_.armIn(Runtime::Duration{0});
}

void StreamFollower::finish() {
    while (looked_ < due_.size()) lookAtSome();
}

void StreamFollower::look(std::uint64_t id, Seen& stream) {
    stream.due = false;
    auto record = records_.status->registeredStreams(id);
    if (!record) record = records_.status->arriving(id);
    StreamState now = record ? stateOf(*record) : StreamState{};
    const StreamState before = std::exchange(stream.told, now);
    const auto why = [this](IntfId intf, Msrp::SrClassId srClass) {
        return reasonOf(records_.status->intfStatus(intf).get(), srClass);
    };
    events_.clear();
    appendChanges(id, before, now, why, events_);
    for (Event& event : events_) {
        if (event.kind == Kind::left) {
            const auto wall = loop_.wallNow() - (loop_.now() - stream.since);
            records_.gone->streamIs(id, {before, stream.since, wall, event.reason});
        }
        records_.journal->add(std::move(event), stream.since);
    }
    for (const PortState& port : before.ports) {
        const auto still = std::ranges::find(now.ports, port.intf, &PortState::intf);
        Reservation* reservation = records_.reservations->find(id, port.intf);
        if (reservation == nullptr) continue;
        if (still == now.ports.end() || still->holding != Holding::reserved) released(id, *reservation);
        if (still == now.ports.end()) records_.reservations->reservationDel(id, port.intf);
    }
    if (now.empty()) {
        last_ = streams_.end();
        streams_.erase(id);
    }
}

void StreamFollower::declared(Reservation& reservation, Time when) {
    reservation.declared = when;
    if (reservation.talker != Time{})
        records_.times->add(Stage::declared, reservation.declared - reservation.talker);
}

void StreamFollower::admitted(std::uint64_t id, const StreamData& stream, Reservation& reservation) {
    reservation.admitted = loop_.now();
    if (reservation.declared != Time{}) {
        const Time both = std::max(reservation.declared, reservation.asked);
        records_.times->add(Stage::asked, both - reservation.declared);
        records_.times->add(Stage::admitted, reservation.admitted - both);
        if (!kernel_) records_.times->add(Stage::whole, reservation.admitted - both);
    }
    if (!kernel_) return;
    reservation.awaited = {VlanId{stream.vlanId()}, stream.macDa()};
    groupDue_[{reservation.awaited, reservation.intf}] = id;
    queueDue_.emplace(reservation.intf, id);
}

void StreamFollower::released(std::uint64_t id, Reservation& reservation) {
    if (reservation.admitted == Time{}) return;
    reservation.admitted = reservation.group = reservation.queue = Time{};
    if (!kernel_) return;
    const auto due = groupDue_.find({reservation.awaited, reservation.intf});
    if (due != groupDue_.end() && due->second == id) groupDue_.erase(due);
    queueDue_.erase({reservation.intf, id});
}

void StreamFollower::shaped(Reservation& reservation, Time Reservation::*stage, Stage name) {
    if (reservation.admitted == Time{} || reservation.*stage != Time{}) return;
    reservation.*stage = loop_.now();
    records_.times->add(name, reservation.*stage - reservation.admitted);
    if (reservation.group == Time{} || reservation.queue == Time{} || reservation.declared == Time{}) return;
    records_.times->add(Stage::whole, std::max(reservation.group, reservation.queue) -
                                          std::max(reservation.declared, reservation.asked));
}

void StreamFollower::groupForwarded(const Switch::GroupId& group, IntfId intf) {
    const auto due = groupDue_.extract({group, intf});
    if (!due) return;
    if (Reservation* reservation = records_.reservations->find(due.mapped(), intf))
        shaped(*reservation, &Reservation::group, Stage::group);
}

void StreamFollower::queuesShaped(IntfId intf) {
    auto due = queueDue_.lower_bound({intf, 0});
    while (due != queueDue_.end() && due->first == intf) {
        if (Reservation* reservation = records_.reservations->find(due->second, intf))
            shaped(*reservation, &Reservation::queue, Stage::queue);
        due = queueDue_.erase(due);
    }
}

}  // namespace History
