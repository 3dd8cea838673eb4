#include "Switch/Qos.h"

#include <string>

namespace Qos {

std::string TxQueue::text() const {
    const std::string_view kind = type == TxQueueType::multicast ? "multicast:"
                                  : type == TxQueueType::unicast ? "unicast:"
                                                                 : "none:";
    return std::string{kind} + std::to_string(number);
}

std::optional<TxQueue> TxQueue::parse(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto number = State::parseDecimal(text.substr(colon + 1), invalidTrafficClass);
    if (!number) return std::nullopt;
    const std::string_view kind = text.substr(0, colon);
    TxQueue queue{static_cast<std::uint8_t>(*number), TxQueueType::none};
    if (kind == "multicast") {
        queue.type = TxQueueType::multicast;
    } else if (kind == "unicast") {
        queue.type = TxQueueType::unicast;
    } else if (kind != "none") {
        return std::nullopt;
    }
    return queue;
}

HwStatus::HwStatus() {
    constexpr std::array<std::uint8_t, 8> trafficClassOf{1, 0, 6, 7, 2, 3, 4, 5};
    for (std::uint8_t cos = 0; cos < 8; ++cos)
        defaultCosToTc_.set(Cos{cos}, TrafficClass{trafficClassOf[cos]});
    for (std::uint8_t tc = 0; tc < 8; ++tc) {
        defaultTcToTxQueue_.set(TrafficClass{tc}, tc);
        defaultTcToMcTxQueue_.set(TrafficClass{tc}, tc);
    }
}

}  // namespace Qos

namespace Qos::Input {

void IntfConfig::txQueueConfigIs(TxQueue queue, std::uint8_t priority, std::uint8_t percent, ShapeRate rate,
                                 GuaranteedBw bw) {
    auto config = txQueueConfig_.get(queue);
    const bool fresh = config == nullptr;
    if (fresh) config = std::make_shared<TxQueueConfig>(queue);
    config->assign(config->priority_, priority, "priority");
    config->assign(config->percent_, percent, "percent");
    config->assign(config->guaranteedBw_, bw, "guaranteedBw");
    config->shapeRateIs(rate);
    if (fresh) putChild(txQueueConfig_, queue, std::move(config), "txQueueConfig");
}

}  // namespace Qos::Input

template class State::Record<Qos::Status>;
template class State::Record<Qos::HwStatus>;
template class State::Record<Qos::Input::TxQueueConfig>;
template class State::Record<Qos::Input::IntfConfig>;
template class State::Record<Qos::Input::Config>;
