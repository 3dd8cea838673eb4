#include "Linux/queues/ShaperAgent.h"

#include "Linux/queues/IngressMap.h"
#include "Linux/queues/ShaperChoice.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <linux/rtnetlink.h>
#include <utility>

namespace Linux {

namespace {

using Runtime::concat;

/// Tries of a port in one go: each way of shaping, with fewer queues, and once more where something changed
/// meanwhile.
constexpr int attemptsMost = 8;
/// Ports that the timed audit reads in one turn of the loop; each takes some ten requests.
constexpr int auditedPerTurn = 8;
constexpr int noticeBytes = 1 << 20;
constexpr std::uint64_t kilobitsInMegabit = 1000;

ClassRates larger(ClassRates x, ClassRates y) { return {std::max(x.a, y.a), std::max(x.b, y.b)}; }

bool fits(ClassRates rates, std::uint64_t portRate) {
    return std::uint64_t{rates.a} + rates.b < portRate &&
           portRate <= std::numeric_limits<std::int32_t>::max();
}

std::uint64_t portRate(const Device& device) { return device.mode.megabitsPerSecond * kilobitsInMegabit; }

/// Errors that say nothing about what the port can do.
bool passing(int error) {
    constexpr std::array errors{ENODEV, EAGAIN, EINTR, ENOBUFS, ENOMEM, EBUSY};
    return std::ranges::find(errors, error) != errors.end();
}

const nlmsghdr& header(const NetlinkMessage& message) {
    return *reinterpret_cast<const nlmsghdr*>(message.bytes().data());
}

std::string shapedBy(Shaper shaper) {
    switch (shaper) {
        case Shaper::hardware:
            return "queues shaped by credits in hardware";
        case Shaper::software:
            return "queues shaped by credits in software";
        case Shaper::htb:
            return "queues shaped by token buckets";
        case Shaper::none:
            break;
    }
    return "shaping not available";
}

const std::string nothingReserved = "nothing is reserved";

}  // namespace

ShaperAgent::ShaperAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& kernel, Records records,
                         std::function<void()> wake, Report report)
    : loop_{loop},
      devices_{devices},
      kernel_{kernel},
      records_{std::move(records)},
      wake_{std::move(wake)},
      report_{std::move(report)},
      notices_{loop, [this](const nlmsghdr& message) { notice(message); }, [this] { readEverything(); }},
      settled_{loop,
               [this] {
                   settling_ = false;
                   wake_();
               }},
      again_{loop, [this] { tryAgain(); }},
      audit_{loop, [this] { auditSome(); }} {
    devices.watch([this](const Device* before, const Device* now) { deviceChanged(before, now); });
    devices.modesOf([this](const Device& device) { return bridge_ != 0 && device.bridge == bridge_; });
}

std::string ShaperAgent::start(Runtime::Duration settling, Runtime::Duration audit) {
    // Followed before it is read, so that nothing falls between.
    if (std::string problem = notices_.open({RTNLGRP_TC}, noticeBytes); !problem.empty()) return problem;
    const auto changed = [this](const State::Change&) { wake_(); };
    reactors_.push_back(records_.wanted->watch(changed));
    reactors_.push_back(records_.domain->watch(changed));
    reactors_.push_back(records_.status->react(changed));
    reactors_.push_back(records_.hardware->react(changed));
    running_ = true;
    settling_ = true;
    settled_.armIn(settling);
    auditInterval_ = audit;
    audit_.armIn(audit);
    wake_();
    return {};
}

void ShaperAgent::deviceChanged(const Device* before, const Device* now) {
    if (before == nullptr && now == nullptr) return;
    const Device& device = now != nullptr ? *now : *before;
    const bool moved = before == nullptr || now == nullptr || now->name != before->name;
    const std::string& bridge = records_.config->bridge();
    const auto bearsName = [&](const Device* d) { return d != nullptr && d->name == bridge; };
    if (moved && (bearsName(before) || bearsName(now))) membersStale_ = true;

    const auto port = ports_.find(device.ifindex);
    if (port != ports_.end() && (moved || now->bridge != before->bridge)) {
        // Whatever it becomes, it is another port than it was.
        depart(device.ifindex);
    } else if (port != ports_.end()) {
        const bool same = now->mode == before->mode && now->operational == before->operational &&
                          now->txQueues == before->txQueues;
        if (!same && port->second.trials.due()) port->second.trials.beginAnew();
    } else if (now != nullptr && bridge_ != 0 && now->bridge == bridge_) {
        membersStale_ = true;
    } else if (!membersStale_) {
        return;  // none of our business
    }
    if (now == nullptr) {
        departed_.erase(device.ifindex);
        records_.places->erase(device.ifindex);
    }
    if (running_) wake_();
}

void ShaperAgent::depart(unsigned ifindex) {
    auto port = ports_.extract(ifindex);
    if (!port) return;
    records_.capabilities->shapingDel(IntfId{port.mapped().name});
    refuse(port.mapped(), {});
    departed_.insert(std::move(port));
    membersStale_ = true;
}

void ShaperAgent::notice(const nlmsghdr& message) {
    const auto held = ports_.find(queueDevice(message));
    if (held == ports_.end() || held->second.unread) return;
    const bool aboutClass = message.nlmsg_type == RTM_NEWTCLASS || message.nlmsg_type == RTM_DELTCLASS;
    if (aboutClass && foreignRoot(held->second.have, records_.config->queueHandle())) return;
    PortQueues after = held->second.have;
    after.take(message);
    if (after == held->second.have) return;
    // It may be news that was overtaken by what we asked for since: the kernel is asked how things are.
    held->second.unread = true;
    wake_();
}

void ShaperAgent::readEverything() {
    for (auto& [ifindex, port] : ports_) port.unread = true;
    wake_();
}

void ShaperAgent::auditSome() {
    auto port = ports_.lower_bound(auditNext_);
    for (int i = 0; i < auditedPerTurn && port != ports_.end(); ++i, ++port) port->second.unread = true;
    const bool done = port == ports_.end();
    auditNext_ = done ? 0 : port->first;
    audit_.armIn(done ? auditInterval_ : Runtime::Duration{0});
    wake_();
}

void ShaperAgent::tryAgain() {
    for (auto& [ifindex, port] : ports_) {
        const Device* device = devices_.find(ifindex);
        const std::uint64_t rate = device != nullptr ? portRate(*device) : 0;
        if (port.trials.begin(loop_.now(), !fits(port.trials.asked(), rate))) port.unread = true;
    }
    wake_();
}

void ShaperAgent::abilitiesChanged() {
    for (auto& [ifindex, port] : ports_) {
        port.trials.beginAnew();
        port.ingressProblem.clear();
    }
    wake_();
}

void ShaperAgent::refresh() {
    followMembers();
    for (auto& [ifindex, port] : ports_) {
        if (port.unread && !port.trials.failing()) (void)read(ifindex, port);
    }
}

void ShaperAgent::followMembers() {
    if (!std::exchange(membersStale_, false)) return;
    const Device* bridge =
        records_.config->bridge().empty() ? nullptr : devices_.find(records_.config->bridge());
    bridge_ = bridge != nullptr ? bridge->ifindex : 0;
    const auto isMember = [this](const Device& device) { return bridge_ != 0 && device.bridge == bridge_; };
    for (auto at = ports_.begin(); at != ports_.end();) {
        const Device* device = devices_.find(at->first);
        const auto next = std::next(at);
        if (device == nullptr || !isMember(*device)) depart(at->first);
        at = next;
    }
    std::vector<unsigned> joined;
    for (const auto& [ifindex, device] : devices_.all()) {
        if (!isMember(device)) continue;
        const auto [port, fresh] = ports_.try_emplace(ifindex);
        if (!fresh) continue;
        joined.push_back(ifindex);
        port->second.name = device.name;
        records_.capabilities->shapingIs(IntfId{device.name});
        port->second.otherQueues = static_cast<std::uint16_t>(std::clamp(device.txQueues, 3U, 0xFFFFU) - 2);
        // One that is back before its queues were given back keeps them if they are right; but it may have
        // come back under another name, and nobody asks again for what the old one had.
        if (departed_.erase(ifindex) != 0) port->second.adopted = true;
    }
    for (auto& [ifindex, port] : departed_) giveBack(ifindex, port);
    departed_.clear();
    membersStale_ = false;
    for (const unsigned ifindex : joined) devices_.learnMode(ifindex);
}

std::string ShaperAgent::read(unsigned ifindex, Port& port) {
    PortQueues have;
    const NetlinkAnswer answer = readQueues(kernel_, ifindex, records_.config->queueHandle(), have);
    if (!answer) {
        std::string problem = concat("cannot read the queues: ", answer.problem());
        port.trials.failed(loop_.now(), problem);
        return problem;
    }
    port.unread = false;
    const bool otherRoot = have.root != port.have.root;
    port.have = std::move(have);
    if (!std::exchange(port.adopted, true)) {
        port.leftOver = shapedRates(port.have, records_.config->queueHandle());
        if (mapsIngress(port.have)) records_.places->insert(ifindex);
    } else if (otherRoot && port.trials.due() && !port.trials.leftAlone()) {
        port.trials.beginAnew();
    }
    noticeDrift(ifindex, port);
    return {};
}

void ShaperAgent::noticeDrift(unsigned ifindex, Port& port) {
    if (!port.applied || port.trials.leftAlone()) return;
    auto steps = planQueues(*port.applied, port.have);
    if (port.mapped)
        std::ranges::move(planIngressMap(ifindex, *port.mapped, port.have), std::back_inserter(steps));
    // That they are somebody else's now is told where it is put on record.
    const bool taken = foreignRoot(port.have, port.applied->major) && port.applied->shaper != Shaper::none;
    if (steps.empty() && !taken) return;
    const std::string what = taken ? "the queues are somebody else's" : steps.front().difference;
    if (!port.trials.mayRepair(loop_.now())) {
        complain(concat(port.name, ": ", what,
                        "; somebody changes the queues again and again, they are left alone for a while"));
    } else if (!taken) {
        complain(concat(port.name, ": ", what, "; somebody else changed the queues"));
    }
}

void ShaperAgent::raise() { carryOut(false); }

void ShaperAgent::lower() { carryOut(true); }

void ShaperAgent::carryOut(bool lowering) {
    if (!running_) return;
    refresh();
    for (auto& [ifindex, port] : ports_) {
        const Device* device = devices_.find(ifindex);
        if (device == nullptr) continue;
        if (!port.unread) applyQueues(port, *device, lowering);
        if (!device->operational) {
            refuse(port, {});
        } else if (const std::string problem = port.trials.problem(); !problem.empty()) {
            refuse(port, problem);
        }
    }
    const ClassPriorities mapped = mappedPriorities();
    for (auto& [ifindex, port] : ports_) {
        const Device* device = devices_.find(ifindex);
        if (device != nullptr && !port.unread) applyIngressMap(port, *device, mapped);
    }
    learnFromFilters();
    armRetry();
}

void ShaperAgent::armRetry() {
    std::optional<Runtime::Time> next;
    for (const auto& [ifindex, port] : ports_) {
        if (const auto due = port.trials.due()) next = next ? std::min(*next, *due) : *due;
    }
    if (next) {
        again_.armAt(*next);
    } else {
        again_.cancel();
    }
}

ClassRates ShaperAgent::targetRates(const Port& port, std::uint64_t rate, bool lowering) const {
    const std::shared_ptr<const Qos::Input::IntfConfig> asked =
        records_.wanted->intfConfig(IntfId{port.name});
    const ClassRates reserved = larger(wantedRates(asked.get(), tables()), port.trials.asked());
    ClassRates target = reserved;
    if (settling_) target = larger(target, port.leftOver);
    if (!lowering) target = larger(target, shapedRates(port.have, records_.config->queueHandle()));
    // What is reserved is known to fit together, what was and what will be need not.
    return fits(target, rate) ? target : reserved;
}

std::optional<ShaperAgent::Decision> ShaperAgent::decide(const Port& port, const Device& device,
                                                         bool lowering) const {
    const Config& config = *records_.config;
    Decision decision;
    WantedQueues& wanted = decision.queues;
    wanted.ifindex = device.ifindex;
    wanted.major = config.queueHandle();
    wanted.otherQueues = port.otherQueues;
    wanted.inSwitchChip = device.inSwitchChip;
    wanted.priorities = classPriorities(tables());
    const bool foreign = foreignRoot(port.have, wanted.major);
    // Without a link nothing is sent, and its next speed is not known.
    if (!device.operational && !foreign) return std::nullopt;
    wanted.portRate = portRate(device);
    wanted.rates = targetRates(port, wanted.portRate, lowering);
    const auto domain = records_.domain->port(IntfId{port.name});
    wanted.ready =
        domain && std::ranges::any_of(domain->core(), [](const auto& entry) { return entry.second; });
    wanted.frames = largestFrames(domain.get(), device.mtu);
    if (config.shaping() == Shaping::none) {
        decision.why = "switched off by configuration";
    } else if (foreign) {
        decision.why = concat("somebody else has set up the queues (", port.have.root->kind, ')');
    } else if (wanted.portRate == 0) {
        decision.why = "the link's speed is not known";
    } else if (device.mode.halfDuplex) {
        decision.why = "the link is half duplex";
    } else if (!fits(wanted.rates, wanted.portRate)) {
        decision.why = concat("the reserved ", wanted.rates.a, " and ", wanted.rates.b,
                              " kbit/s do not fit into ", wanted.portRate, " kbit/s");
        decision.byTrial = true;
    } else {
        ShaperChoice choice = chooseShaper(config.shaping(), records_.capabilities->abilities(),
                                           {device.txQueues, device.inSwitchChip, config.ingressPriority()},
                                           port.trials.refusals());
        wanted.shaper = choice.shaper;
        decision.why = std::move(choice.why);
        decision.byTrial = choice.shaper == Shaper::none && port.trials.refusals() != ShaperRefusals{};
    }
    return decision;
}

void ShaperAgent::applyQueues(Port& port, const Device& device, bool lowering) {
    std::string problem = "the queues change while they are set up";
    for (int attempt = 0; attempt < attemptsMost && !port.trials.leftAlone(); ++attempt) {
        const auto decision = decide(port, device, lowering);
        if (!decision) return;
        const Shaper way = decision->queues.shaper;
        const NetlinkAnswer answer = carryOut(port, planQueues(decision->queues, port.have));
        if (answer) return applied(port, *decision, device.operational);
        if (!unchanged(device.ifindex, port)) continue;
        if (passing(answer.error) || way == Shaper::none) {
            problem = concat("cannot set up the queues: ", answer.problem());
            break;
        }
        const bool credits = way != Shaper::htb;
        if (credits && !port.have.root && port.otherQueues > 1) {
            // It may have been made with more transmit queues than it uses.
            port.otherQueues = 1;
        } else {
            port.trials.wayRefused(way, answer.problem());
        }
    }
    if (port.trials.leftAlone()) return;
    port.applied.reset();
    port.trials.failed(loop_.now(), problem);
    port.unread = true;
    publish(port, Shaper::none, problem);
}

void ShaperAgent::applied(Port& port, const Decision& decision, bool operational) {
    const WantedQueues& queues = decision.queues;
    const bool accepted = records_.config->shaping() == Shaping::none;
    port.applied = queues;
    port.trials.passed();
    if (queues.shaper == Shaper::none) {
        if (decision.byTrial) port.trials.gaveUp(loop_.now(), queues.rates);
        publish(port, Shaper::none, decision.why);
        return refuse(port, accepted || !operational ? std::string{} : decision.why);
    }
    records_.outcomes->queuesAre(IntfId{port.name});
    if (port.trials.worked()) wake_();  // nobody has asked for these rates yet
    refuse(port, {});
    // Only a rate shows whether the kernel shapes in this way.
    const auto told = records_.capabilities->shaping(IntfId{port.name});
    if (queues.rates != ClassRates{} || (told && told->shaper() == queues.shaper)) {
        publish(port, queues.shaper, decision.why);
    } else {
        publish(port, Shaper::none, nothingReserved);
    }
}

NetlinkAnswer ShaperAgent::carryOut(Port& port, const std::vector<QueueStep>& steps) {
    for (const QueueStep& step : steps) {
        if (NetlinkAnswer answer = kernel_.carryOut(step.request); !answer) return answer;
        port.have.take(header(step.request));
    }
    return {};
}

bool ShaperAgent::unchanged(unsigned ifindex, Port& port) {
    PortQueues have;
    if (!readQueues(kernel_, ifindex, records_.config->queueHandle(), have)) return true;
    return std::exchange(port.have, std::move(have)) == port.have;
}

ClassPriorities ShaperAgent::mappedPriorities() const {
    const bool credits = std::ranges::any_of(ports_, [this](const auto& port) {
        const PortQueues& have = port.second.have;
        if (!have.root || foreignRoot(have, records_.config->queueHandle())) return false;
        const auto* queues = std::get_if<PriorityQueues>(&have.root->options);
        return queues != nullptr && !queues->hardware;
    });
    // Token buckets are chosen by the tag itself, and so are the queues of a switch chip.
    if (!credits || !records_.config->ingressPriority()) return {0, 0};
    return classPriorities(tables());
}

void ShaperAgent::applyIngressMap(Port& port, const Device& device, ClassPriorities mapped) {
    if (!port.ingressProblem.empty() || port.trials.leftAlone()) return;
    if (device.inSwitchChip) mapped = {0, 0};
    const bool before = port.have.ingress.has_value();
    const NetlinkAnswer answer = carryOut(port, planIngressMap(device.ifindex, mapped, port.have));
    if (!before && port.have.ingress) records_.places->insert(device.ifindex);
    port.mapped = answer ? std::optional{mapped} : std::nullopt;
    if (!answer && (passing(answer.error) || !unchanged(device.ifindex, port))) {
        port.trials.failed(loop_.now(), concat("cannot set up filters: ", answer.problem()));
        port.unread = true;
    } else if (!answer) {
        port.ingressProblem = answer.problem();
    }
    records_.capabilities->shapingIs(IntfId{port.name})->ingressProblemIs(port.ingressProblem);
    if (!port.ingressProblem.empty())
        complain(
            concat(port.name, ": tags of incoming frames do not choose their queues: ", port.ingressProblem));
}

void ShaperAgent::learnFromFilters() {
    Abilities abilities = records_.capabilities->abilities();
    if (abilities.flower != Ability::unknown) return;
    if (std::ranges::all_of(ports_, [](const auto& port) { return port.second.ingressProblem.empty(); }))
        return;
    abilities.flower = Ability::absent;
    records_.capabilities->abilitiesAre(abilities);
    abilitiesChanged();
}

std::vector<std::string> ShaperAgent::audit(bool repair) {
    std::vector<std::string> lines;
    if (!running_) return lines;
    membersStale_ = true;
    followMembers();
    for (auto& [ifindex, port] : ports_) {
        const Device* device = devices_.find(ifindex);
        if (device == nullptr) continue;
        port.unread = true;
        const std::string problem = read(ifindex, port);
        if (repair) {
            if (port.trials.due()) port.trials.beginAnew(!fits(port.trials.asked(), portRate(*device)));
            port.ingressProblem.clear();
        }
        if (!problem.empty()) {
            lines.push_back(concat(port.name, ": ", problem));
            continue;
        }
        const auto decision = decide(port, *device, true);
        if (!decision) continue;
        const WantedQueues& wanted = decision->queues;
        if (wanted.shaper == Shaper::none && records_.config->shaping() != Shaping::none)
            lines.push_back(concat(port.name, ": shaping not available: ", decision->why));
        std::vector<QueueStep> steps = planQueues(wanted, port.have);
        const ClassPriorities mapped = device->inSwitchChip ? ClassPriorities{0, 0} : mappedPriorities();
        std::ranges::move(planIngressMap(ifindex, mapped, port.have), std::back_inserter(steps));
        for (const QueueStep& step : steps) {
            // Some differences take two steps.
            if (std::string line = concat(port.name, ": ", step.difference);
                lines.empty() || line != lines.back())
                lines.push_back(std::move(line));
        }
    }
    if (repair) carryOut(true);
    return lines;
}

void ShaperAgent::stop() {
    if (!std::exchange(running_, false)) return;
    reactors_.clear();
    for (Runtime::Timer* timer : {&settled_, &again_, &audit_}) timer->cancel();
    for (auto& [ifindex, port] : ports_) {
        refuse(port, {});
        giveBack(ifindex, port);
    }
    for (auto& [ifindex, port] : departed_) giveBack(ifindex, port);
    ports_.clear();
    departed_.clear();
}

void ShaperAgent::giveBack(unsigned ifindex, Port& port) {
    if (!port.adopted) return;
    (void)unchanged(ifindex, port);
    WantedQueues nothing;
    nothing.ifindex = ifindex;
    nothing.major = records_.config->queueHandle();
    std::vector<QueueStep> steps = planQueues(nothing, port.have);
    std::ranges::move(planIngressMap(ifindex, {0, 0}, port.have), std::back_inserter(steps));
    NetlinkAnswer answer = carryOut(port, steps);
    if (answer && records_.places->contains(ifindex) && !hasFilters(kernel_, ifindex)) {
        answer = carryOut(port, planIngressRemoval(port.have));
        records_.places->erase(ifindex);
    }
    if (!answer && answer.error != ENODEV)
        complain(concat(port.name, ": cannot give the queues back: ", answer.problem()));
}

void ShaperAgent::publish(const Port& port, Shaper shaper, const std::string& why) {
    const auto record = records_.capabilities->shapingIs(IntfId{port.name});
    if (record->shaper() == shaper && record->why() == why) return;
    record->shaperIs(shaper);
    record->whyIs(why);
    if (why == nothingReserved) return tell(Tone::informational, concat(port.name, ": shaping available"));
    tell(shaper == Shaper::none ? Tone::warning : Tone::informational,
         concat(port.name, ": ", shapedBy(shaper), why.empty() ? "" : concat(" (", why, ')')));
}

void ShaperAgent::refuse(const Port& port, const std::string& why) {
    const IntfId intf{port.name};
    if (why.empty()) {
        records_.refusals->portDel(intf);
    } else {
        records_.refusals->portIs(intf, why);
    }
}

void ShaperAgent::tell(Tone tone, const std::string& line) const {
    if (report_) report_(tone, line);
}

}  // namespace Linux
