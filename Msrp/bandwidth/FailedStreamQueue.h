/// Streams that wait, first in first out, each entry under an index that only grows.  A stream may wait
/// twice.
#pragma once

#include "Msrp/types/Enums.h"

#include <iterator>
#include <map>
#include <optional>

namespace Msrp {

class FailedStreamQueue {
public:
    /// A stream that stands here so often already is not taken in again: its owner asks at every repetition
    /// of a declaration, and no peer may make the queue grow without bound.
    static constexpr std::size_t maxEntriesPerStream = 2;

    /// Appends the stream at the tail.
    void failedStreamEnq(U64 streamId);
    /// Removes the head.
    void failedStreamDeq();
    /// Puts a stream under an index, in place of what stood there.
    void failedStreamIs(U32 index, U64 streamId);
    void failedStreamDel(U32 index);
    void failedStreamDelAll();
    /// Removes the stream's first entry; false when it has none.
    bool failedStreamDelFirst(U64 streamId);
    /// Removes every entry of the stream; false when it has none.
    bool failedStreamDelEvery(U64 streamId);

    [[nodiscard]] bool empty() const { return entry_.empty(); }
    [[nodiscard]] std::size_t size() const { return entry_.size(); }
    [[nodiscard]] bool contains(U64 streamId) const { return index_.contains(streamId); }
    [[nodiscard]] std::optional<U32> head() const { return at(entry_.begin()); }
    [[nodiscard]] std::optional<U32> tail() const {
        return entry_.empty() ? std::nullopt : std::optional<U32>{entry_.rbegin()->first};
    }
    /// The first index above `index`.
    [[nodiscard]] std::optional<U32> next(U32 index) const { return at(entry_.upper_bound(index)); }
    /// The stream under `index`, which must be there.
    [[nodiscard]] U64 stream(U32 index) const { return entry_.at(index); }
    [[nodiscard]] const std::map<U32, U64>& entry() const { return entry_; }

private:
    [[nodiscard]] std::optional<U32> at(std::map<U32, U64>::const_iterator it) const {
        return it == entry_.end() ? std::nullopt : std::optional<U32>{it->first};
    }
    std::map<U32, U64> entry_;       ///< stream by index
    std::multimap<U64, U32> index_;  ///< indices by stream, ascending for one stream
    U32 nextIndex_ = 0;
};

}  // namespace Msrp
