#include "Msrp/lifecycle/StreamTable.h"

#include <stdexcept>
#include <utility>

namespace Msrp {

std::shared_ptr<StreamData> StreamTable::find(U64 streamId) const {
    if (!sought_ || sought_->id != streamId) {
        const auto at = streams_.find(streamId);
        sought_ = {streamId, at == streams_.end() ? nullptr : &at->second};
    }
    return sought_->held == nullptr ? nullptr : *sought_->held;
}

void StreamTable::put(std::shared_ptr<StreamData> stream) {
    if (!stream) throw std::invalid_argument("streamListIs: null stream");
    const U64 id = stream->streamId();
    const auto [at, fresh] = streams_.try_emplace(id);
    std::shared_ptr<StreamData>& held = at->second;
    const bool moves = fresh || held->macDa() != stream->macDa() || held->vlanId() != stream->vlanId();
    if (moves && !fresh) forgetDestination(*held);
    if (moves) learnDestination(*stream);
    held = std::move(stream);
    sought_ = {id, &held};
}

void StreamTable::remove(U64 streamId) {
    const auto at = streams_.find(streamId);
    if (at == streams_.end()) return;
    forgetDestination(*at->second);
    sought_.reset();
    streams_.erase(at);
}

void StreamTable::clear() {
    sought_.reset();
    streams_.clear();
    byMacDa_.clear();
    byVlan_.clear();
}

void StreamTable::destinationIs(StreamData& stream, EthAddr macDa, U16 vlanId) {
    const bool held = find(stream.streamId()).get() == &stream;
    if (held) forgetDestination(stream);
    stream.macDaIs(macDa);
    stream.vlanIdIs(vlanId);
    if (held) learnDestination(stream);
}

void StreamTable::learnDestination(const StreamData& stream) {
    if (stream.vlanId() == 0) return;
    byMacDa_.emplace(stream.macDa(), stream.streamId());
    byVlan_[stream.vlanId()].insert(stream.streamId());
}

void StreamTable::forgetDestination(const StreamData& stream) {
    if (stream.vlanId() == 0) return;
    byMacDa_.erase({stream.macDa(), stream.streamId()});
    const auto vlan = byVlan_.find(stream.vlanId());
    if (vlan == byVlan_.end()) return;
    vlan->second.erase(stream.streamId());
    if (vlan->second.empty()) byVlan_.erase(vlan);
}

std::optional<U64> StreamTable::otherWith(EthAddr macDa, U64 streamId) const {
    for (const auto& [address, id] : withAddress(macDa)) {
        if (id != streamId) return id;
    }
    return std::nullopt;
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
