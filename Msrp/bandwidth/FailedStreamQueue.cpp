#include "Msrp/bandwidth/FailedStreamQueue.h"

#include <algorithm>

namespace Msrp {

void FailedStreamQueue::failedStreamEnq(U64 streamId) {
    if (index_.count(streamId) >= maxEntriesPerStream) return;
    U32 index = nextIndex_;
    if (const auto last = tail()) index = std::max(index, *last + 1);
    nextIndex_ = index;
    failedStreamIs(index, streamId);
}

void FailedStreamQueue::failedStreamDeq() {
    if (const auto first = head()) failedStreamDel(*first);
}

void FailedStreamQueue::failedStreamIs(U32 index, U64 streamId) {
    failedStreamDel(index);
    entry_.emplace(index, streamId);
    const auto [first, last] = index_.equal_range(streamId);
    index_.emplace_hint(std::find_if(first, last, [index](const auto& e) { return e.second > index; }),
                        streamId, index);
}

void FailedStreamQueue::failedStreamDel(U32 index) {
    const auto found = entry_.find(index);
    if (found == entry_.end()) return;
    auto [first, last] = index_.equal_range(found->second);
    index_.erase(std::find_if(first, last, [index](const auto& e) { return e.second == index; }));
    entry_.erase(found);
}

void FailedStreamQueue::failedStreamDelAll() {
    entry_.clear();
    index_.clear();
}

bool FailedStreamQueue::failedStreamDelFirst(U64 streamId) {
    const auto found = index_.lower_bound(streamId);
    if (found == index_.end() || found->first != streamId) return false;
    failedStreamDel(found->second);
    return true;
}

bool FailedStreamQueue::failedStreamDelEvery(U64 streamId) {
    bool removed = false;
    while (failedStreamDelFirst(streamId)) removed = true;
    return removed;
}

}  // namespace Msrp
