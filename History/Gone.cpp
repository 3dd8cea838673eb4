#include "History/Gone.h"

#include <chrono>
#include <utility>

namespace History {

using State::Value;

void Gone::streamIs(std::uint64_t id, Stream stream) {
    // One that leaves again is the newest of the port where it was now.
    if (const auto held = streams_.find(id); held != streams_.end())
        shares_.remove(held->second.had.talker.number(), id);
    if (shares_.full()) {
        const std::uint64_t out = shares_.takeOut();
        streams_.erase(out);
        changed(State::Change{*this, "stream", out});
    }
    shares_.add(stream.had.talker.number(), id);
    streams_[id] = std::move(stream);
    changed(State::Change{*this, "stream", id});
}

State::Object Gone::entries(const State::From& from, std::size_t most) const {
    State::Object all;
    for (auto at = firstFrom(streams_, from); at != streams_.end() && all.size() < most; ++at) {
        const auto& [id, stream] = *at;
        State::Object ports;
        for (const PortState& port : stream.had.ports) {
            ports.emplace_back(port.intf.name(), State::Object{{"holding", State::enumText(port.holding)},
                                                               {"code", Value{std::uint64_t{port.code}}}});
        }
        all.emplace_back(
            State::hexText(id),
            State::Object{{"time", Value{Runtime::seconds(stream.time)}},
                          {"wallTime",
                           Value{std::chrono::duration<double>(stream.wallTime.time_since_epoch()).count()}},
                          {"reason", Value{State::enumText(stream.reason)}},
                          {"talker", Value{stream.had.talker.name()}},
                          {"code", Value{std::uint64_t{stream.had.code}}},
                          {"class", Value{State::enumText(stream.had.srClass)}},
                          {"kbps", Value{std::uint64_t{stream.had.kbps}}},
                          {"destination", Value{stream.had.destination.text()}},
                          {"vlan", Value{std::uint64_t{stream.had.vlan}}},
                          {"port", Value{std::move(ports)}}});
    }
    return all;
}

State::Schema Gone::entriesSchema() {
    using State::Codec;
    const State::Schema code = Codec<std::uint8_t>::schema();
    const State::Schema port = State::objectOf({{"holding", Codec<Holding>::schema()}, {"code", code}});
    return State::mapOf(State::HexKey::schema(),
                        State::objectOf({{"time", Codec<double>::schema()},
                                         {"wallTime", Codec<double>::schema()},
                                         {"reason", Codec<Reason>::schema()},
                                         {"talker", Codec<std::string>::schema()},
                                         {"code", code},
                                         {"class", Codec<Msrp::SrClassId>::schema()},
                                         {"kbps", Codec<std::uint64_t>::schema()},
                                         {"destination", Codec<EthAddr>::schema()},
                                         {"vlan", Codec<std::uint16_t>::schema()},
                                         {"port", State::mapOf(State::KeyText<IntfId>::schema(), port)}}));
}

}  // namespace History

template class State::Record<History::Gone>;
