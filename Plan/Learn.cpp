#include "Plan/Learn.h"

#include "Mrp/Records.h"
#include "Msrp/types/Config.h"
#include "Plan/DotText.h"
#include "Runtime/Text.h"
#include "Show/Neighbourhood.h"
#include "Show/Page.h"
#include "Show/StreamReport.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace Plan {

using Runtime::concat;
using Show::at;
using Show::membersOf;
using Show::numberOf;
using Show::textOf;
using State::Value;

namespace {

/// Addresses of stations that have not said a word (Plan/Reader.h).
constexpr std::uint64_t firstSilent = 0x02'00'00'01'00'00;

struct Port {
    std::size_t bridge = 0;
    std::string name{};
    EthAddr address{};  ///< its own
    EthAddr heard{};    ///< of whoever spoke last there; zero: nobody
    Interface::Speed speed{};
    bool blocked = false;                  ///< by a spanning tree
    std::optional<std::size_t> peer{};     ///< number of the port at the other end
    std::optional<std::size_t> station{};  ///< device that was put there
};

EthAddr addressIn(const Value& value) { return EthAddr::parse(textOf(value)).value_or(EthAddr{}); }

bool wantsBandwidth(std::uint64_t code) {
    using Msrp::TalkerFailureCode;
    return code == Msrp::number(TalkerFailureCode::insufficientBandwidth) ||
           code == Msrp::number(TalkerFailureCode::insufficientBandwidthForClass);
}

/// Fields that are not as they are where nobody has said anything.
template <class R>
Value unusual(const Value& record) {
    const Value standard = R{}.value();
    State::Object found;
    for (const auto& [name, usual] : membersOf(standard)) {
        const Value& is = at(record, {name});
        if (!is.isNull() && is != usual) found.emplace_back(name, is);
    }
    return Value{std::move(found)};
}

class Learner {
public:
    Learner(const std::vector<RunningBridge>& bridges, const Show::BridgeNames& names)
        : bridges_{bridges}, names_{names} {}

    Learnt learn(const std::vector<KnownLink>& links) {
        findStreams();
        for (std::size_t b = 0; b < bridges_.size(); ++b) bridge(b);
        for (const KnownLink& link : links) join(link);
        if (!learnt_.problem.empty()) return std::move(learnt_);
        joinNeighbours();
        for (std::size_t p = 0; p < ports_.size(); ++p) {
            if (ports_[p].peer && *ports_[p].peer > p) link(p, *ports_[p].peer);
        }
        for (const auto& known : streams_) stream(known.first);
        for (const Port& port : ports_) {
            if (port.blocked && port.heard == EthAddr{} && !port.peer && !port.station)
                note(concat(nameOf(port),
                            ": is blocked, so nothing is heard there; say with --link where it leads"));
        }
        return std::move(learnt_);
    }

private:
    [[nodiscard]] const Value& record(std::size_t bridge, std::string_view path) const {
        return bridges_[bridge].records.record(path);
    }
    void note(const std::string& text) { learnt_.notes.push_back(Show::printable(text)); }
    [[nodiscard]] std::string nameOf(const Port& port) const {
        return concat(bridges_[port.bridge].name, ':', port.name);
    }

    void findStreams() {
        for (std::size_t b = 0; b < bridges_.size(); ++b) {
            const Value& cli = record(b, "msrp/cliConfig");
            vlans_.insert(numberOf(at(cli, {"defaultSrPvid"})));
            for (const auto& [port, vlan] : membersOf(at(cli, {"srPvid"}))) vlans_.insert(numberOf(vlan));
            for (const auto& [id, stream] : membersOf(at(record(b, "msrp/status"), {"registeredStreams"}))) {
                vlans_.insert(numberOf(at(stream, {"vlanId"})));
                if (const auto number = State::parseHex(id)) streams_[*number].emplace(b, &stream);
            }
        }
    }

    void bridge(std::size_t b) {
        Device made{.name = bridges_[b].name, .bridge = true};
        made.address = addressIn(at(record(b, "bridging/config"), {"bridgeMac"}));
        if (made.address == EthAddr{} || made.address.isMulticast() ||
            !addresses_.insert(made.address).second)
            made.address = silentAddress();
        const Value& tree = at(record(b, "stp/status"),
                               {"stpInstanceStatus", "Mst", "mstInstanceStatus", "Cist", "bridgePriority"});
        if (const std::uint64_t priority = numberOf(tree);
            !tree.isNull() && priority % 4096 == 0 && priority <= 61440)
            made.treePriority = static_cast<std::uint16_t>(priority);
        made.records["msrp/cliConfig"] = unusual<Msrp::CliConfig>(record(b, "msrp/cliConfig"));
        made.records["mrp/config"] = unusual<Mrp::MrpConfig>(record(b, "mrp/config"));
        learnt_.network.devices.push_back(std::move(made));
        deviceNames_.insert(bridges_[b].name);
        for (const auto& [name, status] : membersOf(at(record(b, "msrp/status"), {"intfStatus"}))) {
            if (textOf(at(status, {"linkStatus"})) != "up") continue;
            Port port{.bridge = b, .name = name};
            port.address =
                addressIn(at(record(b, "interface/status/eth/phy/all"), {"intfStatus", name, "macAddr"}));
            port.heard = addressIn(at(record(b, "linux/packets"), {"intf", name, "lastSource"}));
            port.blocked = textOf(at(status, {"portState"})) == "Blocked";
            port.speed = State::Codec<Interface::Speed>::decode(at(status, {"speedEnum"}))
                             .value_or(Interface::Speed::speedUnknown);
            if (!IntfId::validName(name) || !dotCanSay(name)) {
                note(concat(nameOf(port), ": is left out, a drawing cannot have a port of that name"));
                continue;
            }
            numbers_.emplace(std::pair{b, name}, ports_.size());
            ports_.push_back(std::move(port));
        }
    }

    void join(const KnownLink& link) {
        std::array<std::size_t, 2> ends{};
        for (std::size_t i = 0; i < 2; ++i) {
            const auto& [bridge, port] = link.ends[i];
            const auto b = static_cast<std::size_t>(
                std::ranges::find(bridges_, bridge, &RunningBridge::name) - bridges_.begin());
            const auto found = numbers_.find({b, port});
            if (found == numbers_.end() || ports_[found->second].peer) {
                const char* why = b == bridges_.size() ? "no bridge of that name is asked"
                                  : found == numbers_.end()
                                      ? "MSRP runs on no port of that name whose link is up"
                                      : "it has another link already";
                learnt_.problem = concat(bridge, ':', port, ": ", why);
                return;
            }
            ends[i] = found->second;
        }
        if (ports_[ends[0]].bridge == ports_[ends[1]].bridge) {
            learnt_.problem = concat(nameOf(ports_[ends[0]]), ": its link goes to its own bridge");
            return;
        }
        ports_[ends[0]].peer = ends[1];
        ports_[ends[1]].peer = ends[0];
    }

    void joinNeighbours() {
        std::vector<Show::HeardPort> heard;
        heard.reserve(ports_.size());
        // Those of a link that somebody knows are joined to none.
        for (const Port& port : ports_)
            heard.push_back({port.bridge, port.address, port.peer ? EthAddr{} : port.heard});
        const auto all = Show::neighboursOf(heard);
        for (std::size_t p = 0; p < ports_.size(); ++p) {
            if (all[p].empty()) continue;
            if (all[p].size() == 1 && all[all[p].front()].size() == 1) {
                ports_[p].peer = all[p].front();
            } else {
                note(concat(nameOf(ports_[p]), ": may be joined to ", nameOf(ports_[all[p].front()]),
                            " or to another port; say which with --link"));
            }
        }
    }

    [[nodiscard]] std::vector<std::uint16_t> vlansOf(const Port& port) const {
        std::vector<std::uint16_t> found;
        for (const std::uint64_t vlan : vlans_) {
            const Value& tagged = at(record(port.bridge, "bridging/config"),
                                     {"vlanConfig", std::to_string(vlan), "intf", port.name, "tagged"});
            if (Show::isTrue(tagged)) found.push_back(static_cast<std::uint16_t>(vlan));
        }
        return found;
    }

    [[nodiscard]] LinkEnd endOf(const Port& port) const {
        return {.device = port.bridge, .port = port.name, .vlans = vlansOf(port)};
    }

    void addLink(const Port& port, LinkEnd other, Interface::Speed speed) {
        Link made;
        made.ends[0] = endOf(port);
        made.ends[1] = std::move(other);
        if (speed == Interface::Speed::speedUnknown) {
            note(concat(nameOf(port), ": its speed is not known; 1G is supposed"));
        } else {
            made.speed = speed;
        }
        learnt_.network.links.push_back(std::move(made));
    }

    void link(std::size_t p, std::size_t q) {
        const Port& one = ports_[p];
        const Port& other = ports_[q];
        if (one.speed != other.speed)
            note(concat(nameOf(one), " and ", nameOf(other), ": the bridges believe in different speeds, ",
                        State::enumText(one.speed), " and ", State::enumText(other.speed),
                        "; the lower one is taken"));
        addLink(one, endOf(other), std::min(one.speed, other.speed));
    }

    EthAddr silentAddress() {
        for (;;) {
            const EthAddr address = EthAddr::fromNumber(firstSilent + ++silent_);
            if (addresses_.insert(address).second) return address;
        }
    }

    /// Of what names of devices may have.
    static std::string plain(std::string name) {
        for (char& c : name) {
            const bool good = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                              c == '.' || c == '_' || c == '-';
            if (!good) c = '_';
        }
        return name;
    }

    /// The one behind a port, which is put there.
    std::size_t stationAt(std::size_t p) {
        Port& port = ports_[p];
        if (port.station) return *port.station;
        std::string known = names_.of(port.heard.number(), port.name);
        if (known.empty()) known = concat(bridges_[port.bridge].name, '-', port.name);
        const std::string base = plain(std::move(known));
        Device made{.name = base};
        for (unsigned n = 2; !deviceNames_.insert(made.name).second; ++n) made.name = concat(base, '-', n);
        made.address = port.heard;
        if (made.address == EthAddr{} || made.address.isMulticast() ||
            !addresses_.insert(made.address).second)
            made.address = silentAddress();
        port.station = learnt_.network.devices.size();
        addLink(port, {.device = *port.station}, port.speed);
        learnt_.network.devices.push_back(std::move(made));
        return *port.station;
    }

    /// Null where the bridge does not know it.
    [[nodiscard]] const Value& recordOf(std::size_t bridge, std::uint64_t id) const {
        static const Value none;
        const auto& known = streams_.at(id);
        const auto found = known.find(bridge);
        return found == known.end() ? none : *found->second;
    }

    /// What its talker has said where it comes in.  What is wrong with that is noted.
    bool talks(std::uint64_t id, const Value& said, Stream& made) {
        const auto srClass = State::Codec<Msrp::SrClassId>::decode(at(said, {"srClass"}));
        const std::uint64_t priority = numberOf(at(said, {"dataFramePriority"}));
        const std::uint64_t size = numberOf(at(said, {"maxFrameSize"}));
        const std::uint64_t frames = numberOf(at(said, {"maxIntervalFrames"}));
        const std::uint64_t vlan = numberOf(at(said, {"vlanId"}));
        made.srClass = srClass.value_or(Msrp::SrClassId::SrClassA);
        const std::uint64_t usual = made.srClass == Msrp::SrClassId::SrClassA ? 3 : 2;
        std::string why;
        if (priority != usual)
            why = concat("its frames have priority ", priority,
                         ", and those of a drawn station of its class ", usual);
        if (size < 1 || size > Msrp::maxMsdu || frames < 1)
            why = concat("its talker announces ", frames, " frames of ", size, " octets");
        if (vlan < 1 || vlan > 4094) why = concat("its talker announces VLAN ", vlan);
        if (!why.empty()) {
            note(concat("stream ", Show::streamName(id), ": is left out, ", why));
            return false;
        }
        made.tspec = {static_cast<Msrp::U16>(size), static_cast<Msrp::U16>(frames)};
        made.vlan = static_cast<std::uint16_t>(vlan);
        made.rank = numberOf(at(said, {"rank"})) == 0 ? 0 : 1;
        made.destination = addressIn(at(said, {"macDa"}));
        return true;
    }

    void stream(std::uint64_t id) {
        Stream made{.name = Show::streamName(id), .id = id};
        std::optional<std::size_t> from;
        std::vector<std::size_t> to;
        std::set<std::size_t> wanting;
        for (std::size_t p = 0; p < ports_.size(); ++p) {
            const Port& port = ports_[p];
            const Value& said = recordOf(port.bridge, id);
            if (port.peer || said.isNull()) continue;
            const std::string ingress = textOf(at(said, {"ingressIntf"}));
            if (ingress == port.name) {
                if (from)
                    note(concat("stream ", Show::streamName(id), ": comes in at ", nameOf(ports_[*from]),
                                " and at ", nameOf(port),
                                ", where a bridge was not asked; the first is taken"));
                if (!from) from = p;
                continue;
            }
            const Value& first = at(said, {"listenerStateOrig", port.name});
            const std::string state = textOf(first.isNull() ? at(said, {"listenerState", port.name}) : first);
            if (state.empty() || state == "Ignore") continue;
            to.push_back(p);
            if (wantsBandwidth(numberOf(at(said, {"talkerFailureCode", port.name}))) ||
                wantsBandwidth(numberOf(at(said, {"talkerFailureCode", ingress}))))
                wanting.insert(p);
        }
        if (!from) {
            if (!to.empty())
                note(concat("stream ", Show::streamName(id), ": is asked for at ", nameOf(ports_[to.front()]),
                            ", and nobody talks it"));
            return;
        }
        if (!talks(id, recordOf(ports_[*from].bridge, id), made)) return;
        made.talker = stationAt(*from);
        for (const std::size_t p : to) {
            made.listeners.push_back(stationAt(p));
            if (wanting.contains(p)) later(made, p);
        }
        learnt_.network.streams.push_back(std::move(made));
    }

    void later(const Stream& made, std::size_t p) {
        std::string& script = learnt_.network.script;
        const std::string& who = learnt_.network.devices[*ports_[p].station].name;
        script += concat(script.empty() ? "" : "; ", "at 0s unlisten ", made.name, ' ', who,
                         "; at 3s listen ", made.name, ' ', who);
    }

    const std::vector<RunningBridge>& bridges_;
    const Show::BridgeNames& names_;
    Learnt learnt_{};
    std::vector<Port> ports_{};
    std::map<std::pair<std::size_t, std::string>, std::size_t> numbers_{};    ///< of ports
    std::map<std::uint64_t, std::map<std::size_t, const Value*>> streams_{};  ///< by id and bridge
    std::set<std::uint64_t> vlans_{};                                         ///< that matter to streams
    std::set<EthAddr> addresses_{};
    std::set<std::string> deviceNames_{};
    std::uint64_t silent_ = 0;
};

}  // namespace

const std::vector<std::string>& learntRecords() {
    static const std::vector<std::string> paths{"bridging/config", "interface/status/eth/phy/all",
                                                "linux/packets",   "msrp/cliConfig",
                                                "mrp/config",      "msrp/status",
                                                "stp/status"};
    return paths;
}

Learnt learn(const std::vector<RunningBridge>& bridges, const std::vector<KnownLink>& links,
             const Show::BridgeNames& names) {
    return Learner{bridges, names}.learn(links);
}

}  // namespace Plan
