#include "Plan/explore/Oracle.h"

#include "Msrp/bandwidth/Admission.h"
#include "Msrp/listener/ListenerMerge.h"
#include "Msrp/types/Format.h"
#include "Runtime/Text.h"
#include "Show/Snapshot.h"
#include "Sim/Invariants.h"
#include "Sim/Peer.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

namespace Plan {

using Msrp::ListenerState;
using Msrp::SrClassId;
using Runtime::concat;
using Runtime::Duration;

namespace {

using Said = std::set<std::string>;

/// What one engine has on one port, in words.
struct Held {
    Said declared{};
    Said registered{};
    /// Types of what is registered of a stream, by its id.
    std::multimap<std::uint64_t, std::uint8_t> streams{};
};

class Judge {
public:
    Judge(const World& world, bool early) : world_{world}, network_{world.network()}, early_{early} {}

    std::string faults() {
        for (std::size_t l = 0; l < network_.links.size(); ++l) {
            for (int end = 0; end < 2; ++end) held_[{l, end}] = heldAt(l, end);
        }
        for (std::size_t s = 0; s < network_.streams.size(); ++s) expect(s);
        for (std::size_t i = 0; i < network_.devices.size(); ++i) bridge(i);
        for (std::size_t l = 0; l < network_.links.size(); ++l) {
            for (int end = 0; end < 2; ++end) agree(l, end);
        }
        for (std::size_t s = 0; s < network_.streams.size(); ++s) stream(s);
        return std::move(out_);
    }

private:
    using End = std::pair<std::size_t, int>;

    template <class... Parts>
    void wrong(const Parts&... parts) {
        out_ += concat(parts..., '\n');
    }
    [[nodiscard]] const std::string& name(std::size_t device) const { return network_.devices[device].name; }
    [[nodiscard]] std::size_t deviceAt(const End& at) const {
        return network_.links[at.first].ends[at.second].device;
    }
    [[nodiscard]] std::string nameOf(std::uint64_t id) const {
        const auto at = std::ranges::find(network_.streams, id, &Stream::id);
        return at == network_.streams.end() ? "0x" + Msrp::hexStr(id) : at->name;
    }
    [[nodiscard]] bool open(std::size_t link) const {
        return world_.carries(link) && world_.forwards(link, 0) && world_.forwards(link, 1);
    }

    [[nodiscard]] Held heldAt(std::size_t link, int end) const {
        Held held;
        const Mrp::MrpSm* engine = world_.engine(deviceAt({link, end}));
        if (engine == nullptr) return held;
        engine->eachAttribute(world_.port(link, end),
                              [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
                                  const std::uint8_t type = Msrp::application().types[ref.typeIndex].type;
                                  if (Mrp::isMember(attribute.applicant))
                                      held.declared.insert(Sim::describe(type, attribute.own()));
                                  if (!attribute.registered()) return;
                                  held.registered.insert(Sim::describe(type, attribute.heard()));
                                  if (type != Msrp::typeDomain) held.streams.emplace(ref.key, type);
                              });
        return held;
    }

    /// The ends of links by which a station hears of the talker, and those by which its bridges hear of
    /// listeners.
    void expect(std::size_t s) {
        const Stream& one = network_.streams[s];
        std::map<std::size_t, End> towards;  // the talker, by device: its own end of that link
        if (world_.talks(s)) {
            std::vector<std::size_t> reached{one.talker};
            for (std::size_t i = 0; i < reached.size(); ++i) {
                if (i != 0 && !network_.devices[reached[i]].bridge) continue;
                for (const std::size_t l : network_.linksOf(reached[i])) {
                    const int far = network_.links[l].ends[0].device == reached[i] ? 1 : 0;
                    const std::size_t device = deviceAt({l, far});
                    if (!open(l) || device == one.talker || towards.contains(device)) continue;
                    towards.emplace(device, End{l, far});
                    reached.push_back(device);
                    expected_.insert({{l, far}, one.id, Msrp::typeTalkerAdvertise});
                }
            }
        }
        for (const std::size_t station : one.listeners) {
            if (!world_.listens(s, station)) continue;
            for (const std::size_t l : network_.linksOf(station)) {
                if (world_.carries(l))
                    expected_.insert({{l, network_.links[l].ends[0].device == station ? 1 : 0},
                                      one.id,
                                      Msrp::typeListener});
            }
            std::vector<End> way;  // from the talker: the sending ends
            std::size_t at = station;
            while (towards.contains(at)) {
                const End near = towards.at(at);
                way.insert(way.begin(), {near.first, 1 - near.second});
                expected_.insert({way.front(), one.id, Msrp::typeListener});
                at = deviceAt(way.front());
            }
            if (!way.empty()) ways_[{s, station}] = std::move(way);
        }
    }

    /// Its records agree with each other, and nothing is left in them.
    void bridge(std::size_t device) {
        Sim::Bridge* bridge = world_.bridge(device);
        if (bridge == nullptr) return;
        for (const std::string& fault : {Sim::forwardingFault(*bridge), Sim::censusFault(*bridge)}) {
            if (!fault.empty()) wrong(name(device), ": ", fault);
        }
        std::set<std::uint64_t> there;
        for (const auto& [at, id, type] : expected_) {
            if (deviceAt(at) == device) there.insert(id);
        }
        for (const auto& [id, stream] : bridge->agent().msrpSm()->streamList()) {
            if (!there.contains(id))
                wrong(name(device), " keeps ", nameOf(id), ", of which nothing is there");
        }
        bridge->status->registeredStreams().each([&](std::uint64_t id, const Msrp::StreamData&) {
            if (!there.contains(id))
                wrong(name(device), " publishes ", nameOf(id), ", of which nothing is there");
        });
        bridge->waiting->bandwidthFailedIntf().each([&](IntfId intf, const Msrp::BwFailedIntf& queue) {
            for (const auto& [index, failed] : queue.entry()) {
                if (!there.contains(failed.streamId))
                    wrong(name(device), " lets ", nameOf(failed.streamId), " wait for bandwidth on ", intf,
                          ", of which nothing is there");
            }
        });
        for (const std::size_t l : network_.linksOf(device)) {
            const int end = network_.links[l].ends[0].device == device ? 0 : 1;
            const IntfId port = world_.port(l, end);
            if (!world_.carries(l)) idle(device, *bridge, port);
            if (!open(l)) continue;
            const std::string difference =
                Sim::difference(Sim::applied(*bridge, port), Sim::believed(*bridge, port));
            if (!difference.empty())
                wrong(name(device), " port ", port, " declares other than it believes: ", difference);
        }
    }

    /// Nothing is held for a port whose link is down.
    void idle(std::size_t device, Sim::Bridge& bridge, IntfId port) {
        const std::string at = concat(name(device), " port ", port, ", which is down, ");
        for (const SrClassId srClass : {SrClassId::SrClassA, SrClassId::SrClassB}) {
            if (bridge.allocated(port.name(), srClass) != 0) wrong(at, "has bandwidth reserved");
        }
        for (const auto& [id, stream] : bridge.agent().msrpSm()->streamList()) {
            if (stream->listenerState(port) != ListenerState::Ignore ||
                stream->listenerStateOrig(port) != ListenerState::Ignore)
                wrong(at, "keeps a listener of ", nameOf(id));
        }
    }

    /// What begins at that end and what has arrived at the other one.
    void agree(std::size_t link, int end) {
        const End from{link, end};
        const End to{link, 1 - end};
        const std::string way = concat(name(deviceAt(from)), " to ", name(deviceAt(to)));
        const Held& far = held_.at(to);
        if (open(link)) {
            for (const std::string& said : held_.at(from).declared) {
                if (!far.registered.contains(said)) wrong(way, ": \"", said, "\" is declared and not there");
            }
            for (const std::string& said : far.registered) {
                if (!held_.at(from).declared.contains(said))
                    wrong(way, ": \"", said, "\" is there and not declared");
            }
        }
        for (const Stream& one : network_.streams) {
            for (const bool talker : {true, false}) {
                const std::uint8_t type = talker ? Msrp::typeTalkerAdvertise : Msrp::typeListener;
                std::size_t found = 0;
                for (auto [at, last] = far.streams.equal_range(one.id); at != last; ++at)
                    found += (at->second != Msrp::typeListener) == talker ? 1U : 0U;
                const std::size_t right = expected_.contains({to, one.id, type}) ? 1 : 0;
                if (found != right)
                    wrong(way, ": ", found, talker ? " talkers" : " listeners", " of ", one.name,
                          " are registered where ", right, " should be");
            }
        }
    }

    void stream(std::size_t s) {
        const Stream& one = network_.streams[s];
        ListenerState merged = ListenerState::Ignore;
        for (const std::size_t station : one.listeners) {
            const auto way = ways_.find({s, station});
            if (way == ways_.end()) continue;
            const Station::TalkerEvent* heard = world_.heardTalker(station, one.id);
            const bool ready = heard != nullptr && heard->state == Msrp::TalkerState::Advertise;
            merged = Msrp::mergeListener(merged, ready ? ListenerState::Ready : ListenerState::AskingFailed);
            if (heard == nullptr) {
                wrong(name(station), " hears nothing of ", one.name);
            } else if (ready) {
                for (const End& at : way->second) {
                    if (network_.devices[deviceAt(at)].bridge && !carriesStream(at, one))
                        wrong(name(deviceAt(at)), " does not forward ", one.name, " to ",
                              name(deviceAt({at.first, 1 - at.second})), ", and ", name(station),
                              " was told that it has it");
                }
            } else {
                refused(one, station, *heard, way->second);
            }
        }
        if (!world_.talks(s)) return;
        const Station::ListenerEvent* heard = world_.heardListener(one.talker, one.id);
        const ListenerState told = heard == nullptr ? ListenerState::Ignore : heard->state;
        if (told != merged)
            wrong(name(one.talker), " hears ", State::enumText(told), " for ", one.name,
                  " where its listeners say ", State::enumText(merged));
    }

    [[nodiscard]] bool carriesStream(const End& at, const Stream& one) const {
        const Sim::Bridge& bridge = *world_.bridge(deviceAt(at));
        const auto fdb = bridge.groupConfig->fdbConfig(VlanId{one.vlan});
        const auto group = fdb ? fdb->ethGroup(one.destination) : nullptr;
        const bool* member = group ? group->intf().find(world_.port(at.first, at.second)) : nullptr;
        return member != nullptr && *member;
    }

    /// Only for bandwidth, and only where it does not fit beside what is there.
    void refused(const Stream& one, std::size_t station, const Station::TalkerEvent& heard,
                 const std::vector<End>& way) {
        constexpr std::uint64_t addressBits = 0xFFFF'FFFF'FFFF;
        const auto isThere = [&](const End& at) {
            const Device& device = network_.devices[deviceAt(at)];
            return device.bridge && device.address.number() == (heard.failedBridgeId & addressBits);
        };
        const auto at = std::ranges::find_if(way, isThere);
        const std::string said = concat(name(station), " is told that ", one.name, " fails with code ",
                                        unsigned{Msrp::number(heard.failureCode)}, " at bridge 0x",
                                        Msrp::hexStr(heard.failedBridgeId));
        if (at == way.end()) return wrong(said, ", which is not on its way");
        Msrp::AdmissionRequest request = requestAt(*at);
        request.srClass = one.srClass;
        request.needed = needed(one);
        // Which share is short may have changed since it was refused.
        if (Msrp::isBandwidthFailure(heard.failureCode) &&
            Msrp::admit(request) != Msrp::TalkerFailureCode::noFailure)
            return;
        if (early_ && !waits(*at, one)) return;
        wrong(said, ", where ", request.allocatedA + request.allocatedB, " of ", Msrp::allowedTotal(request),
              " kbit/s are taken and ", request.needed, " are needed",
              carriesStream(*at, one) ? ", and where it has bandwidth" : "");
    }

    [[nodiscard]] bool waits(const End& at, const Stream& one) const {
        const auto queue =
            world_.bridge(deviceAt(at))->waiting->bandwidthFailedIntf(world_.port(at.first, at.second));
        return queue && queue->contains(one.id);
    }

    static std::uint64_t needed(const Stream& one) {
        return Msrp::streamBandwidth(one.srClass, one.tspec.maxIntervalFrames, one.tspec.maxFrameSize);
    }

    /// By the link's speed, the shares, and what is forwarded there.
    [[nodiscard]] Msrp::AdmissionRequest requestAt(const End& at) const {
        const Sim::Bridge& bridge = *world_.bridge(deviceAt(at));
        Msrp::AdmissionRequest request{
            .link = std::uint64_t{1000} * world_.wire(at.first, at.second).quality().megabitsPerSecond,
            .percentA = bridge.cliConfig->srClassABandwidthPercent(),
            .percentB = bridge.cliConfig->srClassBBandwidthPercent()};
        for (const Stream& other : network_.streams) {
            if (!carriesStream(at, other)) continue;
            (other.srClass == SrClassId::SrClassA ? request.allocatedA : request.allocatedB) += needed(other);
        }
        return request;
    }

    const World& world_;
    const Network& network_;
    const bool early_;
    std::map<End, Held> held_;
    std::set<std::tuple<End, std::uint64_t, std::uint8_t>> expected_;       ///< registrations, by where
    std::map<std::pair<std::size_t, std::size_t>, std::vector<End>> ways_;  ///< by stream and listener
    std::string out_;
};

template <class Visit>
void eachEnd(const World& world, Visit&& visit) {
    for (std::size_t l = 0; l < world.network().links.size(); ++l) {
        for (int end = 0; end < 2; ++end) {
            if (const Mrp::MrpSm* engine = world.engine(world.network().links[l].ends[end].device))
                visit(*engine, world.port(l, end));
        }
    }
}

}  // namespace

std::string faultsOf(const World& world, bool early) { return Judge{world, early}.faults(); }

bool isCalm(const World& world) {
    bool calm = true;
    eachEnd(world, [&](const Mrp::MrpSm& engine, IntfId port) {
        engine.eachAttribute(port, [&](const Mrp::AttributeRef&, const Mrp::Attribute& attribute) {
            calm = calm && !Mrp::hasToSpeak(attribute.applicant) &&
                   attribute.registrar != Mrp::Registrar::LV && !attribute.queued;
        });
    });
    return calm;
}

Duration longestUnrest(const Network& network) {
    std::uint64_t leaveAll = 10'000;
    for (const Device& device : network.devices) {
        const auto config = device.records.find("mrp/config");
        if (config == device.records.end()) continue;
        leaveAll = std::max(leaveAll, Show::numberOf(Show::at(config->second, {"leaveAllTime"})));
    }
    // A round comes after one and a half times that at most.
    return std::chrono::milliseconds{3 * leaveAll} +
           std::chrono::seconds{1} * static_cast<int>(network.devices.size());
}

std::string settle(World& world, Duration most) {
    constexpr auto first = std::chrono::milliseconds{700};  // beyond a Leave time
    constexpr auto again = std::chrono::milliseconds{500};
    const Duration end = world.now() + most;
    world.runTo(world.now() + first);
    for (;; world.runTo(world.now() + again)) {
        const bool last = world.now() >= end;
        if (!isCalm(world) && !last) continue;
        std::string faults = faultsOf(world, most < longestUnrest(world.network()));
        if (faults.empty() || last) return faults;
    }
}

std::string pictureOf(const World& world) {
    const Network& network = world.network();
    std::string out;
    for (std::size_t i = 0; i < network.devices.size(); ++i) {
        if (const Sim::Bridge* bridge = world.bridge(i))
            out += concat(network.devices[i].name, ":\n", bridge->streams(), bridge->groups());
        if (network.devices[i].bridge) continue;
        for (std::size_t s = 0; s < network.streams.size(); ++s) {
            const Stream& stream = network.streams[s];
            const auto* talker = world.heardTalker(i, stream.id);
            if (talker != nullptr && world.listens(s, i))
                out += concat(network.devices[i].name, ": ", Station::text(*talker), '\n');
            if (const auto* listener = world.heardListener(i, stream.id))
                out += concat(network.devices[i].name, ": ", Station::text(*listener), '\n');
        }
    }
    return out;
}

std::string stateOf(const World& world) {
    const Network& network = world.network();
    std::string out = pictureOf(world);
    for (std::size_t l = 0; l < network.links.size(); ++l) out += world.carries(l) ? '+' : '-';
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        out += world.talks(s) ? '+' : '-';
        for (const std::size_t station : network.streams[s].listeners)
            out += world.listens(s, station) ? '+' : '-';
    }
    for (std::size_t i = 0; i < network.devices.size(); ++i) {
        Sim::Bridge* bridge = world.bridge(i);
        if (bridge == nullptr) continue;
        bridge->waiting->bandwidthFailedIntf().each([&](IntfId intf, const Msrp::BwFailedIntf& queue) {
            out += concat("\nwait ", intf);
            for (const auto& [index, failed] : queue.entry()) out += concat(' ', failed.streamId);
        });
        for (const auto& [id, stream] : bridge->agent().msrpSm()->streamList()) {
            out += concat("\nstream ", id);
            for (const Msrp::StreamPort& port : stream->port()) {
                out += concat(' ', port.intf, ' ', unsigned{Msrp::number(port.talkerState)}, ' ',
                              unsigned{Msrp::number(port.listenerState)}, ' ',
                              unsigned{Msrp::number(port.listenerStateOrig)}, ' ',
                              unsigned{Msrp::number(port.talkerFailureCode)});
            }
        }
        for (const std::size_t l : network.linksOf(i)) {
            const int end = network.links[l].ends[0].device == i ? 0 : 1;
            out += '\n' + bridge->classes(world.port(l, end).name());
        }
    }
    eachEnd(world, [&](const Mrp::MrpSm& engine, IntfId port) {
        out += concat('\n', port);
        engine.eachAttribute(port, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& a) {
            const std::uint8_t type = Msrp::application().types[ref.typeIndex].type;
            out += concat('\n', static_cast<int>(a.applicant), ' ', static_cast<int>(a.registrar), ' ',
                          bool{a.announced}, bool{a.held}, bool{a.refused}, bool{a.mtDue});
            for (const Mrp::AttributeValue& value : {a.own(), a.told(), a.heard(), a.accepted()})
                out += ' ' + Sim::describe(type, value);
        });
    });
    return out;
}

}  // namespace Plan
