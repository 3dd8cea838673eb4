#include "Mrp/MrpLib.h"

#include "Mrp/MrpSm.h"

namespace Mrp {

void MrpLib::mrpSendAttribute(const MrpParameters& params) {
    if (engine_ != nullptr) engine_->sendAttribute(params);
}

void MrpLib::mrpOutIntfQueueEnq(IntfId intf) {
    if (engine_ != nullptr) engine_->requestOpportunity(intf);
}

void MrpLib::mrpInterfaceEnable(IntfId intf) {
    if (engine_ != nullptr) engine_->interfaceEnable(intf);
}

void MrpLib::mrpInterfaceDisable(IntfId intf) {
    if (engine_ != nullptr) engine_->interfaceDisable(intf);
}

std::set<IntfId> MrpLib::mrpEnabledPorts() const {
    return engine_ != nullptr ? engine_->enabledPorts() : std::set<IntfId>{};
}

void MrpLib::mrpCleanUpIntfDatabase(IntfId intf) {
    if (engine_ != nullptr) engine_->cleanUpIntfDatabase(intf);
}

void MrpLib::mrpCleanUpIntfDatabaseAttribute(IntfId intf, std::uint8_t type, std::uint64_t key) {
    if (engine_ != nullptr) engine_->cleanUpIntfDatabaseAttribute(intf, type, key);
}

bool MrpLib::mrpHeld(IntfId intf, std::uint8_t type, std::uint64_t key) const {
    return engine_ != nullptr && engine_->attributeHeld(intf, type, key);
}

std::string MrpLib::baseSpanningTreeTopo(IntfId intf) const {
    if (engine_ == nullptr || !engine_->inputs().stpStatus) return {};
    return Stp::baseTopology(*engine_->inputs().stpStatus, engine_->inputs().brConfig.get(), intf);
}

VlanId MrpLib::getNativeVlanId(IntfId intf) const {
    return Bridging::nativeVlan(engine_ != nullptr ? engine_->inputs().brConfig.get() : nullptr, intf);
}

void MrpLib::mrpPortOpened(IntfId intf) {
    if (engine_ != nullptr) engine_->openPort(intf);
}

void MrpLib::mrpPause(bool paused) {
    if (engine_ != nullptr) engine_->pausedIs(paused);
}

PeriodicSm* MrpLib::periodicSm() const { return engine_ != nullptr ? &engine_->periodicSm() : nullptr; }

}  // namespace Mrp
