#include "Linux/vlans/VlanAgent.h"

#include "Linux/vlans/MembershipMessage.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <utility>

namespace Linux {

namespace {

constexpr std::chrono::seconds firstRetry{1};
constexpr std::chrono::minutes lastRetry{5};
/// Each request to forget has the kernel walk over all addresses: a peer may not ask for that again and
/// again, nor for thousands of VLANs one by one.
constexpr std::chrono::milliseconds forgetPause{200};
constexpr std::size_t forgetOneByOne = 8;
/// Requests in one turn of the loop; a peer may ask for thousands of VLANs in one frame.
constexpr std::size_t requestsPerTurn = 256;

}  // namespace

VlanAgent::VlanAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& kernel, BridgeAgent& bridge,
                     std::shared_ptr<const Bridging::VlanRequests> requests,
                     std::shared_ptr<Bridging::VlanMembers> members, Report report, const std::string& files)
    : loop_{loop},
      devices_{devices},
      kernel_{kernel},
      bridge_{bridge},
      requests_{std::move(requests)},
      members_{std::move(members)},
      report_{std::move(report)},
      owned_{files + ".vlans"},
      due_{loop, [this] { carryOut(); }},
      settled_{loop, [this] {
                   settling_ = false;
                   carryOut();
               }} {}

void VlanAgent::start(Runtime::Duration settling) {
    running_ = true;
    if (const std::string problem = owned_.read(); !problem.empty()) report_(Tone::warning, problem);
    settling_ = !owned_.ports().empty();
    if (settling_) settled_.armIn(settling);
    const auto soon = [this] { comeBack(loop_.now()); };
    reactor_ = requests_->watch([soon](const State::Change&) { soon(); });
    bridge_.onVlans(soon);
    carryOut();
}

void VlanAgent::stop() {
    if (!std::exchange(running_, false)) return;
    reactor_ = {};
    due_.cancel();
    settled_.cancel();
    for (auto& [ifindex, port] : ports_) {
        allowance_ = VlanId::max;
        port.ours &= ~ask(ifindex, port, port.ours & present(ifindex), false);
    }
    remember();
}

VlanSet VlanAgent::present(unsigned ifindex) const {
    const auto at = bridge_.vlans().find(ifindex);
    return at == bridge_.vlans().end() ? VlanSet{} : at->second.member;
}

VlanSet VlanAgent::wanted(unsigned ifindex) const {
    const auto request = requests_->port(IntfId{nameOf(ifindex)});
    return request ? request->member() : VlanSet{};
}

std::string VlanAgent::nameOf(unsigned ifindex) const {
    const Device* device = devices_.find(ifindex);
    return device != nullptr ? device->name : std::string{};
}

void VlanAgent::adopt(unsigned bridge) {
    const auto& members = devices_.portsOf(bridge);
    std::erase_if(ports_, [&](const auto& entry) { return !members.contains(entry.first); });
    for (const unsigned ifindex : members) {
        const auto [at, fresh] = ports_.try_emplace(ifindex);
        const auto before = owned_.ports().find(ifindex);
        if (fresh && before != owned_.ports().end() && before->second.name == nameOf(ifindex))
            at->second.ours = before->second.vlans;
        // Gone without us: somebody else has deleted it.
        const VlanSet lost = at->second.ours & ~present(ifindex);
        const VlanSet still = lost & wanted(ifindex);
        eachVlan(still, [&](VlanId vlan) {
            if (contentions_.changed({ifindex, vlan}, loop_.now()))
                report_(Tone::warning,
                        Runtime::concat(nameOf(ifindex), ": somebody else takes VLAN ", vlan,
                                        " away again and again; it is left alone for a minute"));
        });
        at->second.ours &= ~lost;
    }
}

void VlanAgent::carryOut() {
    if (!running_) return;
    due_.cancel();
    if (!bridge_.catchUp()) return due_.armIn({});
    const Device* bridge = bridge_.bridge();
    allowance_ = requestsPerTurn;
    if (bridge == nullptr) {
        if (bridgeWas_ != 0) leaveBridge();
        return publish();
    }
    bridgeWas_ = bridge->ifindex;
    contentions_.review(loop_.now());
    adopt(bridge->ifindex);
    for (auto& [ifindex, port] : ports_) {
        if (!filtersVlans(*bridge)) {
            port.problem = wanted(ifindex).any() ? "the bridge does not filter VLANs" : "";
        } else {
            settlePort(ifindex, port, false);
        }
        forget(bridge->ifindex, ifindex, port);
    }
    remember();
    publish();
}

void VlanAgent::leaveBridge() {
    for (auto& [ifindex, port] : ports_) {
        // It may only have another name.
        const Device* device = devices_.find(ifindex);
        allowance_ = VlanId::max;
        if (device != nullptr && device->bridge == bridgeWas_) ask(ifindex, port, port.ours, false);
    }
    // What they are members of by the time when there is a bridge again is none of ours.
    ports_.clear();
    bridgeWas_ = 0;
    remember();
}

void VlanAgent::settlePort(unsigned ifindex, Port& port, bool all) {
    const VlanSet want = wanted(ifindex);
    const VlanSet have = present(ifindex);
    const Runtime::Time now = loop_.now();
    if (!settling_) ask(ifindex, port, port.ours & ~want & have, false);
    VlanSet missing = want & ~have & ~port.ours;
    eachVlan(missing, [&](VlanId vlan) {
        if (all || !contentions_.leftAlone({ifindex, vlan}, now)) return;
        missing.reset(vlan.value());
        comeBack(now + Contention::span);
    });
    if (missing.none()) {
        if ((want & ~have & ~port.ours).none()) port.problem.clear();
        return;
    }
    if (!all && now < port.again) return comeBack(port.again);
    // Before the kernel is asked: who dies in between must know them again.
    owned_.portIs(ifindex, nameOf(ifindex), port.ours | missing);
    if (const std::string problem = owned_.flush(); !problem.empty()) return failed(ifindex, port, problem);
    port.ours |= missing;
    // The record says whose they are before the kernel tells anybody that they are there.
    publish();
    const VlanSet done = ask(ifindex, port, missing, true);
    port.ours &= done | ~missing;
    if (done == missing) {
        port.patience = {};
        port.problem.clear();
    }
}

VlanSet VlanAgent::ask(unsigned ifindex, Port& port, const VlanSet& vlans, bool join) {
    std::vector<NetlinkMessage> messages;
    std::vector<VlanSpan> spans = spansOf(vlans);
    if (spans.size() > allowance_) {
        spans.resize(allowance_, spans.front());
        comeBack(loop_.now());
    }
    allowance_ -= spans.size();
    messages.reserve(spans.size());
    for (const VlanSpan span : spans)
        messages.push_back(join ? joinVlans(ifindex, span) : leaveVlans(ifindex, span));
    const std::vector<NetlinkAnswer> answers = kernel_.carryOut(messages);
    VlanSet done;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (!answers[i]) {
            failed(ifindex, port,
                   Runtime::concat("cannot ", join ? "join" : "leave", " VLAN ", spans[i].first, ": ",
                                   answers[i].problem()));
            continue;
        }
        for (unsigned id = spans[i].first.value(); id <= spans[i].last.value(); ++id) done.set(id);
    }
    return done;
}

void VlanAgent::forget(unsigned bridge, unsigned ifindex, Port& port) {
    const auto request = requests_->port(IntfId{nameOf(ifindex)});
    if (!request) port.flushed = {};
    if (!request || request->flush() == port.flushed) return;
    const Runtime::Time now = loop_.now();
    if (now < port.mayForget) return comeBack(port.mayForget);
    if (allowance_ < forgetOneByOne) return comeBack(now);
    port.mayForget = now + forgetPause;
    std::vector<NetlinkMessage> messages;
    for (const auto& [vlan, count] : request->flush()) {
        if (port.flushed.get(vlan) != count) messages.push_back(forgetAddresses(bridge, ifindex, vlan));
    }
    if (messages.size() > forgetOneByOne) messages.assign(1, forgetAddresses(bridge, ifindex, std::nullopt));
    allowance_ -= messages.size();
    port.flushed = request->flush();
    for (const NetlinkAnswer& answer : kernel_.carryOut(messages)) {
        if (!answer) say(Runtime::concat(nameOf(ifindex), ": cannot forget addresses: ", answer.problem()));
    }
}

void VlanAgent::failed(unsigned ifindex, Port& port, const std::string& why) {
    port.problem = why;
    // The first time, it may have left the bridge, and the news of that is on its way.
    const bool first = port.patience == Runtime::Duration{};
    port.patience = std::clamp<Runtime::Duration>(port.patience * 2, firstRetry, lastRetry);
    port.again = loop_.now() + port.patience;
    comeBack(port.again);
    if (!first) say(Runtime::concat(nameOf(ifindex), ": ", why));
}

void VlanAgent::comeBack(Runtime::Time when) {
    if (running_ && (!due_.armed() || due_.when() > when)) due_.armAt(when);
}

void VlanAgent::say(const std::string& line) {
    if (told_.insert(line).second) report_(Tone::warning, line);
    constexpr std::size_t remembered = 1000;
    if (told_.size() > remembered) told_.clear();
}

void VlanAgent::remember() {
    const OwnedVlans::Ports before = owned_.ports();
    for (const auto& [ifindex, port] : before) owned_.portIs(ifindex, port.name, {});
    for (const auto& [ifindex, port] : ports_) owned_.portIs(ifindex, nameOf(ifindex), port.ours);
    if (const std::string problem = owned_.flush(); !problem.empty()) say(problem);
}

void VlanAgent::publish() {
    std::set<IntfId> there;
    for (const auto& [ifindex, port] : ports_) {
        const IntfId intf{nameOf(ifindex)};
        if (!intf) continue;
        there.insert(intf);
        const auto record = members_->portIs(intf);
        record->memberIs(port.ours);
        record->problemIs(port.problem);
    }
    const auto& known = members_->port();
    for (auto intf = known.firstKey(); intf; intf = known.nextKey(*intf)) {
        if (!there.contains(*intf)) members_->portDel(*intf);
    }
}

std::vector<std::string> VlanAgent::audit(bool repair) {
    std::vector<std::string> differences;
    bridge_.catchUp();
    const Device* bridge = bridge_.bridge();
    if (!running_ || bridge == nullptr || !filtersVlans(*bridge)) return differences;
    allowance_ = requestsPerTurn;
    for (auto& [ifindex, port] : ports_) {
        const VlanSet missing = wanted(ifindex) & ~present(ifindex);
        const VlanSet left = settling_ ? VlanSet{} : port.ours & ~wanted(ifindex) & present(ifindex);
        if (missing.any())
            differences.push_back(Runtime::concat(nameOf(ifindex), ": not in VLAN ", vlanText(missing)));
        if (left.any())
            differences.push_back(Runtime::concat(nameOf(ifindex), ": still in VLAN ", vlanText(left)));
        if (repair) settlePort(ifindex, port, true);
    }
    if (repair) {
        remember();
        publish();
    }
    return differences;
}

}  // namespace Linux
