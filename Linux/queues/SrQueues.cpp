#include "Linux/queues/SrQueues.h"

#include <algorithm>

namespace Linux {

namespace {

constexpr std::uint8_t priorityA = 3;
constexpr std::uint8_t priorityB = 2;
constexpr std::uint8_t noQueue = invalidTrafficClass;

template <class K, class V>
V lookUp(const State::FlatMap<K, V>& current, const State::FlatMap<K, V>& standard, K key, V invalid) {
    const V found = current.get(key, invalid);
    return found != invalid ? found : standard.get(key, invalid);
}

Qos::TxQueue queueOf(std::uint8_t priority, const QueueTables& tables) {
    const auto& [status, hardware] = tables;
    const auto tc =
        lookUp(status.cosToTc(), hardware.defaultCosToTc(), Cos{priority}, TrafficClass{invalidTrafficClass});
    if (hardware.multicastQueues()) {
        return {lookUp(status.tcToMcTxQueue(), hardware.defaultTcToMcTxQueue(), tc, noQueue),
                Qos::TxQueueType::multicast};
    }
    return {lookUp(status.tcToTxQueue(), hardware.defaultTcToTxQueue(), tc, noQueue),
            Qos::TxQueueType::unicast};
}

std::uint32_t rateOf(const Qos::Input::IntfConfig& wanted, Qos::TxQueue queue) {
    const auto config = wanted.txQueueConfig(queue);
    if (!config) return 0;
    const std::uint32_t rate = config->shapeRate().rate.value();
    return rate != invalidShapeRate ? rate : 0;
}

}  // namespace

ClassPriorities classPriorities(const QueueTables& tables) {
    const Qos::TxQueue a = queueOf(priorityA, tables);
    const Qos::TxQueue b = queueOf(priorityB, tables);
    ClassPriorities priorities{0, 0};
    for (std::uint8_t priority = 0; priority < 8; ++priority) {
        const Qos::TxQueue queue = queueOf(priority, tables);
        const auto bit = static_cast<std::uint8_t>(1U << priority);
        if (queue.number == noQueue) continue;
        if (queue == a) {
            priorities.a |= bit;
        } else if (queue == b) {
            priorities.b |= bit;
        }
    }
    return priorities;
}

LargestFrames largestFrames(const Switch::DomainPort* port, std::uint32_t mtu) {
    LargestFrames frames;
    frames.any = std::max(mtu + aroundFrame, frames.any);
    // Where nothing is known to be reserved, what a restarted agent has not heard of again yet may be.
    if (port != nullptr && port->largestFrameA() != 0)
        frames.a = std::max(port->largestFrameA() + aroundFrame, smallestFrame);
    return frames;
}

ClassRates wantedRates(const Qos::Input::IntfConfig* wanted, const QueueTables& tables) {
    if (wanted == nullptr) return {};
    const Qos::TxQueue a = queueOf(priorityA, tables);
    const Qos::TxQueue b = queueOf(priorityB, tables);
    return {rateOf(*wanted, a), b != a ? rateOf(*wanted, b) : 0};
}

}  // namespace Linux
