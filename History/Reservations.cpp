#include "History/Reservations.h"

#include "History/Gone.h"

#include <algorithm>
#include <utility>

namespace History {

using State::Value;

Reservation* Reservations::find(std::uint64_t stream, IntfId intf) {
    const auto held = streams_.find(stream);
    if (held == streams_.end()) return nullptr;
    const auto at = std::ranges::find(held->second, intf, &Reservation::intf);
    return at == held->second.end() ? nullptr : &*at;
}

Reservation& Reservations::reservationIs(std::uint64_t stream, IntfId intf) {
    if (Reservation* held = find(stream, intf)) return *held;
    return streams_[stream].emplace_back(Reservation{.intf = intf});
}

void Reservations::reservationDel(std::uint64_t stream, IntfId intf) {
    const auto held = streams_.find(stream);
    if (held == streams_.end()) return;
    std::erase_if(held->second, [&](const Reservation& r) { return r.intf == intf; });
    if (held->second.empty()) streams_.erase(held);
}

State::Object Reservations::entries(const State::From& from, std::size_t most) const {
    const auto seconds = [](Runtime::Time t) {
        return t == Runtime::Time{} ? Value{} : Value{Runtime::seconds(t)};
    };
    State::Object all;
    for (auto at = firstFrom(streams_, from); at != streams_.end() && all.size() < most; ++at) {
        State::Object ports;
        for (const Reservation& r : at->second) {
            ports.emplace_back(r.intf.name(), State::Object{{"talker", seconds(r.talker)},
                                                            {"declared", seconds(r.declared)},
                                                            {"asked", seconds(r.asked)},
                                                            {"admitted", seconds(r.admitted)},
                                                            {"group", seconds(r.group)},
                                                            {"queue", seconds(r.queue)}});
        }
        all.emplace_back(State::hexText(at->first), Value{std::move(ports)});
    }
    return all;
}

State::Schema Reservations::entriesSchema() {
    const State::Schema time = State::orNull(State::Codec<double>::schema());
    return State::mapOf(State::HexKey::schema(),
                        State::mapOf(State::KeyText<IntfId>::schema(), State::objectOf({{"talker", time},
                                                                                        {"declared", time},
                                                                                        {"asked", time},
                                                                                        {"admitted", time},
                                                                                        {"group", time},
                                                                                        {"queue", time}})));
}

}  // namespace History

template class State::Record<History::Reservations>;
