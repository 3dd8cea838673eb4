#include "Msrp/MsrpSm.h"

#include "Msrp/lifecycle/ReviewSm.h"

#include <stdexcept>

namespace Msrp {

namespace {
/// Streams looked at, and things said about them, in one turn of the loop: some milliseconds' worth.
constexpr unsigned unitsPerTurn = 1024;
consteval std::string_view cli(std::string_view name) { return State::fieldName<CliConfig>(name); }

}  // namespace

MsrpSm::MsrpSm(Inputs inputs, Platform platform)
    : inputs_{std::move(inputs)},
      platform_{platform},
      chores_{platform_.loop, platform_.unitsPerTurn != 0 ? platform_.unitsPerTurn : unitsPerTurn,
              [this](Runtime::Chores::Lane lane) { laneIdle(lane); }} {
    if (inputs_.cliConfig) (void)keepPercentages();
    reactToInputs();
    handleInitialized();
}

MsrpSm::~MsrpSm() {
    // Reactors first: nothing may run while the rest goes.
    for (State::Reactor* reactor :
         {&cliConfigReactor_, &configReactor_, &ethPhyReactor_, &brConfigReactor_, &qosStatusReactor_,
          &stpStatusReactor_, &topoLibReactor_, &refusalsReactor_}) {
        *reactor = State::Reactor{};
    }
    chores_.clear();
    intfStatusDelAll();
    switchIntfConfigDelAll();
    topoDelAll();
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

void MsrpSm::reactToInputs() {
    if (inputs_.cliConfig) {
        cliConfigReactor_ =
            inputs_.cliConfig->react([this](const State::Change& change) { handleCliConfig(change); });
    }
    if (inputs_.config) {
        configReactor_ = inputs_.config->react([this](const State::Change& change) {
            if (const auto* intf = change.key<IntfId>()) handleIntfEnable(*intf);
        });
    }
    if (inputs_.ethPhyIntfStatusDir) {
        ethPhyReactor_ = inputs_.ethPhyIntfStatusDir->react([this](const State::Change& change) {
            const auto* intf = change.key<IntfId>();
            if (intf == nullptr) return;
            if (inputs_.ethPhyIntfStatusDir->intfStatus(*intf)) {
                intfStatusIs(*intf);
                followIntf(*intf);
            } else {
                intfStatusDel(*intf);
            }
            handleIntfEnable(*intf);
        });
    }
    if (inputs_.brConfig) {
        brConfigReactor_ = inputs_.brConfig->react([this](const State::Change& change) {
            if (const auto* intf = change.key<IntfId>()) handleSwitchIntfConfig(*intf);
            if (const auto* vlan = change.key<VlanId>()) handleVlanConfig(*vlan);
        });
    }
    if (inputs_.qosStatus) {
        qosStatusReactor_ = inputs_.qosStatus->react([this](const State::Change&) { doUpdateShapeRate(); });
    }
    if (inputs_.stpStatus) {
        stpStatusReactor_ = inputs_.stpStatus->react([this](const State::Change& change) {
            if (change.field == State::fieldName<Stp::Status>("mode")) handleStpMode();
        });
    }
    if (inputs_.topoLib) {
        topoLibReactor_ = inputs_.topoLib->react([this](const State::Change& change) {
            const auto* name = change.key<std::string>();
            if (name == nullptr) return;
            if (inputs_.topoLib->topo(*name)) {
                topoIs(*name);
            } else {
                topoDel(*name);
            }
        });
    }
    if (inputs_.refusals) {
        refusalsReactor_ =
            inputs_.refusals->react([this](const State::Change& change) { handleRefusal(change); });
    }
    // What is there already does not announce itself.
    if (inputs_.ethPhyIntfStatusDir) {
        inputs_.ethPhyIntfStatusDir->intfStatus().each(
            [this](IntfId intf, const auto&) { intfStatusIs(intf); });
    }
    if (inputs_.brConfig) {
        inputs_.brConfig->switchIntfConfig().each(
            [this](IntfId intf, const auto&) { switchIntfConfigIs(intf); });
    }
    if (inputs_.topoLib) {
        inputs_.topoLib->topo().each([this](const std::string& name, const auto&) { topoIs(name); });
    }
}

void MsrpSm::intfStatusIs(IntfId intf) {
    const auto record = inputs_.ethPhyIntfStatusDir->intfStatus(intf);
    intfReactor_[intf] = record->react([this, intf](const State::Change& change) {
        if (change.field == State::fieldName<Interface::EthPhyIntfStatus>("linkStatus"))
            handleLinkStatus(intf);
        if (change.field == State::fieldName<Interface::EthPhyIntfStatus>("speedEnum")) handleSpeed(intf);
    });
}

void MsrpSm::switchIntfConfigIs(IntfId intf) {
    const auto record = inputs_.brConfig->switchIntfConfig(intf);
    switchIntfReactor_[intf] = record->react([this, intf](const State::Change& change) {
        if (change.field == State::fieldName<Bridging::SwitchIntfConfig>("switchportMode") ||
            change.field == State::fieldName<Bridging::SwitchIntfConfig>("nativeVlan"))
            handleNativeVlan(intf);
    });
}

void MsrpSm::handleSwitchIntfConfig(IntfId intf) {
    if (inputs_.brConfig->switchIntfConfig(intf)) {
        switchIntfConfigIs(intf);
        // Another native VLAN may mean another base topology.
        refreshPort(intf);
    } else {
        switchIntfConfigDel(intf);
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

void MsrpSm::handleCliConfig(const State::Change& change) {
    const bool grown = keepPercentages();
    if (!acts()) return;
    const auto everyPort = [this](auto act) {
        const auto& ports = status()->intfStatus();
        for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) act(*intf);
    };
    const std::string_view field = change.field;
    trace("MsrpSm::handleCliConfig( ", field, " )");
    ringTrace("handleCliConfig");
    if (field == cli("shapeRateFactor") || field == cli("shapingDisabled")) {
        doUpdateShapeRate();
    } else if (field == cli("srClassASupported") || field == cli("srClassBSupported")) {
        const SrClassId srClass =
            field == cli("srClassASupported") ? SrClassId::SrClassA : SrClassId::SrClassB;
        if (!srClassSupported(srClass)) {
            everyPort([&](IntfId intf) { setSrClassState(intf, srClass, SrClassState::NotSupported); });
        }
        handleIntfEnable();
    } else if (field == cli("srClassAPriority") || field == cli("srClassBPriority")) {
        everyPort([&](IntfId intf) { readmitPort(intf); });
    } else if (field == cli("defaultSrPvid")) {
        everyPort([&](IntfId intf) {
            if (inputs_.cliConfig->srPvid().get(intf).value() == 0) readmitPort(intf);
        });
    } else if (field == cli("srPvid")) {
        if (const auto* intf = change.key<IntfId>(); intf != nullptr && status()->intfStatus(*intf))
            readmitPort(*intf);
    } else if (field == cli("srClassABandwidthPercent") || field == cli("srClassBBandwidthPercent")) {
        // Less binds later decisions only; more is bandwidth released on every port.
        if (!grown) return;
        everyPort([&](IntfId intf) { bandwidthReleasedIs(intf, true); });
        reprocessBandwidthFailedStreams();
    }
    // A new maxFrameSizeLimit binds each stream from the next repetition of its declaration.
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

std::optional<U64> MsrpSm::nextStream(U16 vlanId, U64 from) const {
    if (vlanId == 0) {
        const auto at = streamList_.lower_bound(from);
        return at == streamList_.end() ? std::nullopt : std::optional<U64>{at->first};
    }
    const auto vlan = streamsByVlan_.find(vlanId);
    if (vlan == streamsByVlan_.end()) return std::nullopt;
    const auto at = vlan->second.lower_bound(from);
    return at == vlan->second.end() ? std::nullopt : std::optional<U64>{*at};
}

void MsrpSm::doMaybeStopMsrp() {
    status()->msrpEnabledIs(!status()->intfStatus().empty() || !deletePendingStream_.empty() ||
                            !deletePendingStreamIntfs_.empty());
    if (status()->msrpEnabled()) return;
    inputs_.qosMsrpConfig->configPriorityIs(0);
    inputs_.qosMsrpConfig->intfConfigPriorityIs(0);
}

void MsrpSm::hasNotificationActiveIs(bool active) {
    for (State::Reactor* reactor :
         {&cliConfigReactor_, &configReactor_, &ethPhyReactor_, &brConfigReactor_, &qosStatusReactor_,
          &stpStatusReactor_, &topoLibReactor_, &refusalsReactor_}) {
        reactor->hasNotificationActiveIs(active);
    }
    for (auto& [intf, reactor] : intfReactor_) reactor.hasNotificationActiveIs(active);
    for (auto& [intf, reactor] : switchIntfReactor_) reactor.hasNotificationActiveIs(active);
    for (auto& [name, topo] : topoReactor_) {
        topo.reactor.hasNotificationActiveIs(active);
        for (auto& [intf, port] : topo.port) port.reactor.hasNotificationActiveIs(active);
    }
}

bool MsrpSm::isAttrLogOutClogged() {
    return inputs_.attrLogSm != nullptr && inputs_.attrLogSm->isAttrLogOutClogged();
}

void MsrpSm::counterInc(IntfId intf, Direction direction, MsrpCounter counter) {
    const auto intfStatus = status()->intfStatus(intf);
    if (!intfStatus) return;
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

std::shared_ptr<StreamData> MsrpSm::streamList(U64 streamId) const {
    const auto at = streamList_.find(streamId);
    return at == streamList_.end() ? nullptr : at->second;
}

void MsrpSm::streamListIs(std::shared_ptr<StreamData> stream) {
    if (!stream) throw std::invalid_argument("streamListIs: null stream");
    const U64 id = stream->streamId();
    streamListDel(id);
    streamsByMacDa_[stream->macDa()].insert(id);
    streamsByVlan_[stream->vlanId()].insert(id);
    streamList_.emplace(id, std::move(stream));
}

void MsrpSm::streamListDel(U64 streamId) {
    const auto at = streamList_.find(streamId);
    if (at == streamList_.end()) return;
    const auto erase = [streamId](auto& index, const auto& key) {
        const auto entry = index.find(key);
        if (entry == index.end()) return;
        entry->second.erase(streamId);
        if (entry->second.empty()) index.erase(entry);
    };
    erase(streamsByMacDa_, at->second->macDa());
    erase(streamsByVlan_, at->second->vlanId());
    streamList_.erase(at);
}

void MsrpSm::streamListDelAll() {
    streamList_.clear();
    streamsByMacDa_.clear();
    streamsByVlan_.clear();
}

std::shared_ptr<StreamData> MsrpSm::existingStream(U64 streamId) const {
    auto stream = streamList(streamId);
    Runtime::require(stream != nullptr, "streamData");
    return stream;
}

void MsrpSm::destinationIs(StreamData& stream, EthAddr macDa, U16 vlanId) {
    const std::shared_ptr<StreamData> held = streamList(stream.streamId());
    streamListDel(stream.streamId());
    stream.macDaIs(macDa);
    stream.vlanIdIs(vlanId);
    if (held) streamListIs(held);
}

std::optional<U64> MsrpSm::otherStreamWith(EthAddr macDa, U64 streamId) const {
    const auto sharers = streamsByMacDa_.find(macDa);
    if (sharers == streamsByMacDa_.end()) return std::nullopt;
    for (const U64 id : sharers->second) {
        if (id != streamId) return id;
    }
    return std::nullopt;
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
