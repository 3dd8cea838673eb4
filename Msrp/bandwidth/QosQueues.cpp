/// The transmit queues of the SR classes: which they are, and to what rate they are shaped.
#include "Msrp/MsrpSm.h"
#include "Msrp/bandwidth/CosToTcMap.h"

#include <cmath>
#include <stdexcept>

namespace Msrp {

namespace {

/// Priorities by which the classes' queues are found, whatever the priorities of the SR domain.
constexpr U8 queuePriorityA = 3;
constexpr U8 queuePriorityB = 2;
constexpr U8 txQueuePriority = 2;
constexpr U8 noQueue = invalidTrafficClass;

/// The entry of a table in force, else that of the hardware's default table, else the invalid value.
template <class K, class V>
V lookUp(const State::FlatMap<K, V>& current, const State::FlatMap<K, V>& standard, K key, V invalid) {
    const V found = current.get(key, invalid);
    return found != invalid ? found : standard.get(key, invalid);
}

}  // namespace

TrafficClass MsrpSm::cosToTc(Cos cos) const {
    return lookUp(inputs_.qosStatus->cosToTc(), inputs_.qosHwStatus->defaultCosToTc(), cos,
                  TrafficClass{invalidTrafficClass});
}

U8 MsrpSm::tcToTxQueue(TrafficClass tc) const {
    return lookUp(inputs_.qosStatus->tcToTxQueue(), inputs_.qosHwStatus->defaultTcToTxQueue(), tc, noQueue);
}

U8 MsrpSm::tcToMcTxQueue(TrafficClass tc) const {
    return lookUp(inputs_.qosStatus->tcToMcTxQueue(), inputs_.qosHwStatus->defaultTcToMcTxQueue(), tc,
                  noQueue);
}

Qos::TxQueue MsrpSm::getAvbQueue(SrClassId srClass) const {
    const TrafficClass tc = cosToTc(Cos{srClass == SrClassId::SrClassA ? queuePriorityA : queuePriorityB});
    const bool multicast = inputs_.qosHwStatus->multicastQueues();
    const U8 queue = multicast ? tcToMcTxQueue(tc) : tcToTxQueue(tc);
    if (queue == noQueue) return {};
    return {queue, multicast ? Qos::TxQueueType::multicast : Qos::TxQueueType::unicast};
}

bool MsrpSm::avbBwValidOnTxQ(const std::shared_ptr<const IntfStatus>& intfStatus, Qos::TxQueue queue) const {
    if (!intfStatus) return false;
    return std::ranges::any_of(bothClasses, [&](SrClassId srClass) {
        return queue == getAvbQueue(srClass) && intfStatus->classBandwidthAllocated(srClass) != 0;
    });
}

void MsrpSm::programTxQueue(Qos::Input::IntfConfig& config, Qos::TxQueue queue, U64 bandwidth) {
    if (queue.number == noQueue) {
        trace("No transmit queue for ", bandwidth, " kbps on ", config.intfId());
        return;
    }
    const double rate = std::trunc(static_cast<double>(bandwidth) * inputs_.cliConfig->shapeRateFactor());
    // Compared before the conversion, which is undefined for what does not fit.
    if (!(rate >= ShapeRateVal::min && rate <= ShapeRateVal::max))
        throw std::range_error(ShapeRateValTag::error);
    const Qos::ShapeRate shape{ShapeRateVal{static_cast<U64>(rate)}, 0};
    if (const auto held = config.txQueueConfig(queue)) {
        held->shapeRateIs(shape);
    } else {
        config.txQueueConfigIs(queue, txQueuePriority, Qos::noPercent, shape, Qos::noGuaranteedBw);
    }
}

void MsrpSm::doSetQosTxQueueConfig(IntfId intf) {
    if (standbyMode() || inputs_.cliConfig->shapingDisabled()) return;
    const std::shared_ptr<const IntfStatus> intfStatus = status()->intfStatus(intf);
    const auto allocated = [&](SrClassId srClass) {
        return intfStatus ? intfStatus->classBandwidthAllocated(srClass) : 0;
    };
    const U64 bwA = allocated(SrClassId::SrClassA);
    const U64 bwB = allocated(SrClassId::SrClassB);
    const Qos::TxQueue qA = getAvbQueue(SrClassId::SrClassA);
    const Qos::TxQueue qB = getAvbQueue(SrClassId::SrClassB);
    trace(" txqA:", qA, " bwA:", bwA, " txqB:", qB, " bwB:", bwB);
    if (bwA + bwB == 0 && !inputs_.qosMsrpConfig->intfConfig(intf)) return;

    const auto config = inputs_.qosMsrpConfig->intfConfigIs(intf);
    // The admission that led here stands, also where its rate cannot be programmed.
    const auto program = [&](Qos::TxQueue queue, U64 bandwidth) {
        if (bandwidth == 0) return;
        try {
            programTxQueue(*config, queue, bandwidth);
        } catch (const std::range_error& unfit) {
            config->txQueueConfigDel(queue);
            error(Runtime::format("Queue %s on %s cannot be shaped for %llu kbps: %s", queue, intf, bandwidth,
                                  unfit.what()));
        }
    };
    if (qA == qB) {
        program(qA, bwA + bwB);
    } else {
        program(qA, bwA);
        program(qB, bwB);
    }
    for (auto queue = config->txQueueConfig().firstKey(); queue;
         queue = config->txQueueConfig().nextKey(*queue)) {
        if (!avbBwValidOnTxQ(intfStatus, *queue)) config->txQueueConfigDel(*queue);
    }
    if (config->txQueueConfig().empty()) inputs_.qosMsrpConfig->intfConfigDel(intf);
}

// Class B gathers no more credit than it needs while frames of class A pass (Annex L).
void MsrpSm::frameReserved(IntfId intf, SrClassId srClass, U16 maxFrameSize, bool there) {
    if (srClass != SrClassId::SrClassA) return;
    auto& sizes = reservedFrames_[intf];
    const auto held = sizes.try_emplace(maxFrameSize, 0).first;
    if (there) {
        ++held->second;
    } else if (held->second <= 1) {
        sizes.erase(held);
    } else {
        --held->second;
    }
    const auto port = inputs_.domain ? inputs_.domain->port(intf) : nullptr;
    if (!port) return;
    port->largestFrameAIs(sizes.empty() ? U16{0} : sizes.rbegin()->first);
}

void MsrpSm::doUpdateShapeRate() {
    if (!acts()) return;
    if (inputs_.cliConfig->shapingDisabled()) {
        inputs_.qosMsrpConfig->intfConfigDelAll();
        return;
    }
    for (auto intf = config().intfEnable().firstKey(); intf; intf = config().intfEnable().nextKey(*intf)) {
        doSetQosTxQueueConfig(*intf);
    }
}

void MsrpSm::doSetCosToTcMap() {
    trace("MsrpSm::doSetCosToTcMap()");
    MsrpCosToTcMap map;
    map.fillCosToTcMap();
    for (U8 cos = 0; cos < MsrpCosToTcMap::priorities; ++cos) {
        if (const auto tc = map.cosToTcMap(Cos{cos})) inputs_.qosMsrpConfig->cosToTcMapIs(Cos{cos}, *tc);
    }
}

}  // namespace Msrp
