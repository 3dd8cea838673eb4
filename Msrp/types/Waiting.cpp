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

State::Object FailedStreamQueue::entries(const State::From& from, std::size_t most) const {
    State::Object some;
    auto at = entry_.begin();
    if (from.key) {
        const auto key = State::KeyText<U32>::parse(*from.key);
        if (!key) return some;
        at = from.included ? entry_.lower_bound(*key) : entry_.upper_bound(*key);
    }
    for (; at != entry_.end() && some.size() < most; ++at) {
        const auto& [index, stream] = *at;
        some.emplace_back(std::to_string(index), State::Object{{"stream", State::hexText(stream.streamId)},
                                                               {"since", stream.since}});
    }
    return some;
}

std::optional<std::string> FailedStreamQueue::Entries::keyText(const State::Change& change) {
    const U32* index = change.key<U32>();
    return index != nullptr ? std::optional{State::KeyText<U32>::text(*index)} : std::nullopt;
}

State::MaybeProblem FailedStreamQueue::Entries::restore(FailedStreamQueue& queue, std::string_view key,
                                                        const State::Value& value, double shift) {
    const auto index = State::KeyText<U32>::parse(key);
    if (!index) return State::badKey(key, State::KeyText<U32>::expected());
    if (value.isNull()) {
        queue.failedStreamDel(*index);
        return std::nullopt;
    }
    const State::Value* stream = value.member("stream");
    const State::Value* since = value.member("since");
    const auto* text = stream != nullptr ? std::get_if<std::string>(&stream->data) : nullptr;
    const auto id = text != nullptr ? State::HexKey::parse(*text) : std::nullopt;
    const auto when = since != nullptr ? State::Codec<double>::decode(*since) : std::nullopt;
    if (!id || !when) return State::badValue(value, "a stream and since when it waits");
    // Another index of a stream that stands here as often as it may is none that we wrote.
    const auto known = queue.entry_.find(*index);
    const bool same = known != queue.entry_.end() && known->second.streamId == *id;
    if (!same && queue.index_.count(*id) >= maxEntriesPerStream)
        return State::badValue(value, "a stream that waits here once or twice");
    queue.failedStreamIs(*index, {*id, *when + shift});
    return std::nullopt;
}

}  // namespace Msrp
