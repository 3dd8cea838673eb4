#include "Msrp/types/Waiting.h"

#include <algorithm>
#include <string>

template class State::Record<Msrp::FailedStreamQueue>;
template class State::Record<Msrp::Waiting>;

namespace Msrp {

namespace {
constexpr std::string_view entriesField = "failedStream";
}  // namespace

void FailedStreamQueue::failedStreamEnq(U64 streamId, double now) {
    if (index_.count(streamId) >= maxEntriesPerStream) return;
    U32 index = nextIndex_;
    if (const auto last = tail()) index = std::max(index, *last + 1);
    nextIndex_ = index;
    failedStreamIs(index, {streamId, now});
}

void FailedStreamQueue::failedStreamDeq() {
    if (const auto first = head()) failedStreamDel(*first);
}

void FailedStreamQueue::failedStreamIs(U32 index, FailedStream stream) {
    failedStreamDel(index);
    entry_.emplace(index, stream);
    const auto [first, last] = index_.equal_range(stream.streamId);
    index_.emplace_hint(std::find_if(first, last, [index](const auto& e) { return e.second > index; }),
                        stream.streamId, index);
    changed(State::Change{*this, entriesField, index});
}

void FailedStreamQueue::failedStreamDel(U32 index) {
    const auto found = entry_.find(index);
    if (found == entry_.end()) return;
    const auto [first, last] = index_.equal_range(found->second.streamId);
    index_.erase(std::find_if(first, last, [index](const auto& e) { return e.second == index; }));
    entry_.erase(found);
    changed(State::Change{*this, entriesField, index});
}

void FailedStreamQueue::failedStreamDelAll() {
    while (const auto first = head()) failedStreamDel(*first);
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

State::Value FailedStreamQueue::entries() const {
    State::Object all;
    for (const auto& [index, stream] : entry_) {
        all.emplace_back(std::to_string(index),
                         State::Object{{"stream", State::hexText(stream.streamId)}, {"since", stream.since}});
    }
    return State::Value{std::move(all)};
}

}  // namespace Msrp
