/// Two MRP engines face to face on a virtual clock, with an application that writes down what it hears.
/// An attribute is written "3/5=2": type, key, and a talker's latency, a listener's state or a domain's
/// priority.
#pragma once

#include "Mrp/MrpSm.h"
#include "Runtime/Assert.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Peer.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace MrpTest {

using namespace std::chrono_literals;
using Sim::Pdu;

inline const IntfId a1{"a1"}, a2{"a2"}, b1{"b1"};

inline Sim::Say say(std::uint8_t type, std::uint64_t key, std::uint32_t rest = 0,
                    Mrp::Event event = Mrp::Event::JoinMt) {
    if (type == Msrp::typeListener) return Sim::listener(key, static_cast<Msrp::ListenerState>(rest), event);
    if (type == Msrp::typeDomain)
        return Sim::domain(static_cast<Msrp::SrClassId>(key), static_cast<std::uint8_t>(rest), event);
    const Sim::Talker talker{.id = key, .macDa = 0x91e0f0000000 + key % 0x10000, .latency = rest};
    return type == Msrp::typeTalkerAdvertise ? Sim::advertise(talker, event)
                                             : Sim::failed(talker, 1, 2, event);
}
inline Sim::Say say(const std::string& text, Mrp::Event event = Mrp::Event::JoinMt) {
    const auto slash = text.find('/');
    const auto equals = text.find('=');
    return say(
        static_cast<std::uint8_t>(std::stoul(text)), std::stoul(text.substr(slash + 1)),
        equals == std::string::npos ? 0 : static_cast<std::uint32_t>(std::stoul(text.substr(equals + 1))),
        event);
}

inline std::string describe(const Sim::Say& what) {
    std::uint64_t rest = what.type == Msrp::typeDomain ? what.value[1] : what.declaration;
    if (what.type < Msrp::typeListener)
        rest = Msrp::MsrpTalkerAdvertiseAttribute{what.value}.accumulatedLatency();
    return std::to_string(what.type) + '/' +
           std::to_string(Msrp::application().types[what.type - 1U].key(what.value)) + '=' +
           std::to_string(rest);
}

/// What a PDU says, for example "LeaveAll 3; JoinIn 3/5=2": type, low 16 bits of the key, declaration.
inline std::string text(std::span<const std::uint8_t> pdu) {
    const auto types = Msrp::application().types;
    Mrp::DecodedPdu decoded;
    Mrp::decode(pdu, Msrp::application(), decoded);
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

/// The application of one engine.  Its books say at any time what the engine must have.
class App : public Mrp::MrpLib {
public:
    /// A type and a key.
    using Name = std::pair<std::uint8_t, std::uint64_t>;
    using Books = std::map<IntfId, std::map<Name, Mrp::AttributeValue>>;
    /// May make requests.
    using Hook = std::function<void(IntfId, const Sim::Say&)>;

    App() : MrpLib{Msrp::application()} {}

    void request(IntfId intf, const Sim::Say& what, std::uint8_t kind) {
        const Mrp::AttributeValue value = Sim::valueOf(what);
        if (kind == Mrp::requestDeclare && !engine->standbyMode() && enabled.contains(intf))
            declared[intf][nameOf(what)] = value;
        if (kind != Mrp::requestDeclare) declared[intf].erase(nameOf(what));
        if (kind == Mrp::requestInternalLeave) held[intf].erase(nameOf(what));
        outgoing(what.type) = {.value = value.octets, .declaration = value.declaration};
        mrpOutIntfQueueEnq(intf);
        mrpSendAttribute({.intf = intf, .attributeType = what.type, .request = kind});
    }
    void declare(IntfId intf, const Sim::Say& what) { request(intf, what, Mrp::requestDeclare); }
    void withdraw(IntfId intf, const Sim::Say& what) { request(intf, what, Mrp::requestWithdraw); }
    void purge(IntfId intf, std::uint8_t type, std::uint64_t key) {
        held[intf].erase({type, key});
        mrpCleanUpIntfDatabaseAttribute(intf, type, key);
    }
    void purgeAll(IntfId intf) {
        held.erase(intf);
        mrpCleanUpIntfDatabase(intf);
    }
    void enable(IntfId intf) {
        enabled.insert(intf);
        mrpInterfaceEnable(intf);
    }
    void disable(IntfId intf) {
        enabled.erase(intf);
        held.erase(intf);
        declared.erase(intf);
        mrpInterfaceDisable(intf);
    }
    void leaveAll(IntfId intf) { periodicSm()->transmitAllLeaveAll(intf); }

    static Name nameOf(const Sim::Say& what) {
        return {what.type, Msrp::application().types[what.type - 1U].key(what.value)};
    }
    [[nodiscard]] bool registered(IntfId intf, const Sim::Say& what) const {
        bool found = false;
        engine->eachAttribute(intf, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
            if (Name{ref.typeIndex + 1, ref.key} == nameOf(what)) found = attribute.registered();
        });
        return found;
    }
    std::string take() { return std::exchange(heard, {}); }

    Mrp::MrpSm* engine = nullptr;
    std::set<IntfId> enabled;
    Books declared;
    Books held;  ///< registered, and accepted
    std::string heard;
    std::set<std::string> refusing;
    std::set<std::string> outOfRange;
    Hook onJoin;
    Hook onLeave;

private:
    [[nodiscard]] const std::type_info& fwkType() const override { return typeid(App); }
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override {
        const Sim::Say what = indicated('+', params);
        if (onJoin) onJoin(params.intf, what);
        if (outOfRange.contains(describe(what))) throw std::range_error("value out of range");
        if (refusing.contains(describe(what))) return 1;
        // Unless the hook has ended it.
        if (!onJoin || registered(params.intf, what)) held[params.intf][nameOf(what)] = Sim::valueOf(what);
        return 0;
    }
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override {
        const Sim::Say what = indicated('-', params);
        Runtime::require(held[params.intf].erase(nameOf(what)) == 1, "a leave of what is held");
        if (onLeave) onLeave(params.intf, what);
    }
    /// Writes down what is indicated.
    Sim::Say indicated(char sign, const Mrp::MrpParameters& params) {
        const auto& [value, declaration] = incoming(params.attributeType);
        const Sim::Say what{
            Mrp::Event::JoinMt,
            params.attributeType,
            {value.begin(), value.begin() + Msrp::application().types[params.attributeType - 1U].valueLength},
            static_cast<std::uint8_t>(declaration)};
        heard += sign + params.intf.name() + ' ' + describe(what) + '\n';
        return what;
    }
};

/// Cables in memory, and all that was sent over them.
struct Wire {
    struct Frame {
        IntfId from;
        Runtime::Time when;
        Pdu pdu;
    };

    explicit Wire(Runtime::Loop& on) : loop{on}, ports{on} {}
    /// What the port sends arrives at its peer, if it has one, unless `lose` says otherwise.
    void cableIs(IntfId port, IntfId peer = {}) {
        ports.cableIs(port, [this, port, peer](const Pdu& pdu) {
            frames.push_back({port, loop.now(), pdu});
            if ((!lose || !lose(frames.size() - 1)) && peer) ports.deliver(peer, pdu);
        });
    }
    Runtime::Loop& loop;
    Sim::Ports ports;
    std::function<bool(std::size_t number)> lose;  ///< counting all frames
    std::vector<Frame> frames;
};

/// One switch with some ports.
struct Bridge {
    Bridge(Runtime::Loop& loop, Wire& wire, const std::vector<IntfId>& ports, std::uint64_t seed,
           bool standby = false)
        : engine{std::make_unique<Mrp::MrpSm>(Mrp::Inputs{
              .brConfig = nullptr,
              .application = app,
              .mrpConfig = config,
              .mrpStatus = status,
              .attributes = nullptr,
              .stpStatus = nullptr,
              .topoConfig = nullptr,
              .ethPhyIntfStatusDir = links,
              .environment = {loop, wire.ports, trace,
                              [this](IntfId, const std::string& line) { reports.push_back(line); }, seed},
              .standbyMode = standby})} {
        app.engine = engine.get();
        for (const IntfId port : ports) {
            wire.cableIs(port);
            linkIs(port, true);
            app.enable(port);
        }
    }
    void linkIs(IntfId intf, bool up) const {
        links->intfStatusIs(intf)->linkStatusIs(up ? Interface::LinkStatus::linkUp
                                                   : Interface::LinkStatus::linkDown);
    }
    void standbyIs(bool standby) {
        if (standby) app.held.clear(), app.declared.clear();
        engine->standbyModeIs(standby);
        engine->handleStandbyMode();
    }
    App app;
    std::shared_ptr<Mrp::MrpConfig> config = std::make_shared<Mrp::MrpConfig>();
    std::shared_ptr<Mrp::MrpStatus> status = std::make_shared<Mrp::MrpStatus>();
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> links =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    Runtime::Trace trace;
    std::vector<std::string> reports;
    std::unique_ptr<Mrp::MrpSm> engine;
};

/// "a1" and "b1" joined by a link; frames can also be played to "a2", which has no peer.
struct Pair {
    explicit Pair(std::uint64_t seed = 1) : a{loop, wire, {a1, a2}, seed}, b{loop, wire, {b1}, seed + 1} {
        wire.cableIs(a1, b1);
        wire.cableIs(b1, a1);
    }
    /// Lets happen what the words say, and tells what both applications have heard since the last call, as
    /// "+b1 1/5=100\n" (joined) and "-b1 1/5=100\n" (left).  "50ms" and "2s" pass; and at a port:
    /// "a1+1/5=100" is declared, "a1-1/5" withdrawn, "a1!1/5" forgotten, "a1^1/5" purged, "a1^" purged of
    /// all; "a1*" sends a LeaveAll; "a2<JoinIn:1/5,Lv:1/6" is heard in one PDU, "a2<*JoinIn:1/5" with a
    /// LeaveAll.
    std::string play(const std::string& script) {
        std::istringstream words{script};
        for (std::string word; words >> word;) step(word);
        loop.settle();
        return a.app.take() + b.app.take();
    }
    /// What was sent by a port since the last call, one PDU a line.
    std::string sent(IntfId intf) {
        std::string out;
        auto& from = taken_[intf];
        for (; from < wire.frames.size(); ++from) {
            if (wire.frames[from].from == intf) out += text(wire.frames[from].pdu) + '\n';
        }
        return out;
    }
    /// Whether each of the two has registered what the other one declares on the link.
    [[nodiscard]] bool agree() {
        return a.app.declared[a1] == b.app.held[b1] && b.app.declared[b1] == a.app.held[a1];
    }
    Runtime::VirtualLoop loop;
    Wire wire{loop};
    Bridge a;
    Bridge b;

private:
    void step(const std::string& word) {
        if (word.ends_with('s')) {
            const std::chrono::milliseconds span{std::stoi(word)};
            loop.runFor(word.ends_with("ms") ? span : 1000 * span);
            return;
        }
        const IntfId intf{word.substr(0, 2)};
        App& app = (word[0] == 'a' ? a : b).app;
        const std::string rest = word.substr(3);
        const char what = word[2];
        if (what == '<') return hear(intf, rest);
        if (what == '*') return app.leaveAll(intf);
        if (rest.empty()) return app.purgeAll(intf);
        const Sim::Say said = say(rest);
        if (what == '+') app.declare(intf, said);
        if (what == '-') app.withdraw(intf, said);
        if (what == '!') app.request(intf, said, Mrp::requestInternalLeave);
        if (what == '^') app.purge(intf, said.type, App::nameOf(said).second);
    }
    void hear(IntfId intf, const std::string& events) {
        const bool leaveAll = events.starts_with('*');
        std::istringstream words{events.substr(leaveAll ? 1 : 0)};
        std::vector<Sim::Say> said;
        for (std::string word; std::getline(words, word, ',');) {
            const auto colon = word.find(':');
            said.push_back(say(word.substr(colon + 1),
                               *State::Codec<Mrp::Event>::decode(State::Value{word.substr(0, colon)})));
        }
        for (const Pdu& pdu : Sim::pdusOf(said, leaveAll)) wire.ports.deliver(intf, pdu);
        loop.settle();
    }

    std::map<IntfId, std::size_t> taken_;
};

}  // namespace MrpTest
