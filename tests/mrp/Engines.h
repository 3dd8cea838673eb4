/// Two MRP engines face to face on a virtual clock, with an application that writes down what it hears.
/// An attribute is written "3/5=2": type, key, and a talker's latency, a listener's state or a domain's
/// priority.
#pragma once

#include "Mrp/MrpSm.h"
#include "Runtime/Assert.h"
#include "Runtime/Text.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Peer.h"

#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
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
    return Runtime::concat(unsigned{what.type}, '/',
                           Msrp::application().types[what.type - 1U].key(what.value), '=', rest);
}

/// What a PDU says, for example "LeaveAll 3; JoinIn 3/5=2": type, low 16 bits of the key, declaration.
inline std::string text(std::span<const std::uint8_t> pdu) {
    const auto types = Msrp::application().types;
    Mrp::DecodedPdu decoded;
    Mrp::decode(pdu, Msrp::application(), decoded);
    std::string out;
    for (std::size_t i = 0; i < types.size(); ++i)
        out += decoded.leaveAll.test(i) ? Runtime::concat("; LeaveAll ", i + 1) : "";
    for (const auto& e : decoded.events) {
        const auto& t = types[e.typeIndex];
        out += Runtime::concat("; ", State::enumText(e.event), ' ', e.typeIndex + 1, '/',
                               t.key(std::span{e.value.octets}.first(t.valueLength)) % 0x10000);
        if (t.fourPacked) out += Runtime::concat('=', unsigned{e.value.declaration});
    }
    for (const auto& flaw : decoded.flaws)
        out += Runtime::concat("; ", State::enumText(flaw.reason), '@', flaw.offset);
    return out.erase(0, 2);
}

/// The application of one engine.  Its books say at any time what the engine must have.
class App : public Mrp::MrpLib {
public:
    /// A port, a type and a key.
    using Name = std::tuple<IntfId, std::uint8_t, std::uint64_t>;
    using Books = std::map<Name, Mrp::AttributeValue>;
    /// May make requests, throw, or refuse the join by returning true.
    using Hook = std::function<bool(IntfId, const Sim::Say&)>;

    App() : MrpLib{Msrp::application()} {}

    void request(IntfId intf, const Sim::Say& what, std::uint8_t kind) {
        const Mrp::AttributeValue value = Sim::valueOf(what);
        const Name name = nameOf(intf, what);
        if ((kind == Mrp::requestDeclare || kind == Mrp::requestResume) && active(intf))
            declared[name] = value;
        if (kind == Mrp::requestSeed && active(intf) && !registered(name)) held[name] = value;
        if (kind == Mrp::requestWithdraw || kind == Mrp::requestInternalLeave) declared.erase(name);
        if (kind == Mrp::requestInternalLeave) held.erase(name);
        outgoing(what.type) = {.value = value.octets, .declaration = value.declaration};
        mrpOutIntfQueueEnq(intf);
        mrpSendAttribute({.intf = intf, .attributeType = what.type, .request = kind});
    }
    void declare(IntfId intf, const Sim::Say& what) { request(intf, what, Mrp::requestDeclare); }
    void withdraw(IntfId intf, const Sim::Say& what) { request(intf, what, Mrp::requestWithdraw); }
    void purge(IntfId intf, std::uint8_t type, std::uint64_t key) {
        held.erase({intf, type, key});
        mrpCleanUpIntfDatabaseAttribute(intf, type, key);
    }
    void purgeAll(IntfId intf) {
        drop(held, intf);
        mrpCleanUpIntfDatabase(intf);
    }
    void enable(IntfId intf) {
        enabled.insert(intf);
        mrpInterfaceEnable(intf);
    }
    void disable(IntfId intf) {
        enabled.erase(intf);
        drop(held, intf);
        drop(declared, intf);
        mrpInterfaceDisable(intf);
    }
    void leaveAll(IntfId intf) { periodicSm()->transmitAllLeaveAll(intf); }

    static const Mrp::AttributeType& typeOf(std::uint8_t type) {
        return Msrp::application().types[type - 1U];
    }
    static Name nameOf(IntfId intf, const Sim::Say& what) {
        return {intf, what.type, typeOf(what.type).key(what.value)};
    }
    [[nodiscard]] bool active(IntfId intf) const { return !engine->standbyMode() && enabled.contains(intf); }
    /// Visits what the engine knows of a port.
    template <class Visit>
    void each(IntfId intf, Visit&& visit) const {
        engine->eachAttribute(intf, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
            visit(Name{intf, static_cast<std::uint8_t>(ref.typeIndex + 1), ref.key}, attribute);
        });
    }
    [[nodiscard]] bool registered(const Name& name) const {
        bool found = false;
        each(std::get<0>(name), [&](const Name& other, const Mrp::Attribute& attribute) {
            if (other == name) found = attribute.registered();
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
    Hook onJoin;
    Hook onLeave;

private:
    [[nodiscard]] const std::type_info& fwkType() const override { return typeid(App); }
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override {
        const Sim::Say what = indicated('+', params);
        const Name at = nameOf(params.intf, what);
        if ((onJoin && onJoin(params.intf, what)) || refusing.contains(describe(what))) return 1;
        if (!onJoin || registered(at)) held[at] = Sim::valueOf(what);  // unless the hook has ended it
        return 0;
    }
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override {
        const Sim::Say what = indicated('-', params);
        Runtime::require(held.erase(nameOf(params.intf, what)) == 1, "a leave of what is held");
        if (onLeave) onLeave(params.intf, what);
    }
    /// Writes down what is indicated.
    Sim::Say indicated(char sign, const Mrp::MrpParameters& params) {
        const auto& [value, declaration, isNew] = incoming(params.attributeType);
        const Sim::Say what{Mrp::Event::JoinMt,
                            params.attributeType,
                            {value.begin(), value.begin() + typeOf(params.attributeType).valueLength},
                            static_cast<std::uint8_t>(declaration)};
        heard += sign + params.intf.name() + ' ' + describe(what) + '\n';
        return what;
    }
    static void drop(Books& books, IntfId intf) {
        std::erase_if(books, [intf](const auto& entry) { return std::get<0>(entry.first) == intf; });
    }
};

/// Ports in memory.  A frame arrives at `peer` of its port a little later, unless `lose` says otherwise.
class Wire : public Mrp::PacketPortProvider {
public:
    explicit Wire(Runtime::Loop& loop) : loop_{loop} {}

    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override {
        receivers_[intf] = std::move(receiver);
        return std::make_unique<Port>(*this, intf);
    }
    void deliver(IntfId intf, const Pdu& pdu) {
        // A copy of just its size: reading past its end is then seen by the sanitizer.
        const Pdu exact{pdu.begin(), pdu.end()};
        if (const auto at = receivers_.find(intf); at != receivers_.end()) {
            ++delivered[intf];
            at->second(exact);
        }
    }
    [[nodiscard]] bool isOpen(IntfId intf) const { return receivers_.contains(intf); }

    std::map<IntfId, IntfId> peer;
    std::function<bool(std::size_t number)> lose;  ///< counting all frames
    std::function<Runtime::Duration(std::size_t number)> delay;
    std::vector<std::pair<IntfId, Pdu>> frames;
    std::vector<Runtime::Time> times;
    std::map<IntfId, std::size_t> delivered;

private:
    struct Port : Mrp::PacketPort {
        Port(Wire& owner, IntfId intf) : wire{owner}, name{intf} {}
        ~Port() override { wire.receivers_.erase(name); }
        bool send(std::span<const std::uint8_t> pdu) override {
            const bool lost = wire.lose && wire.lose(wire.frames.size());
            wire.frames.emplace_back(name, Pdu{pdu.begin(), pdu.end()});
            wire.times.push_back(wire.loop_.now());
            if (lost || !wire.peer.contains(name)) return !lost;
            // What has landed need not be kept.
            while (!wire.flights_.empty() && !wire.flights_.front().armed()) wire.flights_.pop_front();
            wire.flights_.emplace_back(
                wire.loop_, [&w = wire, to = wire.peer.at(name), frame = wire.frames.back().second] {
                    w.deliver(to, frame);
                });
            wire.flights_.back().armIn(wire.delay ? wire.delay(wire.frames.size()) : 10us);
            return true;
        }
        Wire& wire;
        IntfId name;
    };
    Runtime::Loop& loop_;
    std::map<IntfId, Receiver> receivers_;
    std::list<Runtime::Timer> flights_;
};

/// One switch with some ports.
struct Bridge {
    Bridge(Runtime::Loop& loop, Wire& wire, std::vector<IntfId> names, std::uint64_t seed,
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
        app.engine = engine.get();
        for (const IntfId port : ports) {
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
    std::vector<IntfId> ports;
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
    explicit Pair(std::uint64_t seed = 1) : a{loop, wire, {a1, a2}, seed}, b{loop, wire, {b1}, seed + 1} {
        wire.peer = {{a1, b1}, {b1, a1}};
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
        for (; from < wire.frames.size(); ++from)
            out += wire.frames[from].first == intf ? text(wire.frames[from].second) + '\n' : "";
        return out;
    }
    /// Whether each of the two has registered what the other one declares on the link.
    [[nodiscard]] bool agree() const {
        return of(a.app.declared, a1) == of(b.app.held, b1) && of(b.app.declared, b1) == of(a.app.held, a1);
    }
    Runtime::VirtualLoop loop;
    Wire wire{loop};
    Bridge a;
    Bridge b;

private:
    /// The part of one port.
    static App::Books of(const App::Books& books, IntfId port) {
        App::Books out;
        for (const auto& [name, value] : books) {
            if (std::get<0>(name) == port) out[{IntfId{}, std::get<1>(name), std::get<2>(name)}] = value;
        }
        return out;
    }
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
        if (what == '^') app.purge(intf, said.type, std::get<2>(App::nameOf(intf, said)));
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
        for (const Pdu& pdu : Sim::pdusOf(said, leaveAll)) wire.deliver(intf, pdu);
    }

    std::map<IntfId, std::size_t> taken_;
};

}  // namespace MrpTest
