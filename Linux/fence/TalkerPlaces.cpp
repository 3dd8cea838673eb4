#include "Linux/fence/TalkerPlaces.h"

#include <utility>
#include <vector>

namespace Linux {

TalkerPlaces::TalkerPlaces(std::shared_ptr<const Bridging::Input::Config> groups, Changed changed)
    : groups_{std::move(groups)}, changed_{std::move(changed)} {}

void TalkerPlaces::start() {
    reactor_ = groups_->watch([this](const State::Change& change) { recordChanged(change); });
    groups_->fdbConfig().each([this](VlanId vlan, const auto&) { lookAtVlan(vlan); });
}

const std::set<StreamAddress>& TalkerPlaces::behind(IntfId port) const {
    static const std::set<StreamAddress> nothing;
    const auto at = byPort_.find(port);
    return at != byPort_.end() ? at->second : nothing;
}

void TalkerPlaces::recordChanged(const State::Change& change) {
    using Bridging::Input::EthGroup;
    using Bridging::Input::FdbConfig;
    if (const auto* vlan = change.key<VlanId>()) return lookAtVlan(*vlan);
    if (const auto* group = dynamic_cast<const EthGroup*>(&change.entity)) {
        if (const auto* fdb = dynamic_cast<const FdbConfig*>(group->parent()))
            look({fdb->vlanId(), group->addr()});
    } else if (const auto* fdb = dynamic_cast<const FdbConfig*>(&change.entity)) {
        if (const auto* mac = change.key<EthAddr>()) look({fdb->vlanId(), *mac});
    }
}

void TalkerPlaces::lookAtVlan(VlanId vlan) {
    std::vector<StreamAddress> concerned;
    if (const auto fdb = groups_->fdbConfig(vlan))
        fdb->ethGroup().each([&](EthAddr mac, const auto&) { concerned.push_back({vlan, mac}); });
    for (auto at = places_.lower_bound({vlan, EthAddr{}}); at != places_.end() && at->first.vlan == vlan;
         ++at)
        concerned.push_back(at->first);
    for (const StreamAddress& stream : concerned) look(stream);
}

void TalkerPlaces::look(const StreamAddress& stream) {
    const auto fdb = groups_->fdbConfig(stream.vlan);
    const auto group = fdb ? fdb->ethGroup(stream.mac) : nullptr;
    const IntfId now = group ? group->talkerIntf() : IntfId{};
    const auto held = places_.find(stream);
    const IntfId before = held != places_.end() ? held->second : IntfId{};
    if (now == before) return;
    if (before) {
        const auto streams = byPort_.find(before);
        streams->second.erase(stream);
        if (streams->second.empty()) byPort_.erase(streams);
        places_.erase(held);
        changed_(stream, before, false);
    }
    if (now) {
        byPort_[now].insert(stream);
        places_.emplace(stream, now);
        changed_(stream, now, true);
    }
}

}  // namespace Linux
