#include "Mrp/Offers.h"

namespace Mrp {

namespace {

/// The first behind `last`, round and round.
template <class Map, class Key>
auto next(Map& map, const std::optional<Key>& last) {
    const auto at = last ? map.upper_bound(*last) : map.begin();
    return at != map.end() ? at : map.begin();
}

}  // namespace

void Offers::add(const Offer& offer) {
    bool& always = ports_[offer.intf].due[offer.ref];
    always = always || offer.always;
}

void Offers::erase(IntfId intf, const AttributeRef& ref) {
    const auto port = ports_.find(intf);
    if (port == ports_.end()) return;
    port->second.due.erase(ref);
    if (port->second.due.empty()) ports_.erase(port);
}

Offers::Offer Offers::take() {
    const auto at = next(ports_, last_);
    auto& [intf, port] = *at;
    const auto due = next(port.due, port.last);
    const Offer offer{intf, due->first, due->second};
    last_ = intf;
    port.last = due->first;
    port.due.erase(due);
    if (port.due.empty()) ports_.erase(at);
    if (ports_.empty()) last_.reset();
    return offer;
}

}  // namespace Mrp
