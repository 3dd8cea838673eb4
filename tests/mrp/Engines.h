/// Two MRP engines face to face on a virtual clock, with an application that writes down what it hears.
#pragma once

#include "Mrp/MrpSm.h"
#include "Mrp/PduWriter.h"
#include "Runtime/VirtualLoop.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace MrpTest {

using namespace std::chrono_literals;

inline std::uint64_t number(std::span<const std::uint8_t> octets) {
    std::uint64_t n = 0;
    for (const std::uint8_t octet : octets) n = n << 8 | octet;
    return n;
}
inline void put(std::span<std::uint8_t> octets, std::uint64_t n) {
    for (std::size_t i = octets.size(); i-- > 0; n >>= 8) octets[i] = static_cast<std::uint8_t>(n);
}
/// Adds k to a field, modulo its width.
inline void add(std::span<std::uint8_t> octets, std::uint64_t k) { put(octets, number(octets) + k); }

inline std::uint64_t streamKey(std::span<const std::uint8_t> v) { return number(v.first(8)); }
inline std::uint64_t classKey(std::span<const std::uint8_t> v) { return v[0]; }
inline bool nextStream(std::span<std::uint8_t> v, std::uint32_t k) {
    add(v.subspan(6, 2), k);
    if (v.size() > 8) add(v.subspan(8, 6), k);
    return true;
}
inline bool nextClass(std::span<std::uint8_t> v, std::uint32_t k) {
    if (v[0] + k > 255 || v[1] + k > 255) return false;
    v[0] = static_cast<std::uint8_t>(v[0] + k);
    v[1] = static_cast<std::uint8_t>(v[1] + k);
    return true;
}
template <bool (*next)(std::span<std::uint8_t>, std::uint32_t), std::size_t wrapping>
bool follows(std::span<const std::uint8_t> before, std::span<const std::uint8_t> after) {
    std::vector<std::uint8_t> value{before.begin(), before.end()};
    if (!next(value, 1) || !std::ranges::equal(value, after)) return false;
    return number(before.first(wrapping)) < number(after.first(wrapping));
}
inline constexpr std::array<Mrp::AttributeType, 4> types{{
    {1, 25, false, false, false, streamKey, nextStream, follows<nextStream, 8>},
    {2, 34, false, false, false, streamKey, nextStream, follows<nextStream, 8>},
    {3, 8, true, false, false, streamKey, nextStream, follows<nextStream, 8>},
    {4, 4, false, true, true, classKey, nextClass, follows<nextClass, 1>},
}};
inline const Mrp::ApplicationInfo msrp{0, types};

inline std::vector<std::uint8_t> octets(std::string_view hex) {
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<std::uint8_t>(std::stoi(std::string{hex.substr(i, 2)}, nullptr, 16)));
    }
    return out;
}
inline std::string hex(std::span<const std::uint8_t> bytes) {
    std::string out;
    for (const std::uint8_t b : bytes) {
        constexpr std::string_view digits = "0123456789abcdef";
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}
/// What a PDU says, for example "LeaveAll 3; JoinIn 3/5=2": type, low 16 bits of the key, declaration.
inline std::string text(std::span<const std::uint8_t> pdu) {
    Mrp::DecodedPdu decoded;
    Mrp::decode(pdu, msrp, decoded);
    std::string out;
    for (std::size_t i = 0; i < types.size(); ++i) {
        if (decoded.leaveAll.test(i)) out += "LeaveAll " + std::to_string(types[i].type) + "; ";
    }
    for (const auto& e : decoded.events) {
        const auto& t = types[e.typeIndex];
        out += State::enumText(e.event) + ' ' + std::to_string(t.type) + '/' +
               std::to_string(t.key(std::span{e.value.octets}.first(t.valueLength)) % 0x10000) +
               (t.fourPacked ? '=' + std::to_string(e.value.declaration) : "") + "; ";
    }
    for (const auto& flaw : decoded.flaws)
        out += State::enumText(flaw.reason) + '@' + std::to_string(flaw.offset) + "; ";
    if (out.size() > 2) out.resize(out.size() - 2);
    return out;
}

/// The application of one engine.
class App : public Mrp::MrpLib {
public:
    App() : MrpLib{msrp} {}

    [[nodiscard]] const std::type_info& fwkType() const override { return typeid(App); }
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override {
        const std::string name = attribute(params);
        heard += "+" + params.intf.name() + ' ' + name + '\n';
        if (onJoin) onJoin(params);
        if (outOfRange.contains(name)) throw std::range_error("value out of range");
        if (refusing.contains(name)) return 1;
        held[params.intf.name() + ' ' + name.substr(0, name.find('='))] = name;
        return 0;
    }
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override {
        const std::string name = attribute(params);
        heard += "-" + params.intf.name() + ' ' + name + '\n';
        held.erase(params.intf.name() + ' ' + name.substr(0, name.find('=')));
        if (onLeave) onLeave(params);
    }
    /// "3/5=2": type, key, and the declaration or what follows the key in the value (up to 32 bits).
    [[nodiscard]] std::string attribute(const Mrp::MrpParameters& params) const {
        const auto& slot = incoming(params.attributeType);
        const bool domain = params.attributeType == 4;
        const std::uint64_t rest = params.attributeType == 3 ? slot.declaration
                                   : domain                  ? slot.value[1]
                                                             : number(std::span{slot.value}.subspan(21, 4));
        return std::to_string(params.attributeType) + '/' +
               std::to_string(domain ? slot.value[0] : number(std::span{slot.value}.first(8))) + '=' +
               std::to_string(rest);
    }
    void request(const std::string& intf, std::uint8_t type, std::uint64_t key, std::uint32_t rest,
                 std::uint8_t kind) {
        auto& slot = outgoing(type);
        slot = {};
        if (type == 4) {
            slot.value = {static_cast<std::uint8_t>(key), static_cast<std::uint8_t>(rest), 0, 2};
        } else {
            put(std::span{slot.value}.first(8), key);
            if (type == 3) slot.declaration = rest;
            if (type < 3) {
                put(std::span{slot.value}.subspan(8, 6), 0x91e0f0000000 + key % 0x10000);
                put(std::span{slot.value}.subspan(21, 4), rest);
            }
        }
        mrpOutIntfQueueEnq(IntfId{intf});
        mrpSendAttribute({.intf = IntfId{intf}, .attributeType = type, .request = kind, .reserved = 0});
    }
    void declare(const std::string& intf, std::uint8_t type, std::uint64_t key, std::uint32_t rest = 0) {
        request(intf, type, key, rest, Mrp::requestDeclare);
    }
    void withdraw(const std::string& intf, std::uint8_t type, std::uint64_t key, std::uint32_t rest = 0) {
        request(intf, type, key, rest, Mrp::requestWithdraw);
    }
    std::string take() { return std::exchange(heard, {}); }

    std::string heard;
    std::map<std::string, std::string> held;  ///< what the application believes to be registered
    std::set<std::string> refusing;
    std::set<std::string> outOfRange;
    std::function<void(const Mrp::MrpParameters&)> onJoin;
    std::function<void(const Mrp::MrpParameters&)> onLeave;
};

/// Ports in memory.  A frame arrives at `peer` of its port a little later, unless `lose` says otherwise.
class Wire : public Mrp::PacketPortProvider {
public:
    explicit Wire(Runtime::Loop& loop) : loop_{loop} {}

    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override {
        receivers_[intf.name()] = std::move(receiver);
        return std::make_unique<Port>(*this, intf.name());
    }
    void connect(const std::string& a, const std::string& b) {
        peer[a] = b;
        peer[b] = a;
    }
    void deliver(const std::string& intf, const std::vector<std::uint8_t>& pdu) {
        // A copy of just its size: reading past its end is then seen by the sanitizer.
        const std::vector<std::uint8_t> exact{pdu.begin(), pdu.end()};
        if (const auto at = receivers_.find(intf); at != receivers_.end()) at->second(exact);
    }
    [[nodiscard]] bool isOpen(const std::string& intf) const { return receivers_.contains(intf); }

    std::map<std::string, std::string> peer;
    std::function<bool(std::size_t number)> lose;  ///< counting all frames
    std::function<Runtime::Duration(std::size_t number)> delay;
    std::vector<std::pair<std::string, std::vector<std::uint8_t>>> frames;
    std::vector<Runtime::Time> times;

private:
    struct Port : Mrp::PacketPort {
        Port(Wire& owner, std::string intf) : wire{owner}, name{std::move(intf)} {}
        ~Port() override { wire.receivers_.erase(name); }
        bool send(std::span<const std::uint8_t> pdu) override {
            const bool lost = wire.lose && wire.lose(wire.frames.size());
            wire.frames.emplace_back(name, std::vector<std::uint8_t>{pdu.begin(), pdu.end()});
            wire.times.push_back(wire.loop_.now());
            if (lost || !wire.peer.contains(name)) return !lost;
            // What has landed need not be kept.
            while (!wire.flights_.empty() && !wire.flights_.front()->armed()) wire.flights_.pop_front();
            auto& flight = wire.flights_.emplace_back();
            flight = std::make_unique<Runtime::Timer>(
                wire.loop_, [&w = wire, to = wire.peer.at(name), frame = wire.frames.back().second] {
                    w.deliver(to, frame);
                });
            flight->armIn(wire.delay ? wire.delay(wire.frames.size()) : 10us);
            return true;
        }
        Wire& wire;
        std::string name;
    };
    Runtime::Loop& loop_;
    std::map<std::string, Receiver> receivers_;
    std::deque<std::unique_ptr<Runtime::Timer>> flights_;
};

/// One switch with some ports.
struct Bridge {
    Bridge(Runtime::Loop& loop, Wire& wire, std::vector<std::string> names, std::uint64_t seed,
           bool standby = false)
        : ports{std::move(names)},
          engine{std::make_unique<Mrp::MrpSm>(Mrp::Inputs{
              .brConfig = bridging,
              .application = app,
              .mrpConfig = config,
              .mrpStatus = status,
              .attributes = nullptr,
              .stpStatus = stp,
              .topoConfig = nullptr,
              .ethPhyIntfStatusDir = links,
              .environment = {loop, wire, trace,
                              [this](IntfId, const std::string& line) { reports.push_back(line); }, seed},
              .standbyMode = standby})} {
        for (const auto& name : ports) {
            links->intfStatusIs(IntfId{name})->linkStatusIs(Interface::LinkStatus::linkUp);
            app.mrpInterfaceEnable(IntfId{name});
        }
    }
    std::vector<std::string> ports;
    App app;
    std::shared_ptr<Mrp::MrpConfig> config = std::make_shared<Mrp::MrpConfig>();
    std::shared_ptr<Mrp::MrpStatus> status = std::make_shared<Mrp::MrpStatus>();
    std::shared_ptr<Bridging::Config> bridging = std::make_shared<Bridging::Config>();
    std::shared_ptr<Stp::Status> stp = std::make_shared<Stp::Status>();
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> links =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    Runtime::Trace trace;
    std::vector<std::string> reports;
    std::unique_ptr<Mrp::MrpSm> engine;
};

/// "a1" and "b1" joined by a link; frames can also be played to "a2", which has no peer.
struct Pair {
    explicit Pair(std::uint64_t seed = 1)
        : a{loop, wire, {"a1", "a2"}, seed}, b{loop, wire, {"b1"}, seed + 1} {
        wire.connect("a1", "b1");
    }
    /// What was sent by a port since the last call, one PDU a line.
    std::string sent(const std::string& intf) {
        std::string out;
        auto& from = taken[intf];
        for (; from < wire.frames.size(); ++from) {
            if (wire.frames[from].first == intf) out += text(wire.frames[from].second) + '\n';
        }
        return out;
    }
    /// Lets the port of `a` that has no peer hear one PDU.
    void hear(
        std::initializer_list<std::tuple<Mrp::Event, std::uint8_t, std::uint64_t, std::uint32_t>> events,
        bool leaveAll = false) {
        Mrp::PduWriter writer{msrp, leaveAll};
        for (const auto& [event, type, key, rest] : events) {
            Mrp::AttributeValue value;
            if (type == 4) {
                value.octets = {static_cast<std::uint8_t>(key), static_cast<std::uint8_t>(rest), 0, 2};
            } else {
                put(std::span{value.octets}.first(8), key);
                if (type == 3) value.declaration = static_cast<std::uint8_t>(rest);
                if (type < 3) put(std::span{value.octets}.subspan(21, 4), rest);
            }
            writer.add(static_cast<std::uint8_t>(type - 1), event, value);
        }
        const auto pdu = writer.finish();
        wire.deliver("a2", {pdu.begin(), pdu.end()});
        loop.settle();
    }
    Runtime::VirtualLoop loop;
    Wire wire{loop};
    Bridge a;
    Bridge b;
    std::map<std::string, std::size_t> taken;
};

}  // namespace MrpTest
