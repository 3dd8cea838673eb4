#include "Mrp/PeriodicSm.h"

namespace Mrp {

namespace {
/// periodictimer (IEEE 802.1Q table 10-7).
constexpr Runtime::Duration period = std::chrono::seconds{1};
}  // namespace

void PeriodicSm::enabledIs(bool enabled) {
    if (enabled_ == enabled) return;
    enabled_ = enabled;
    for (const auto& [intf, port] : ports_)
        event(intf, enabled ? PeriodicEvent::enabled : PeriodicEvent::disabled);
}

void PeriodicSm::intfIs(IntfId intf) {
    const auto [at, fresh] = ports_.try_emplace(intf);
    if (!fresh) return;
    at->second.timer =
        std::make_unique<Runtime::Timer>(loop_, [this, intf] { event(intf, PeriodicEvent::periodicTimer); });
    if (enabled_) event(intf, PeriodicEvent::enabled);
}

void PeriodicSm::event(IntfId intf, PeriodicEvent event) {
    Port& port = ports_.at(intf);
    const PeriodicCell cell = step(port.state, event);
    port.state = cell.next;
    if (cell.startTimer) port.timer->armIn(period);
    if (port.state == PeriodicState::Passive) port.timer->cancel();
    if (cell.periodic) actions_.periodic(intf);
}

}  // namespace Mrp
