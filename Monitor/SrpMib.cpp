#include "Monitor/SrpMib.h"

#include "Msrp/types/Config.h"
#include "Switch/EthAddr.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace Monitor {

using Msrp::U64;
using Show::at;
using Show::numberOf;
using Show::Snapshot;
using Show::textOf;
using State::Value;

namespace {

/// A bridge of one component has this one (IEEE 802.1Q 17.3.2).
constexpr std::uint32_t component = 1;

enum Direction : std::uint32_t { talkerRegistrations = 0, listenerRegistrations = 1 };
enum DeclarationType : std::uint32_t {
    talkerAdvertise = 0,
    talkerFailed = 1,
    listenerAskingFailed = 2,
    listenerReady = 3,
    listenerReadyFailed = 4,
};

SubIds entry(std::initializer_list<std::uint32_t> below) {
    SubIds name = srpMibObjects;
    name.insert(name.end(), below);
    return name;
}

MibCell addressCell(const Value& text) {
    return octetsCell(EthAddr::parse(textOf(text)).value_or(EthAddr{}).number(), 6);
}

class SrpMib {
public:
    SrpMib(const Snapshot& snapshot, const PortNumbers& numbers) : s_{snapshot}, numbers_{numbers} {}

    MibTables tables() {
        MibTables tables;
        tables.add(entry({1, 1, 1}), bridge());
        tables.add(entry({1, 2, 1}), bridgePorts());
        tables.add(entry({2, 1, 1}), latencies());
        readStreams();
        tables.add(entry({3, 1, 1}), std::move(streams_));
        tables.add(entry({4, 1, 1}), std::move(reservations_));
        return tables;
    }

private:
    [[nodiscard]] std::vector<MibRow> bridge() const {
        MibRow row;
        row.index.add(component);
        row.column(1) = truthCell(Show::isTrue(at(s_.record("msrp/status"), {"msrpEnabled"})));
        row.column(2) = truthCell(false);  // talkers are declared on all ports
        row.column(3) = gaugeCell(0);      // no limit of ports with talkers
        row.column(5) = truthCell(false);  // where the VLAN is missing the talker is declared as failed
        row.column(6) = gaugeCell(Msrp::bothClasses.size());
        return {row};
    }

    [[nodiscard]] std::vector<MibRow> bridgePorts() const {
        std::vector<MibRow> rows;
        for (const auto& [port, enabled] : srpMibPorts(s_)) {
            const auto number = numbers_.find(port);
            if (number == numbers_.end()) continue;
            const Value& engine = at(s_.record("mrp/status"), {"intf", port});
            const Value& config = s_.record("msrp/cliConfig");
            const U64 own = numberOf(at(config, {"srPvid", port}));
            MibRow row;
            row.index.add(component);
            row.index.add(number->second);
            row.column(1) = truthCell(enabled);
            row.column(2) = counterCell(numberOf(at(engine, {"refusedJoins"})) +
                                        numberOf(at(engine, {"droppedRegistrations"})));
            row.column(3) = addressCell(at(s_.record("linux/packets"), {"intf", port, "lastSource"}));
            row.column(4) = gaugeCell(own != 0 ? own : numberOf(at(config, {"defaultSrPvid"})));
            row.column(5) = truthCell(false);
            rows.push_back(row);
        }
        return rows;
    }

    /// Of core ports: others are no way for streams.
    [[nodiscard]] std::vector<MibRow> latencies() const {
        std::vector<MibRow> rows;
        for (const auto& [port, number] : numbers_) {
            const auto latency =
                State::Codec<Msrp::ClassLatency>::decode(at(s_.record("msrp/cliConfig"), {"latency", port}));
            for (const bool classA : {true, false}) {
                const std::string name = classA ? "A" : "B";
                const Value& state =
                    at(s_.record("msrp/status"), {"intfStatus", port, "srClassState", "SrClass" + name});
                const auto trafficClass = trafficClassOf(name);
                if (textOf(state) != "Core" || !trafficClass) continue;
                MibRow row;
                row.index.add(component);
                row.index.add(number);
                row.index.add(*trafficClass);
                const Msrp::ClassLatency added = latency.value_or(Msrp::ClassLatency{});
                row.column(2) = gaugeCell(classA ? added.a : added.b);
                rows.push_back(row);
            }
        }
        return rows;
    }

    [[nodiscard]] std::optional<std::uint32_t> trafficClassOf(const std::string& srClass) const {
        const U64 priority = numberOf(at(s_.record("msrp/cliConfig"), {"srClass" + srClass + "Priority"}));
        const std::string key = std::to_string(priority);
        const Value& own = at(s_.record("qos/status"), {"cosToTc", key});
        const Value& number =
            own.isNull() ? at(s_.record("qos/hardware/status/global"), {"defaultCosToTc", key}) : own;
        return number.isNull() ? std::nullopt : std::optional{static_cast<std::uint32_t>(numberOf(number))};
    }

    void readStreams() {
        const bool policed = textOf(at(s_.record("linux/config"), {"streams"})) == "police";
        std::unordered_map<std::string_view, U64> dropped;
        if (policed) {
            for (const auto& [id, traffic] : Show::membersOf(at(s_.record("linux/traffic"), {"stream"})))
                dropped.emplace(id, numberOf(at(traffic, {"over"})));
        }
        for (const auto& [key, stream] :
             Show::membersOf(at(s_.record("msrp/status"), {"registeredStreams"}))) {
            const auto id = State::parseHex(key);
            if (!id) continue;
            const auto lost = dropped.find(key);
            addTalker(*id, stream, lost != dropped.end() ? counterCell(lost->second) : MibCell{});
            addListeners(*id, stream);
        }
    }

    void addTalker(U64 id, const Value& stream, MibCell dropped) {
        const std::string from = textOf(at(stream, {"ingressIntf"}));
        if (from.empty()) return;
        const auto number = [&](std::string_view field) { return numberOf(at(stream, {field})); };
        MibRow row;
        row.index.addOctets(id, 8);
        row.column(2) = addressCell(at(stream, {"macDa"}));
        row.column(3) = gaugeCell(number("vlanId"));
        row.column(4) = gaugeCell(number("maxFrameSize"));
        row.column(5) = gaugeCell(number("maxIntervalFrames"));
        row.column(6) = integerCell(number("dataFramePriority"));
        row.column(7) = integerCell(number("rank"));
        streams_.push_back(row);
        const std::string state = textOf(at(stream, {"talkerState", from}));
        if (state == "Advertise" || state == "Failed") {
            addReservation(id, stream, talkerRegistrations, from,
                           state == "Failed" ? talkerFailed : talkerAdvertise, dropped);
        }
    }

    void addListeners(U64 id, const Value& stream) {
        for (const auto& [port, heard] : Show::membersOf(at(stream, {"listenerStateOrig"}))) {
            const std::string state = textOf(heard);
            if (state == "AskingFailed") {
                addReservation(id, stream, listenerRegistrations, port, listenerAskingFailed, {});
            } else if (state == "Ready") {
                addReservation(id, stream, listenerRegistrations, port, listenerReady, {});
            } else if (state == "ReadyFailed") {
                addReservation(id, stream, listenerRegistrations, port, listenerReadyFailed, {});
            }
        }
    }

    void addReservation(U64 id, const Value& stream, Direction direction, const std::string& port,
                        DeclarationType type, MibCell dropped) {
        const auto number = numbers_.find(port);
        if (number == numbers_.end()) return;
        const U64 code = numberOf(at(stream, {"talkerFailureCode", port}));
        const U64 bridge = State::parseHex(textOf(at(stream, {"failedBridgeId"}))).value_or(0);
        const auto since = State::Codec<double>::decode(at(stream, {"statusTime", port}));
        MibRow row;
        row.index.addOctets(id, 8);
        row.index.add(direction);
        row.index.add(component);
        row.index.add(number->second);
        row.column(3) = integerCell(type);
        row.column(4) = gaugeCell(numberOf(at(stream, {"accumulatedLatency"})));
        row.column(5) = octetsCell(code != 0 ? bridge : 0, 8);
        // What peers say beyond the codes that there are is none of the object's values.
        if (code <= Msrp::number(Msrp::TalkerFailureCode::srClassPriorityMismatch))
            row.column(6) = integerCell(code);
        row.column(7) = dropped;
        row.column(8) = gaugeCell(since ? static_cast<U64>(std::max(0.0, s_.now - *since)) : 0);
        reservations_.push_back(row);
    }

    const Snapshot& s_;
    const PortNumbers& numbers_;
    std::vector<MibRow> streams_;
    std::vector<MibRow> reservations_;
};

}  // namespace

std::vector<Wanted> srpMibRecords() {
    return {{"msrp/config"},  {"msrp/cliConfig"}, {"msrp/status"},
            {"mrp/status"},   {"qos/status"},     {"qos/hardware/status/global"},
            {"linux/config"}, {"linux/packets"},  {"linux/traffic"}};
}

std::map<std::string, bool> srpMibPorts(const Snapshot& snapshot) {
    std::map<std::string, bool> ports;
    for (const std::string& port : Show::enabledPorts(snapshot)) ports.emplace(port, true);
    for (const auto& [port, enabled] : Show::membersOf(at(snapshot.record("msrp/config"), {"intfEnable"}))) {
        if (!Show::isTrue(enabled)) ports.emplace(port, false);
    }
    return ports;
}

MibTables srpMib(const Snapshot& snapshot, const PortNumbers& numbers) {
    return SrpMib{snapshot, numbers}.tables();
}

}  // namespace Monitor
