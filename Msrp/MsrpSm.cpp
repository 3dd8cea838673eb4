#include "Msrp/MsrpSm.h"

#include "Msrp/lifecycle/ReviewSm.h"

#include <algorithm>

namespace Msrp {

namespace {
/// Streams looked at, and things said about them, in one turn of the loop: some milliseconds' worth.
constexpr unsigned unitsPerTurn = 1024;
}  // namespace

MsrpSm::MsrpSm(Inputs inputs, Platform platform)
    : inputs_{std::move(inputs)},
      platform_{platform},
      chores_{platform_.loop, platform_.unitsPerTurn != 0 ? platform_.unitsPerTurn : unitsPerTurn,
              [this](Runtime::Chores::Lane lane) { laneIdle(lane); }} {
    if (inputs_.cliConfig) {
        (void)keepPercentages();
        srPvid_ = inputs_.cliConfig->srPvid();
        defaultSrPvid_ = inputs_.cliConfig->defaultSrPvid();
    }
    followers_.start();
    handleInitialized();
}

MsrpSm::~MsrpSm() {
    // First: nothing may run while the rest goes.
    followers_.stop();
    chores_.clear();
    if (!standbyMode()) {
        // In standby these are the other agent's.
        bandwidthFailedIntfDelAll();
        macDaBlockedDelAll();
    }
    bandwidthReleasedDelAll();
    deletePendingStreamIntfsDelAll();
    msrpAdditionSm_.reset();
    msrpDeletionSm_.reset();
    if (inputs_.msrpLib->msrpSm() == this) inputs_.msrpLib->msrpSmIs(nullptr);
}

void MsrpSm::handleSwitchIntfConfig(IntfId intf) {
    if (inputs_.brConfig->switchIntfConfig(intf)) {
        // Another native VLAN may mean another base topology.
        refreshPort(intf);
    } else {
        handleNativeVlan(intf);
    }
}

void MsrpSm::handleStpMode() {
    if (!acts()) return;
    // Another mode gives ports another base topology, or none.  The topology library has followed already.
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        const bool published = status()->intfStatus(*intf)->portState() == MsrpPortState::Forwarding;
        if (published != isPortForwarding(*intf)) refreshPort(*intf);
    }
}

void MsrpSm::handleVlanConfig(VlanId vlan) {
    // Where every VLAN has its own spanning tree, a port is without a base topology while its native VLAN is
    // not configured.
    if (!acts() || inputs_.stpStatus->mode() != Stp::Mode::Pvst) return;
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        if (inputs_.msrpLib->getNativeVlanId(*intf) == vlan) refreshPort(*intf);
    }
}

template <class Act>
void MsrpSm::everyPort(Act act) {
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) act(*intf);
}

void MsrpSm::handleCliConfig(const State::Change& change) {
    struct Reaction {
        std::string_view field;
        void (MsrpSm::*handle)(const State::Change&);
    };
    static constexpr Reaction reactions[] = {
        {"srPvid", &MsrpSm::streamVlanChanged},
        {"defaultSrPvid", &MsrpSm::streamVlanChanged},
        {"srClassASupported", &MsrpSm::classSupportChanged<SrClassId::SrClassA>},
        {"srClassBSupported", &MsrpSm::classSupportChanged<SrClassId::SrClassB>},
        {"srClassAPriority", &MsrpSm::classPriorityChanged},
        {"srClassBPriority", &MsrpSm::classPriorityChanged},
        {"maxFrameSizeLimit", &MsrpSm::frameSizeLimitChanged},
        {"srClassABandwidthPercent", &MsrpSm::bandwidthPercentChanged},
        {"srClassBBandwidthPercent", &MsrpSm::bandwidthPercentChanged},
        {"shapeRateFactor", &MsrpSm::shapingChanged},
        {"shapingDisabled", &MsrpSm::shapingChanged},
        {"latency", &MsrpSm::latencyChanged},
    };
    static_assert(State::coversFields<CliConfig>(reactions));
    if (!acts()) {
        // Whoever acts next looks at all of it.
        (void)keepPercentages();
        (void)keepStreamVlans();
        return;
    }
    trace("MsrpSm::handleCliConfig( ", change.field, " )");
    ringTrace("handleCliConfig");
    const auto found = std::ranges::find(reactions, change.field, &Reaction::field);
    if (found != std::end(reactions)) (this->*found->handle)(change);
}

template <SrClassId srClass>
void MsrpSm::classSupportChanged(const State::Change&) {
    if (!srClassSupported(srClass))
        everyPort([&](IntfId intf) { setSrClassState(intf, srClass, SrClassState::NotSupported); });
    handleIntfEnable();
}

void MsrpSm::classPriorityChanged(const State::Change&) {
    everyPort([&](IntfId intf) { readmitPort(intf); });
}

void MsrpSm::streamVlanChanged(const State::Change&) {
    for (const IntfId intf : keepStreamVlans()) {
        if (status()->intfStatus(intf)) readmitPort(intf);
    }
}

void MsrpSm::bandwidthPercentChanged(const State::Change&) {
    // Less binds later decisions only; more is bandwidth released on every port.
    if (!keepPercentages()) return;
    everyPort([&](IntfId intf) { bandwidthReleasedIs(intf, true); });
    reprocessBandwidthFailedStreams();
}

std::vector<IntfId> MsrpSm::keepStreamVlans() {
    const auto before = std::exchange(srPvid_, inputs_.cliConfig->srPvid());
    const U16 defaultBefore = std::exchange(defaultSrPvid_, inputs_.cliConfig->defaultSrPvid());
    std::vector<IntfId> moved;
    if (before == srPvid_ && defaultBefore == defaultSrPvid_) return moved;
    for (const IntfId intf : portsWithStatus()) {
        const U16 own = before.get(intf).value();
        if ((own != 0 ? own : defaultBefore) != intfSrPvid(intf)) moved.push_back(intf);
    }
    return moved;
}

bool MsrpSm::keepPercentages() {
    const U8 percentA = inputs_.cliConfig->srClassABandwidthPercent();
    const U8 percentB = inputs_.cliConfig->srClassBBandwidthPercent();
    const bool grown = percentA > percentA_ || percentB > percentB_;
    percentA_ = percentA;
    percentB_ = percentB;
    return grown;
}

void MsrpSm::handleInitialized() {
    Runtime::require(!initialized(), "!initialized()");
    inputs_.msrpLib->msrpSmIs(this);
    msrpAdditionSm_ = std::make_unique<MsrpAdditionSm>(*this, inputs_.attrLogSm);
    msrpDeletionSm_ = std::make_unique<MsrpDeletionSm>(*this, inputs_.attrLogSm);
    initialized_ = true;
    handleStandbyMode();
}

void MsrpSm::handleStandbyMode() {
    Runtime::require(initialized(), "initialized()");
    trace("MsrpSm::handleStandbyMode( ", standbyMode(), " )");
    ringTrace("handleStandbyMode", standbyMode() ? 1 : 0);
    dropWork();
    if (standbyMode()) {
        refreshPorts();
    } else {
        takeOver();
    }
}

void MsrpSm::refreshPorts() {
    for (auto intf = config().intfEnable().firstKey(); intf; intf = config().intfEnable().nextKey(*intf)) {
        setPortState(*intf);
        setLinkStatus(*intf);
        handleIntfEnable(*intf);
    }
    // Ports that were removed while nobody could see to it.
    for (const IntfId intf : inputs_.msrpLib->mrpEnabledPorts()) {
        if (!config().intfEnable(intf) && (standbyMode() || !status()->intfStatus(intf)))
            inputs_.msrpLib->mrpInterfaceDisable(intf);
    }
}

void MsrpSm::dropWork() {
    chores_.clear();
    classWork_.clear();
    seededDomains_.clear();
    domainDue_.clear();
    settleDue_.clear();
    forgetDue_.clear();
    retryDue_.clear();
    addressDue_.clear();
    takingOver_ = false;
    inputs_.msrpLib->mrpPause(false);
}

void MsrpSm::laneIdle(Runtime::Chores::Lane lane) {
    if (!retryDue_.empty() || !addressDue_.empty()) retrySoon();
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        if (portLane(*intf) == lane) return settlePort(*intf);
    }
}

void MsrpSm::doMaybeStopMsrp() {
    status()->msrpEnabledIs(!status()->intfStatus().empty() || pending_.removes());
    if (status()->msrpEnabled()) return;
    inputs_.qosMsrpConfig->configPriorityIs(0);
    inputs_.qosMsrpConfig->intfConfigPriorityIs(0);
}

void MsrpSm::hasNotificationActiveIs(bool active) { followers_.hasNotificationActiveIs(active); }

bool MsrpSm::isAttrLogOutClogged() {
    return inputs_.attrLogSm != nullptr && inputs_.attrLogSm->isAttrLogOutClogged();
}

void MsrpSm::counterInc(IntfId intf, Direction direction, MsrpCounter counter) {
    IntfStatus* const intfStatus = status()->peekIntfStatus(intf);
    if (intfStatus == nullptr) return;
    if (direction == Direction::Rx) {
        intfStatus->rxCountersIs(counter, intfStatus->rxCounters().get(counter) + 1);
    } else {
        intfStatus->txCountersIs(counter, intfStatus->txCounters().get(counter) + 1);
    }
}

void MsrpSm::discard(const std::string& text) const {
    trace(": Discarding ", text);
    log(MSRP_ERROR, text);
}

bool MsrpSm::discard(IntfId intf, MsrpCounter counter, const std::string& text) {
    discard(text);
    counterInc(intf, Direction::Rx, counter);
    return true;
}

void MsrpSm::error(const std::string& text) const {
    trace("ERROR: ", text);
    log(MSRP_ERROR, text);
}

void MsrpSm::send(IntfId intf, U8 type, U8 request, std::span<const U8> value, U32 declaration) {
    MsrpLib& lib = *inputs_.msrpLib;
    Mrp::AttributeSlot& slot = lib.outgoing(type);
    std::copy(value.begin(), value.end(), slot.value.begin());
    slot.declaration = declaration;
    spend(1);
    lib.mrpOutIntfQueueEnq(intf);
    lib.mrpSendAttribute({.intf = intf, .attributeType = type, .request = request, .reserved = 0});
}

std::shared_ptr<StreamData> MsrpSm::existingStream(U64 streamId) const {
    auto stream = streamList(streamId);
    Runtime::require(stream != nullptr, "streamData");
    return stream;
}

void MsrpSm::removeFromBandwidthQueues(U64 streamId) {
    const auto& queues = inputs_.waiting->bandwidthFailedIntf();
    for (auto intf = queues.firstKey(); intf; intf = queues.nextKey(*intf))
        removeFailedStreamFromIntf(streamId, *intf);
}

void MsrpSm::removeFromQueues(U64 streamId, EthAddr macDa) {
    removeFromBandwidthQueues(streamId);
    if (const auto blocked = macDaBlocked(macDa)) {
        blocked->failedStreamDelEvery(streamId);
        if (blocked->empty()) macDaBlockedDel(macDa);
    }
}

}  // namespace Msrp
