/// Quality-of-service records: how the switch maps priorities to queues, and what agents ask of its queues.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <array>
#include <compare>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Qos {

enum class TxQueueType : std::uint8_t { none = 0, multicast = 1, unicast = 2 };

/// A transmit queue of a port; number 16 stands for no queue.
struct TxQueue {
    std::uint8_t number = invalidTrafficClass;
    TxQueueType type = TxQueueType::none;
    auto operator<=>(const TxQueue&) const = default;
    /// "unicast:5"
    [[nodiscard]] std::string text() const;
    static std::optional<TxQueue> parse(std::string_view text);
};

/// A percentage, or 101 for none.
inline constexpr std::uint8_t noPercent = 101;

/// Rate to which a queue is shaped.
struct ShapeRate {
    ShapeRateVal rate{invalidShapeRate};
    std::uint8_t unit = 0;  ///< 0: kbit/s
    bool operator==(const ShapeRate&) const = default;
};

/// Rate that a queue is promised.
struct GuaranteedBw {
    std::uint32_t bandwidth;
    std::uint8_t unit;
    std::uint8_t percent;
    bool operator==(const GuaranteedBw&) const = default;
};
/// The value that stands for no promise.
inline constexpr GuaranteedBw noGuaranteedBw{535'822'337, 0, noPercent};

/// "qos/status": the tables in force, where they differ from the hardware's defaults.
class Status : public State::Record<Status> {
public:
    static constexpr std::string_view type = "Qos::Status";

    [[nodiscard]] const State::FlatMap<Cos, TrafficClass>& cosToTc() const { return cosToTc_; }
    void cosToTcIs(Cos cos, TrafficClass tc) { setEntry(cosToTc_, cos, tc, "cosToTc"); }
    [[nodiscard]] const State::FlatMap<TrafficClass, std::uint8_t>& tcToTxQueue() const {
        return tcToTxQueue_;
    }
    void tcToTxQueueIs(TrafficClass tc, std::uint8_t q) { setEntry(tcToTxQueue_, tc, q, "tcToTxQueue"); }
    [[nodiscard]] const State::FlatMap<TrafficClass, std::uint8_t>& tcToMcTxQueue() const {
        return tcToMcTxQueue_;
    }
    void tcToMcTxQueueIs(TrafficClass tc, std::uint8_t q) {
        setEntry(tcToMcTxQueue_, tc, q, "tcToMcTxQueue");
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("cosToTc", &Status::cosToTc_));
        each(State::map("tcToTxQueue", &Status::tcToTxQueue_));
        each(State::map("tcToMcTxQueue", &Status::tcToMcTxQueue_));
    }

private:
    State::FlatMap<Cos, TrafficClass> cosToTc_;
    State::FlatMap<TrafficClass, std::uint8_t> tcToTxQueue_;
    State::FlatMap<TrafficClass, std::uint8_t> tcToMcTxQueue_;
};

/// "qos/hardware/status/global": what the hardware does by default.  A new record has the recommended table
/// of IEEE 802.1Q 34.5 for eight queues, and queue n for traffic class n.
class HwStatus : public State::Record<HwStatus> {
public:
    static constexpr std::string_view type = "Qos::HwStatus";
    HwStatus();

    [[nodiscard]] bool multicastQueues() const { return multicastQueues_; }
    void multicastQueuesIs(bool v) { assign(multicastQueues_, v, "multicastQueues"); }
    [[nodiscard]] const State::FlatMap<Cos, TrafficClass>& defaultCosToTc() const { return defaultCosToTc_; }
    void defaultCosToTcIs(Cos cos, TrafficClass tc) { setEntry(defaultCosToTc_, cos, tc, "defaultCosToTc"); }
    [[nodiscard]] const State::FlatMap<TrafficClass, std::uint8_t>& defaultTcToTxQueue() const {
        return defaultTcToTxQueue_;
    }
    void defaultTcToTxQueueIs(TrafficClass tc, std::uint8_t q) {
        setEntry(defaultTcToTxQueue_, tc, q, "defaultTcToTxQueue");
    }
    [[nodiscard]] const State::FlatMap<TrafficClass, std::uint8_t>& defaultTcToMcTxQueue() const {
        return defaultTcToMcTxQueue_;
    }
    void defaultTcToMcTxQueueIs(TrafficClass tc, std::uint8_t q) {
        setEntry(defaultTcToMcTxQueue_, tc, q, "defaultTcToMcTxQueue");
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("multicastQueues", &HwStatus::multicastQueues_));
        each(State::map("defaultCosToTc", &HwStatus::defaultCosToTc_));
        each(State::map("defaultTcToTxQueue", &HwStatus::defaultTcToTxQueue_));
        each(State::map("defaultTcToMcTxQueue", &HwStatus::defaultTcToMcTxQueue_));
    }

private:
    bool multicastQueues_ = false;
    State::FlatMap<Cos, TrafficClass> defaultCosToTc_;
    State::FlatMap<TrafficClass, std::uint8_t> defaultTcToTxQueue_;
    State::FlatMap<TrafficClass, std::uint8_t> defaultTcToMcTxQueue_;
};

}  // namespace Qos

template <>
struct State::KeyText<Qos::TxQueue> {
    static std::string text(const Qos::TxQueue& q) { return q.text(); }
    static std::optional<Qos::TxQueue> parse(std::string_view t) { return Qos::TxQueue::parse(t); }
    static std::string expected() { return "a queue like unicast:5"; }
    static Schema schema() { return {.type = "string", .pattern = "^[a-z]+:[0-9]+$"}; }
};

namespace Qos::Input {

/// What an agent asks of one queue.
class TxQueueConfig : public State::Record<TxQueueConfig> {
public:
    static constexpr std::string_view type = "Qos::Input::TxQueueConfig";
    explicit TxQueueConfig(TxQueue queue) : queue_{queue} {}

    [[nodiscard]] TxQueue queue() const { return queue_; }
    [[nodiscard]] std::uint8_t priority() const { return priority_; }
    [[nodiscard]] std::uint8_t percent() const { return percent_; }
    [[nodiscard]] ShapeRate shapeRate() const { return {shapeRate_, shapeRateUnit_}; }
    [[nodiscard]] GuaranteedBw guaranteedBw() const { return guaranteedBw_; }
    void shapeRateIs(ShapeRate v) {
        assign(shapeRateUnit_, v.unit, "shapeRateUnit");
        assign(shapeRate_, v.rate, "shapeRate");
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("priority", &TxQueueConfig::priority_));
        each(State::scalar("percent", &TxQueueConfig::percent_));
        each(State::scalar("shapeRate", &TxQueueConfig::shapeRate_));
        each(State::scalar("shapeRateUnit", &TxQueueConfig::shapeRateUnit_));
        each(State::derived<TxQueueConfig>(
            "guaranteedBw", [](const TxQueueConfig& c) { return std::uint64_t{c.guaranteedBw_.bandwidth}; }));
    }

private:
    friend class IntfConfig;
    TxQueue queue_;
    std::uint8_t priority_ = 0;
    std::uint8_t percent_ = noPercent;
    ShapeRateVal shapeRate_{invalidShapeRate};
    std::uint8_t shapeRateUnit_ = 0;
    GuaranteedBw guaranteedBw_ = noGuaranteedBw;
};

class IntfConfig : public State::Record<IntfConfig> {
public:
    static constexpr std::string_view type = "Qos::Input::IntfConfig";
    explicit IntfConfig(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] const State::Collection<TxQueue, TxQueueConfig>& txQueueConfig() const {
        return txQueueConfig_;
    }
    [[nodiscard]] std::shared_ptr<TxQueueConfig> txQueueConfig(TxQueue q) { return txQueueConfig_.get(q); }
    [[nodiscard]] std::shared_ptr<const TxQueueConfig> txQueueConfig(TxQueue q) const {
        return txQueueConfig_.get(q);
    }
    /// Makes (or changes) the queue's configuration as a whole.
    void txQueueConfigIs(TxQueue queue, std::uint8_t priority, std::uint8_t percent, ShapeRate rate,
                         GuaranteedBw bw);
    void txQueueConfigDel(TxQueue q) { delChild(txQueueConfig_, q, "txQueueConfig"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("txQueueConfig", &IntfConfig::txQueueConfig_));
    }

private:
    IntfId intfId_;
    State::Collection<TxQueue, TxQueueConfig> txQueueConfig_;
};

/// "qos/input/config/msrp"
class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Qos::Input::Config";

    [[nodiscard]] const std::string& agentName() const { return agentName_; }
    void agentNameIs(const std::string& v) { assign(agentName_, v, "agentName"); }
    /// Weight of this agent's global settings (and of its port settings) against other agents'; 0 withdraws
    /// them.
    [[nodiscard]] std::uint32_t configPriority() const { return configPriority_; }
    void configPriorityIs(std::uint32_t v) { assign(configPriority_, v, "configPriority"); }
    [[nodiscard]] std::uint32_t intfConfigPriority() const { return intfConfigPriority_; }
    void intfConfigPriorityIs(std::uint32_t v) { assign(intfConfigPriority_, v, "intfConfigPriority"); }

    [[nodiscard]] const State::FlatMap<Cos, TrafficClass>& cosToTcMap() const { return cosToTcMap_; }
    void cosToTcMapIs(Cos cos, TrafficClass tc) { setEntry(cosToTcMap_, cos, tc, "cosToTcMap"); }

    [[nodiscard]] const State::Collection<IntfId, IntfConfig>& intfConfig() const { return intfConfig_; }
    [[nodiscard]] std::shared_ptr<IntfConfig> intfConfig(IntfId id) { return intfConfig_.get(id); }
    [[nodiscard]] std::shared_ptr<const IntfConfig> intfConfig(IntfId id) const {
        return intfConfig_.get(id);
    }
    std::shared_ptr<IntfConfig> intfConfigIs(IntfId id) { return makeChild(intfConfig_, id, "intfConfig"); }
    void intfConfigDel(IntfId id) { delChild(intfConfig_, id, "intfConfig"); }
    void intfConfigDelAll() { delChildren(intfConfig_, "intfConfig"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("agentName", &Config::agentName_));
        each(State::scalar("configPriority", &Config::configPriority_));
        each(State::scalar("intfConfigPriority", &Config::intfConfigPriority_));
        each(State::map("cosToTcMap", &Config::cosToTcMap_));
        each(State::collection("intfConfig", &Config::intfConfig_));
    }

private:
    std::string agentName_;
    std::uint32_t configPriority_ = 0;
    std::uint32_t intfConfigPriority_ = 0;
    State::FlatMap<Cos, TrafficClass> cosToTcMap_;
    State::Collection<IntfId, IntfConfig> intfConfig_;
};

}  // namespace Qos::Input

// Made once, in the source file beside this header.
extern template class State::Record<Qos::Status>;
extern template class State::Record<Qos::HwStatus>;
extern template class State::Record<Qos::Input::TxQueueConfig>;
extern template class State::Record<Qos::Input::IntfConfig>;
extern template class State::Record<Qos::Input::Config>;
