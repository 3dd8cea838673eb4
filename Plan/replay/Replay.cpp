#include "Plan/replay/Replay.h"

#include "Msrp/MsrpEvents.h"
#include "Plan/BridgeRecords.h"
#include "Plan/Report.h"
#include "Plan/replay/Beginning.h"
#include "Runtime/Text.h"
#include "Runtime/VirtualLoop.h"
#include "Show/PortFacts.h"
#include "Show/StreamReport.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <utility>

namespace Plan {

using Runtime::concat;
using Runtime::Duration;
using Runtime::Time;

namespace {

using Octets = std::span<const std::uint8_t>;

/// Events that a comment tells of a frame.
constexpr std::size_t mostTold = 16;

/// The frame in which ours sends a PDU.
std::vector<std::uint8_t> frameOf(EthAddr source, Octets pdu) {
    constexpr std::size_t shortest = 60;
    std::array<std::uint8_t, 14> header{0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e, 0, 0, 0, 0, 0, 0, 0x22, 0xea};
    Runtime::bigEndianIs(std::span{header}.subspan(6, 6), source.number());
    std::vector<std::uint8_t> out(std::max(header.size() + pdu.size(), shortest));
    std::ranges::copy(pdu, std::ranges::copy(header, out.begin()).out);
    return out;
}

/// An MRPDU that says LeaveAll of those types and nothing else.
Sim::Pdu leaveAllOf(const std::bitset<Mrp::maxTypes>& types) {
    Sim::Pdu pdu{Msrp::application().protocolVersion};
    const auto u16 = [&](std::size_t value) {
        pdu.push_back(static_cast<std::uint8_t>(value >> 8));
        pdu.push_back(static_cast<std::uint8_t>(value));
    };
    for (std::size_t i = 0; i < Msrp::application().types.size(); ++i) {
        if (!types.test(i)) continue;
        const Mrp::AttributeType& type = Msrp::application().types[i];
        pdu.push_back(type.type);
        pdu.push_back(type.valueLength);
        u16(Mrp::vectorHeaderLength + type.valueLength + Mrp::endMarkLength);
        u16(Mrp::leaveAllUnit);
        pdu.resize(pdu.size() + type.valueLength + Mrp::endMarkLength);
    }
    u16(0);
    return pdu;
}

class Player {
public:
    Player(const Traffic& traffic, const ReplayInput& input,
           const std::function<void(const Annotated&)>& annotate)
        : traffic_{traffic}, annotate_{annotate}, bridge_{loop_, {}}, ports_(traffic.ports.size()) {
        out_.notes = traffic.notes;
        out_.ports.resize(traffic.ports.size());
        configure(input);
    }

    ReplayResult play() {
        bridge_.start();
        loop_.runFor(std::chrono::seconds{1});
        begin_ = at_ = loop_.now();
        if (!traffic_.frames.empty()) wall_ = traffic_.frames.front().time;
        for (const TrafficFrame& frame : traffic_.frames) {
            advance(begin_ + frame.elapsed);
            wall_ = frame.time;
            take(frame);
        }
        finish();
        return std::move(out_);
    }

private:
    struct PortState {
        IntfId intf{};
        bool enabled = false;
        bool up = false;
        Declared theirs{};
        Declared ours{};
        std::set<AttributeName> seen{};
        /// LeaveAlls that were said: the one whose answers are awaited, and the latest since.
        std::array<std::optional<std::pair<Time, std::bitset<Mrp::maxTypes>>>, 2> leaveAlls{};
    };
    using Place = std::pair<std::size_t, AttributeName>;
    struct Difference {
        Time since{};
        std::uint64_t number = 0;
        std::optional<std::size_t> finding{};  ///< once it is one; `mostFindings` for those that are not kept
        std::optional<Declaration> theirs{};
        std::optional<Declaration> ours{};
    };
    /// A frame of ours.
    struct Said {
        Pcapng::WallTime time{};
        std::size_t port = 0;
        std::vector<std::uint8_t> frame{};
        std::string comment{};
    };
    struct Due {
        Time at{};
        Place place;
        std::uint64_t number = 0;
    };

    // The bridge before it begins

    void configure(const ReplayInput& input) {
        bridge_.logSinkIs([this](const Runtime::LogEvent&, std::string_view, const std::string& text) {
            if (said_.size() < mostTold) said_.push_back(text);
        });
        if (const State::Object* records = input.config.object()) {
            for (const auto& [path, patch] : *records) {
                if (const auto record = bridge_.database().entity(path)) (void)record->apply(patch);
            }
        }
        const State::Value* bridged = input.config.member("linux/config");
        ofKernel_ = bridged != nullptr && bridged->member("bridge") != nullptr;
        if (ofKernel_)
            out_.notes.emplace_back(
                "the configuration has the VLANs of the kernel's bridge, which a capture does not tell: "
                "every "
                "port is a tagged member of every VLAN in it, and forwards");
        if (input.config.member("mvrp/config") != nullptr)
            out_.notes.emplace_back(
                "MVRP is not replayed: VLANs that it gives belong into the configuration");
        address(input);
        // None but those that the bridge of the capture has sent.
        constexpr std::uint32_t never = 1'000'000'000;
        bridge_.mrpConfig->leaveAllTimeIs(never);
        answer_ =
            std::chrono::milliseconds{bridge_.mrpConfig->leaveTime() + 2 * bridge_.mrpConfig->joinTime()};
        out_.tolerance = 2 * answer_;
        beginning_ = beginningOf(traffic_, answer_ * 2);
        out_.comparedFrom = beginning_.known;
        for (const std::string& note : beginning_.notes) out_.notes.push_back(note);
        for (std::size_t p = 0; p < ports_.size(); ++p) port(p);
        assumed("MSRP is enabled there, which the configuration does not say", notEnabled_);
        assumed("a link of 1 Gbit/s, as the configuration gives no speed", noSpeed_);
        assumed("a tagged member of every VLAN of the configuration and of the capture's talkers", noVlan_);
        absent();
    }
    void assumed(const std::string& what, const std::string& ports) {
        if (!ports.empty()) out_.notes.push_back(ports + ": " + what);
    }
    static void add(std::string& list, const std::string& name) { list += (list.empty() ? "" : ", ") + name; }

    void address(const ReplayInput& input) {
        out_.bridge = bridge_.bridging->bridgeMac();
        if (configuredAddress(input.config)) return;
        const auto sent = std::ranges::find(traffic_.frames, true, &TrafficFrame::sent);
        if (sent != traffic_.frames.end())
            out_.bridge = EthAddr::fromNumber(Runtime::bigEndian(sent->octets.subspan(6, 6)));
        bridge_.bridging->bridgeMacIs(out_.bridge);
        out_.notes.push_back("the bridge has the address " + out_.bridge.text() +
                             ", as the configuration gives none");
    }

    void port(std::size_t number) {
        const std::string& name = traffic_.ports[number];
        const IntfId intf{name};
        PortState& port = ports_[number];
        port.intf = intf;
        bridge_.database()
            .entityIs<Interface::EthIntfStatusDir>("interface/status/eth/intf")
            ->intfIs(intf, true);
        const auto status = bridge_.phy->intfStatusIs(intf);
        if (status->speedEnum() == Interface::Speed::speedUnknown) {
            bridge_.speedIs(name, Interface::Speed::speed1Gbps);
            add(noSpeed_, name);
        }
        bridge_.linkIs(name, false);
        const auto& chosen = bridge_.config->choice().said();
        const bool named = chosen.contains({intf});
        if (!named) {
            if (!chosen.contains({})) add(notEnabled_, name);
            bridge_.config->intfEnableIs(intf, true);
        }
        const auto& enabled = bridge_.config->intfEnable();
        const auto at = std::ranges::find_if(enabled, [&](const auto& one) { return one.first == intf; });
        port.enabled = at != enabled.end() && at->second;
        if (!port.enabled) out_.notes.push_back(name + ": MSRP is disabled there in the configuration");
        if (ofKernel_ || !named) vlans(name, intf);
        bridge_.ports().cableIs(intf, [this, number](const Sim::Pdu& pdu) { heard(number, pdu); });
    }
    void vlans(const std::string& name, IntfId intf) {
        std::set<std::uint16_t> all = beginning_.vlans;
        bool member = false;
        bridge_.bridging->vlanConfig().each([&](VlanId vlan, const Bridging::VlanConfig& config) {
            all.insert(vlan.value());
            member = member || config.intf().contains(intf);
        });
        if (member) return;
        all.insert(bridge_.cliConfig->streamVlan(intf));
        for (const std::uint16_t vlan : all) bridge_.vlanIs(vlan, name, true);
        if (!ofKernel_) add(noVlan_, name);
    }
    void absent() {
        std::string names;
        for (const auto& [intf, enabled] : bridge_.config->intfEnable()) {
            if (enabled && std::ranges::find(traffic_.ports, intf.name()) == traffic_.ports.end())
                add(names, intf.name());
        }
        if (!names.empty())
            out_.notes.push_back(
                names +
                ": not in the capture; nothing comes in there, so what the bridge heard there "
                "may be missed elsewhere");
    }

    // Time

    /// Everything up to that moment, and what is due then.
    void advance(Time to) {
        for (;;) {
            std::optional<Time> next;
            if (!answers_.empty()) next = answers_.begin()->first;
            if (!due_.empty() && (!next || due_.front().at < *next)) next = due_.front().at;
            if (!next || *next > to) break;
            run(*next);
            while (!answers_.empty() && answers_.begin()->first <= *next) {
                const std::size_t port = answers_.begin()->second;
                answers_.erase(answers_.begin());
                answered(port);
            }
            while (!due_.empty() && due_.front().at <= *next) {
                const Due due = std::move(due_.front());
                due_.pop_front();
                report(due);
            }
        }
        run(to);
    }
    void run(Time to) {
        loop_.runTo(to);
        wall_ += to - at_;
        at_ = to;
    }
    [[nodiscard]] Duration since(Time t) const { return t - begin_; }

    // Frames

    void take(const TrafficFrame& frame) {
        PortState& port = ports_[frame.port];
        if (!port.up) {
            port.up = true;
            bridge_.linkIs(port.intf.name(), true);
            loop_.settle();
        }
        ReplayPort& counted = out_.ports[frame.port];
        ++(frame.sent ? counted.sent : counted.in);
        if (frame.sent && port.enabled && !counted.compared) compare(frame.port);
        Mrp::DecodedPdu pdu;
        Mrp::decode(frame.pdu, Msrp::application(), pdu);
        if (pdu.leaveAll.any()) leaveAll(frame.port, pdu.leaveAll);
        said_.clear();
        holding_ = true;
        if (frame.sent) {
            port.theirs.take(pdu, at_, [&](const AttributeName& name) { changed({frame.port, name}); });
            if (pdu.leaveAll.any()) bridge_.ports().deliver(port.intf, leaveAllOf(pdu.leaveAll));
        } else {
            bridge_.ports().deliver(port.intf, Sim::Pdu(frame.pdu.begin(), frame.pdu.end()));
        }
        loop_.settle();
        holding_ = false;
        if (!annotate_) return;
        const std::string comment = frame.sent ? sentComment(frame, pdu) : receivedComment(frame, pdu);
        annotate_({.time = frame.time,
                   .port = frame.port,
                   .sent = frame.sent,
                   .onWire = frame.onWire,
                   .octets = frame.octets,
                   .comment = comment});
        for (const Said& one : std::exchange(held_, {})) tell(one);
    }
    void heard(std::size_t number, const Sim::Pdu& pdu) {
        PortState& port = ports_[number];
        ++out_.ports[number].ours;
        Mrp::DecodedPdu decoded;
        Mrp::decode(pdu, Msrp::application(), decoded);
        port.ours.take(decoded, loop_.now(), [&](const AttributeName& name) { changed({number, name}); });
        if (!annotate_) return;
        Said said{wall_ + (loop_.now() - at_), number, frameOf(out_.bridge, pdu), oursComment(port, decoded)};
        // What is said to a frame comes after it.
        if (holding_) {
            held_.push_back(std::move(said));
        } else {
            tell(said);
        }
    }
    void tell(const Said& said) const {
        annotate_({.time = said.time,
                   .port = said.port,
                   .ours = true,
                   .sent = true,
                   .onWire = said.frame.size(),
                   .octets = said.frame,
                   .comment = said.comment});
    }
    void leaveAll(std::size_t number, const std::bitset<Mrp::maxTypes>& types) {
        auto& [awaited, latest] = ports_[number].leaveAlls;
        if (awaited) {
            latest = {at_, types};
            return;
        }
        awaited = {at_, types};
        answers_.emplace(at_ + answer_, number);
    }
    void answered(std::size_t number) {
        PortState& port = ports_[number];
        auto& [awaited, latest] = port.leaveAlls;
        const auto change = [&](const AttributeName& name) { changed({number, name}); };
        port.theirs.age(awaited->first, awaited->second, change);
        port.ours.age(awaited->first, awaited->second, change);
        awaited = std::exchange(latest, std::nullopt);
        if (awaited) answers_.emplace(awaited->first + answer_, number);
    }

    // Differences

    /// The bridge has begun to say something there.
    void compare(std::size_t number) {
        out_.ports[number].compared = true;
        const auto from = open_.lower_bound({number, {}});
        const auto to = open_.lower_bound({number + 1, {}});
        for (auto at = from; at != to; ++at) count(at->first, at->second);
    }
    /// From now on it is one, or from when both know the same.
    void count(const Place& place, Difference& difference) {
        difference.since = std::max(loop_.now(), begin_ + *out_.comparedFrom);
        difference.number = ++number_;
        due_.push_back({difference.since + out_.tolerance, place, number_});
    }
    static std::optional<Declaration> copyOf(const Declaration* declaration) {
        return declaration != nullptr ? std::optional{*declaration} : std::nullopt;
    }
    /// Either side declares something else than before.
    void changed(const Place& place) {
        PortState& port = ports_[place.first];
        if (port.seen.size() < 2 * Declared::most) port.seen.insert(place.second);
        const auto theirs = copyOf(port.theirs.find(place.second));
        const auto ours = copyOf(port.ours.find(place.second));
        const auto at = open_.find(place);
        if (at != open_.end()) {
            Difference& difference = at->second;
            if (theirs != ours && !difference.finding) return;
            if (theirs != ours && difference.theirs == theirs && difference.ours == ours) return;
            close(place.first, difference);
            open_.erase(at);
        }
        // What is not known yet cannot be different.
        if (theirs == ours || !out_.comparedFrom) return;
        count(place, open_[place]);
    }
    void close(std::size_t port, const Difference& difference) {
        const Time now = loop_.now();
        if (difference.finding) {
            if (*difference.finding < out_.findings.size())
                out_.findings[*difference.finding].to = since(now);
        } else if (out_.ports[port].compared && now > difference.since) {
            ++out_.brief;
            out_.longestBrief = std::max(out_.longestBrief, now - difference.since);
        }
    }
    /// A difference that is still there has lasted long enough.
    void report(const Due& due) {
        const auto at = open_.find(due.place);
        if (at == open_.end() || at->second.number != due.number) return;
        const auto& [number, name] = due.place;
        PortState& port = ports_[number];
        if (!out_.ports[number].compared) return;
        Difference& difference = at->second;
        difference.theirs = copyOf(port.theirs.find(name));
        difference.ours = copyOf(port.ours.find(name));
        difference.finding = mostFindings;
        ++out_.ports[number].findings;
        if (out_.findings.size() == mostFindings) {
            ++out_.moreFindings;
            return;
        }
        difference.finding = out_.findings.size();
        out_.findings.push_back({.port = number,
                                 .name = name,
                                 .from = since(difference.since),
                                 .theirs = difference.theirs,
                                 .ours = difference.ours,
                                 .reason = reason(port, name)});
    }
    /// Why ours declares what it does.
    std::string reason(const PortState& port, const AttributeName& name) {
        // Looking at everything takes its time, and nobody reads hundreds of reasons.
        constexpr std::size_t mostReasons = 100;
        if (name.kind == Msrp::typeDomain || out_.findings.size() >= mostReasons) return {};
        BridgeRecords records{bridge_, Runtime::seconds(loop_.now())};
        const auto text = [](const Show::Verdict& v) {
            return v.why.empty() ? v.what : v.what + ": " + v.why;
        };
        const bool listener = name.kind == Msrp::typeListener;
        const Show::Explanation e = records.explain(names_, name.key, listener ? "" : port.intf.name());
        if (e.talker.rule != Show::Rule::advertised || e.ports.empty()) return text(e.talker);
        if (!listener) return text(e.ports.front().second);
        // What is declared towards the talker comes from the other ports.
        const Declaration* ours = port.ours.find(name);
        const bool wants = ours != nullptr && Msrp::wantsStream(Msrp::ListenerState{ours->value.declaration});
        const auto like = std::ranges::find_if(e.ports, [&](const auto& one) {
            return (one.second.rule == Show::Rule::carried) == wants &&
                   one.second.rule != Show::Rule::noListener;
        });
        const auto& [from, verdict] = like != e.ports.end() ? *like : e.ports.front();
        return from + ": " + text(verdict);
    }

    // Comments

    static std::string eventText(const Mrp::DecodedEvent& event) {
        const Declaration declaration = declarationOf(event);
        std::string out = State::enumText(event.event) + ' ' + declarationText(&declaration);
        if (const AttributeName name = nameOf(event); name.kind == Msrp::typeDomain) {
            out += concat(" of class ", Show::classLetter(Msrp::SrClassId{static_cast<Msrp::U8>(name.key)}));
        } else {
            out += " of " + Show::streamName(name.key);
        }
        return out;
    }
    /// One line for each event, by `each`, and one for what there is more.
    template <class F>
    static std::string comment(const Mrp::DecodedPdu& pdu, F&& each) {
        std::string out;
        if (pdu.leaveAll.any()) out += "LeaveAll\n";
        std::size_t told = 0;
        for (const Mrp::DecodedEvent& event : pdu.events) {
            if (told++ == mostTold) break;
            out += eventText(event) + each(event) + '\n';
        }
        if (pdu.events.size() > mostTold) out += concat("and ", pdu.events.size() - mostTold, " more\n");
        for (const Mrp::Flaw& flaw : pdu.flaws) {
            out += concat("malformed at octet ", flaw.offset, " of the MRPDU: ", Mrp::describe(flaw.reason),
                          '\n');
            if (out.size() > 8192) break;
        }
        if (out.empty()) return "says nothing";
        out.pop_back();
        return out;
    }
    /// What our agent has made of it.
    std::string receivedComment(const TrafficFrame& frame, const Mrp::DecodedPdu& pdu) {
        const PortState& port = ports_[frame.port];
        const BridgeRecords records{bridge_, Runtime::seconds(loop_.now())};
        std::string out = comment(pdu, [&](const Mrp::DecodedEvent& event) -> std::string {
            const State::Value attribute = records.value(Show::attributePath(
                port.intf.name(), static_cast<std::uint8_t>(event.typeIndex + 1), nameOf(event).key));
            const std::string registrar = Show::textOf(Show::at(attribute, {"registrar"}));
            if (Show::isTrue(Show::at(attribute, {"refused"}))) return ": refused";
            if (registrar == "IN") return ": registered";
            return registrar == "LV" ? ": leaving" : ": not registered";
        });
        for (const std::string& line : said_) out += "\nmsrpsim: " + line;
        return out;
    }
    std::string sentComment(const TrafficFrame& frame, const Mrp::DecodedPdu& pdu) const {
        return comment(pdu, [&](const Mrp::DecodedEvent& event) {
            return besides(event, ports_[frame.port].ours, "ours declares ");
        });
    }
    static std::string oursComment(const PortState& port, const Mrp::DecodedPdu& pdu) {
        return comment(pdu, [&](const Mrp::DecodedEvent& event) {
            return besides(event, port.theirs, "the bridge declares ");
        });
    }
    /// How that agrees with what the other one declares by now.
    static std::string besides(const Mrp::DecodedEvent& event, const Declared& other, const char* who) {
        const Declaration* theirs = other.find(nameOf(event));
        const Declaration said = declarationOf(event);
        const bool declares = Mrp::declares(event.event);
        if (!declares && event.event != Mrp::Event::Lv) return {};
        if (declares ? theirs != nullptr && *theirs == said : theirs == nullptr) return ": agreed";
        return concat(": ", who, differenceText(theirs, declares ? &said : nullptr).first, " by now");
    }

    void finish() {
        if (traffic_.shortened > 0)
            out_.notes.push_back(concat(traffic_.shortened,
                                        traffic_.shortened == 1 ? " silence" : " silences", " of more than ",
                                        spanText(longestSilence), " were replayed as that long"));
        out_.span = at_ - begin_;
        std::string overfull;
        for (std::size_t p = 0; p < ports_.size(); ++p) {
            out_.ports[p].attributes = ports_[p].seen.size();
            if (ports_[p].theirs.beyond() > 0) add(overfull, traffic_.ports[p]);
        }
        const auto young = std::ranges::count_if(open_, [&](const auto& one) {
            return out_.ports[one.first.first].compared && !one.second.finding;
        });
        if (young > 0)
            out_.notes.push_back(concat(young, young == 1 ? " difference was" : " differences were",
                                        " too young to count when the capture ended"));
        if (!overfull.empty())
            out_.notes.push_back(concat(overfull, ": the bridge declares more than ", Declared::most,
                                        " attributes there; those beyond were not compared"));
    }

    const Traffic& traffic_;
    const std::function<void(const Annotated&)>& annotate_;
    Runtime::VirtualLoop loop_;
    Sim::Bridge bridge_;
    Beginning beginning_;
    Show::BridgeNames names_;
    ReplayResult out_;
    Duration answer_{};  ///< time that declarations have after a LeaveAll
    bool ofKernel_ = false;
    std::string notEnabled_;
    std::string noSpeed_;
    std::string noVlan_;
    Time begin_{};
    Time at_{};
    Pcapng::WallTime wall_{};
    std::vector<PortState> ports_;
    std::multimap<Time, std::size_t> answers_;  ///< ports with a LeaveAll, by the end of their time
    std::map<Place, Difference> open_;
    std::deque<Due> due_;  ///< in the order of time
    std::uint64_t number_ = 0;
    std::vector<std::string> said_;  ///< by our agent's log, of the frame that it was given
    bool holding_ = false;
    std::vector<Said> held_;  ///< to the frame that is being taken
};

}  // namespace

std::optional<EthAddr> configuredAddress(const State::Value& config) {
    return EthAddr::parse(Show::textOf(Show::at(config, {"bridging/config", "bridgeMac"})));
}

ReplayResult replay(const Traffic& traffic, const ReplayInput& input,
                    const std::function<void(const Annotated&)>& annotate) {
    return Player{traffic, input, annotate}.play();
}

}  // namespace Plan
