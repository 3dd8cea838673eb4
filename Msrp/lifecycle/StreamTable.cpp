#include "Msrp/lifecycle/StreamTable.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Msrp {

namespace {

template <class Index, class Key>
void forget(Index& index, const Key& key, U64 streamId) {
    const auto entry = index.find(key);
    if (entry == index.end()) return;
    entry->second.erase(streamId);
    if (entry->second.empty()) index.erase(entry);
}

}  // namespace

std::shared_ptr<StreamData> StreamTable::find(U64 streamId) const {
    const auto at = streams_.find(streamId);
    return at == streams_.end() ? nullptr : at->second;
}

void StreamTable::put(std::shared_ptr<StreamData> stream) {
    if (!stream) throw std::invalid_argument("streamListIs: null stream");
    const U64 id = stream->streamId();
    remove(id);
    byMacDa_[stream->macDa()].insert(id);
    byVlan_[stream->vlanId()].insert(id);
    streams_.emplace(id, std::move(stream));
}

void StreamTable::remove(U64 streamId) {
    const auto at = streams_.find(streamId);
    if (at == streams_.end()) return;
    forget(byMacDa_, at->second->macDa(), streamId);
    forget(byVlan_, at->second->vlanId(), streamId);
    streams_.erase(at);
}

void StreamTable::clear() {
    streams_.clear();
    byMacDa_.clear();
    byVlan_.clear();
}

void StreamTable::destinationIs(StreamData& stream, EthAddr macDa, U16 vlanId) {
    const std::shared_ptr<StreamData> held = find(stream.streamId());
    remove(stream.streamId());
    stream.macDaIs(macDa);
    stream.vlanIdIs(vlanId);
    if (held) put(held);
}

const StreamTable::Ids& StreamTable::withAddress(EthAddr macDa) const {
    static const Ids none;
    const auto at = byMacDa_.find(macDa);
    return at == byMacDa_.end() ? none : at->second;
}

std::optional<U64> StreamTable::otherWith(EthAddr macDa, U64 streamId) const {
    const Ids& sharers = withAddress(macDa);
    const auto other = std::ranges::find_if(sharers, [&](U64 id) { return id != streamId; });
    return other == sharers.end() ? std::nullopt : std::optional<U64>{*other};
}

std::optional<U64> StreamTable::next(U16 vlanId, U64 from) const {
    if (vlanId == 0) {
        const auto at = streams_.lower_bound(from);
        return at == streams_.end() ? std::nullopt : std::optional<U64>{at->first};
    }
    const auto vlan = byVlan_.find(vlanId);
    if (vlan == byVlan_.end()) return std::nullopt;
    const auto at = vlan->second.lower_bound(from);
    return at == vlan->second.end() ? std::nullopt : std::optional<U64>{*at};
}

}  // namespace Msrp
