/// "history/gone": the last states of streams whose talkers have left, a bounded number of them; when there
/// are more, the port that most of their talkers were on loses its oldest.
#pragma once

#include "History/FairShare.h"
#include "History/Streams.h"
#include "State/Record.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

namespace History {

class Gone : public State::Record<Gone> {
public:
    static constexpr std::string_view type = "History::Gone";
    static constexpr std::size_t capacity = 1024;

    /// What the stream had before its talker left.
    struct Stream {
        StreamState had;
        Runtime::Time time{};
        Runtime::WallTime wallTime{};
        Reason reason = Reason::none;
    };
    /// In place of what was said of it before.
    void streamIs(std::uint64_t id, Stream stream);
    [[nodiscard]] std::size_t size() const { return streams_.size(); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::derivedEntries<Gone>(
            "stream",
            [](const Gone& g, const State::From& from, std::size_t most) { return g.entries(from, most); },
            entriesSchema));
    }

private:
    [[nodiscard]] State::Object entries(const State::From& from, std::size_t most) const;
    static State::Schema entriesSchema();

    std::map<std::uint64_t, Stream> streams_;
    FairShare<std::uint64_t> shares_{capacity};
};

/// The first entry that a reader in pieces wants of a map by stream.
template <class Map>
auto firstFrom(const Map& map, const State::From& from) {
    const auto id = from.key ? State::parseHex(*from.key) : std::nullopt;
    if (!id) return from.key ? map.end() : map.begin();
    return from.included ? map.lower_bound(*id) : map.upper_bound(*id);
}

}  // namespace History

// Made once, in the source file beside this header.
extern template class State::Record<History::Gone>;
