#include "Linux/ShaperAgent.h"

#include "Linux/IngressMap.h"
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

constexpr std::chrono::seconds anotherTry{60};
/// Repairs of a port in that time, after which it is left alone for as long.
constexpr std::size_t repairsMost = 3;
/// Tries of a port in one go: each way of shaping, with fewer queues, and once more where something changed
/// meanwhile.
constexpr int attemptsMost = 8;
constexpr int noticeBytes = 1 << 20;
constexpr std::uint64_t kilobitsInMegabit = 1000;

ClassRates larger(ClassRates x, ClassRates y) { return {std::max(x.a, y.a), std::max(x.b, y.b)}; }

bool fits(ClassRates rates, std::uint64_t portRate) {
    return std::uint64_t{rates.a} + rates.b < portRate &&
           portRate <= std::numeric_limits<std::int32_t>::max();
}

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

}  // namespace

ShaperAgent::ShaperAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& kernel, Records records,
                         std::function<void()> wake, Complaint complaint)
    : loop_{loop},
      devices_{devices},
      kernel_{kernel},
      records_{std::move(records)},
      wake_{std::move(wake)},
      complaint_{std::move(complaint)},
      notices_{loop, [this](const nlmsghdr& message) { notice(message); }, [this] { readEverything(); }},
      settled_{loop,
               [this] {
                   settling_ = false;
                   wake_();
               }},
      again_{loop, [this] {
                 for (auto& [ifindex, port] : ports_) port.leftAlone = false;
                 readEverything();
             }} {
    devices.watch([this](const Device* before, const Device* now) { deviceChanged(before, now); });
}

std::string ShaperAgent::start(Runtime::Duration settling) {
    // Followed before it is read, so that nothing falls between.
    if (std::string problem = notices_.open({RTNLGRP_TC}, noticeBytes); !problem.empty()) return problem;
    const auto changed = [this](const State::Change&) { wake_(); };
    reactors_.push_back(records_.wanted->watch(changed));
    reactors_.push_back(records_.status->react(changed));
    reactors_.push_back(records_.hardware->react(changed));
    running_ = true;
    settling_ = true;
    settled_.armIn(settling);
    wake_();
    return {};
}

void ShaperAgent::deviceChanged(const Device* before, const Device* now) {
    if (before != nullptr && (now == nullptr || now->name != before->name || now->bridge != before->bridge)) {
        // Whatever it becomes, it is another port than it was.
        depart(before->ifindex);
        if (now == nullptr) departed_.erase(before->ifindex);
    }
    if (running_) wake_();
}

void ShaperAgent::depart(unsigned ifindex) {
    auto port = ports_.extract(ifindex);
    if (!port) return;
    records_.capabilities->shapingDel(IntfId{port.mapped().name});
    departed_.insert(std::move(port));
}

void ShaperAgent::notice(const nlmsghdr& message) {
    const auto held = ports_.find(queueDevice(message));
    if (held == ports_.end()) return;
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

void ShaperAgent::refresh() {
    followMembers();
    const bool unread = std::ranges::any_of(ports_, [](const auto& port) { return port.second.unread; });
    if (unread) readPorts();
}

void ShaperAgent::followMembers() {
    const Device* bridge =
        records_.config->bridge().empty() ? nullptr : devices_.find(records_.config->bridge());
    const auto isMember = [&](const Device& device) {
        return bridge != nullptr && device.bridge == bridge->ifindex;
    };
    for (auto at = ports_.begin(); at != ports_.end();) {
        const Device* device = devices_.find(at->first);
        const auto next = std::next(at);
        if (device == nullptr || !isMember(*device)) depart(at->first);
        at = next;
    }
    for (const auto& [ifindex, device] : devices_.all()) {
        if (!isMember(device)) continue;
        const auto [port, fresh] = ports_.try_emplace(ifindex);
        if (!fresh) continue;
        port->second.name = device.name;
        records_.capabilities->shapingIs(IntfId{device.name});
        port->second.otherQueues = static_cast<std::uint16_t>(std::clamp(device.txQueues, 3U, 0xFFFFU) - 2);
        // One that is back before its queues were given back keeps them, if they are right.
        if (const auto before = departed_.extract(ifindex))
            port->second.madeIngress = before.mapped().madeIngress;
    }
    for (auto& [ifindex, port] : departed_) giveBack(ifindex, port);
    departed_.clear();
}

void ShaperAgent::readPorts() {
    std::set<unsigned> wanted;
    for (const auto& [ifindex, port] : ports_) {
        if (port.unread) wanted.insert(ifindex);
    }
    std::map<unsigned, PortQueues> queues;
    std::string problem = readQueues(kernel_, wanted, queues);
    if (!problem.empty()) {
        if (problem != readProblem_) complain(problem);
        again_.armIn(anotherTry);
    } else {
        for (auto& [ifindex, have] : queues) {
            Port& port = ports_.at(ifindex);
            port.have = std::move(have);
            port.unread = false;
            if (!std::exchange(port.adopted, true))
                port.leftOver = shapedRates(port.have, records_.config->queueHandle());
            noticeDrift(port);
        }
    }
    readProblem_ = std::move(problem);
}

void ShaperAgent::noticeDrift(Port& port) {
    if (!port.applied) return;
    const auto steps = planQueues(*port.applied, port.have);
    if (steps.empty() || port.leftAlone) return;
    const Runtime::Time now = loop_.now();
    std::erase_if(port.repairs, [&](Runtime::Time then) { return now - then > anotherTry; });
    port.leftAlone = port.repairs.size() >= repairsMost;
    if (port.leftAlone) {
        again_.armIn(anotherTry);
        complain(concat(port.name, ": ", steps.front().difference,
                        "; somebody changes the queues again and again, they are left alone for a minute"));
        return;
    }
    port.repairs.push_back(now);
    complain(concat(port.name, ": ", steps.front().difference, "; somebody else changed the queues"));
}

void ShaperAgent::raise() { carryOut(false); }

void ShaperAgent::lower() { carryOut(true); }

void ShaperAgent::carryOut(bool lowering) {
    if (!running_) return;
    refresh();
    for (auto& [ifindex, port] : ports_) {
        if (const Device* device = devices_.find(ifindex); device != nullptr && !port.unread)
            applyQueues(port, *device, lowering);
    }
    const ClassPriorities mapped = mappedPriorities();
    for (auto& [ifindex, port] : ports_) {
        if (!port.unread) applyIngressMap(port, ifindex, mapped);
    }
}

ClassRates ShaperAgent::targetRates(const Port& port, std::uint64_t portRate, bool lowering) const {
    const std::shared_ptr<const Qos::Input::IntfConfig> asked =
        records_.wanted->intfConfig(IntfId{port.name});
    const ClassRates reserved = wantedRates(asked.get(), tables());
    ClassRates target = reserved;
    if (settling_) target = larger(target, port.leftOver);
    if (!lowering) target = larger(target, shapedRates(port.have, records_.config->queueHandle()));
    // What is reserved is known to fit together, what was and what will be need not.
    return fits(target, portRate) ? target : reserved;
}

std::optional<WantedQueues> ShaperAgent::decide(const Port& port, const Device& device, bool lowering,
                                                std::string& why) const {
    const Config& config = *records_.config;
    WantedQueues wanted;
    wanted.ifindex = device.ifindex;
    wanted.major = config.queueHandle();
    wanted.otherQueues = port.otherQueues;
    wanted.priorities = classPriorities(tables());
    const bool foreign = foreignRoot(port.have, wanted.major);
    // Without a link nothing is sent, and its next speed is not known.
    if (!device.operational && !foreign) return std::nullopt;
    wanted.portRate = device.mode.megabitsPerSecond * kilobitsInMegabit;
    wanted.rates = targetRates(port, wanted.portRate, lowering);
    if (foreign) {
        why = concat("somebody else has set up the queues (", port.have.root->kind, ')');
    } else if (wanted.portRate == 0) {
        why = "the link's speed is not known";
    } else if (device.mode.halfDuplex) {
        why = "the link is half duplex";
    } else if (!fits(wanted.rates, wanted.portRate)) {
        why = concat("the reserved ", wanted.rates.a, " and ", wanted.rates.b, " kbit/s do not fit into ",
                     wanted.portRate, " kbit/s");
    } else {
        ShaperChoice choice = chooseShaper(config.shaping(), records_.capabilities->abilities(),
                                           device.txQueues, port.refusals);
        wanted.shaper = choice.shaper;
        why = std::move(choice.why);
    }
    return wanted;
}

void ShaperAgent::applyQueues(Port& port, const Device& device, bool lowering) {
    for (int attempt = 0; attempt < attemptsMost; ++attempt) {
        std::string why;
        const auto wanted = decide(port, device, lowering, why);
        if (!wanted || (port.leftAlone && port.applied == wanted)) return;
        const auto steps = planQueues(*wanted, port.have);
        const NetlinkAnswer answer = carryOut(port, steps);
        if (answer) {
            port.applied = wanted;
            if (port.have.root || wanted->rates != ClassRates{}) publish(port, wanted->shaper, why);
            return;
        }
        if (!unchanged(device.ifindex, port)) continue;
        if (passing(answer.error) || wanted->shaper == Shaper::none) {
            if (answer.error != ENODEV)
                publish(port, Shaper::none, concat("cannot set up the queues: ", answer.problem()));
            port.unread = true;
            again_.armIn(anotherTry);
            return;
        }
        const bool credits = wanted->shaper != Shaper::htb;
        if (credits && !port.have.root && port.otherQueues > 1) {
            // It may have been made with more transmit queues than it uses.
            port.otherQueues = 1;
        } else {
            port.refusals.at(static_cast<std::size_t>(wanted->shaper)) = answer.problem();
        }
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
    std::map<unsigned, PortQueues> queues;
    if (!readQueues(kernel_, {ifindex}, queues).empty()) return true;
    return std::exchange(port.have, std::move(queues[ifindex])) == port.have;
}

ClassPriorities ShaperAgent::mappedPriorities() const {
    const bool credits = std::ranges::any_of(ports_, [this](const auto& port) {
        const PortQueues& have = port.second.have;
        return have.root && have.root->kind == "mqprio" && !foreignRoot(have, records_.config->queueHandle());
    });
    // Token buckets are chosen by the tag itself.
    if (!credits || !records_.config->ingressPriority()) return {0, 0};
    return classPriorities(tables());
}

void ShaperAgent::applyIngressMap(Port& port, unsigned ifindex, ClassPriorities mapped) {
    const auto steps = planIngressMap(ifindex, mapped, port.have);
    if (steps.empty() || !port.ingressProblem.empty()) return;
    const Abilities& abilities = records_.capabilities->abilities();
    const bool before = port.have.ingress.has_value();
    if (abilities.clsact == Ability::absent || abilities.flower == Ability::absent) {
        port.ingressProblem = "the kernel has no flower filters";
    } else if (const NetlinkAnswer answer = carryOut(port, steps); !answer) {
        port.ingressProblem = answer.problem();
    }
    if (!before && port.have.ingress) port.madeIngress = true;
    records_.capabilities->shapingIs(IntfId{port.name})->ingressProblemIs(port.ingressProblem);
    if (!port.ingressProblem.empty())
        complain(
            concat(port.name, ": tags of incoming frames do not choose their queues: ", port.ingressProblem));
}

std::vector<std::string> ShaperAgent::audit(bool repair) {
    std::vector<std::string> lines;
    if (!running_) return lines;
    for (auto& [ifindex, port] : ports_) port.unread = true;
    refresh();
    if (!readProblem_.empty()) lines.push_back(readProblem_);
    const ClassPriorities mapped = mappedPriorities();
    for (auto& [ifindex, port] : ports_) {
        const Device* device = devices_.find(ifindex);
        std::string why;
        const auto wanted =
            device != nullptr && !port.unread ? decide(port, *device, true, why) : std::nullopt;
        if (!wanted) continue;
        if (wanted->shaper == Shaper::none && wanted->rates != ClassRates{})
            lines.push_back(concat(port.name, ": shaping not available: ", why));
        std::vector<QueueStep> steps = planQueues(*wanted, port.have);
        std::ranges::move(planIngressMap(ifindex, mapped, port.have), std::back_inserter(steps));
        for (const QueueStep& step : steps) {
            // Some differences take two steps.
            if (std::string line = concat(port.name, ": ", step.difference);
                lines.empty() || line != lines.back())
                lines.push_back(std::move(line));
        }
        port.leftAlone = port.leftAlone && !repair;
        if (repair) port.ingressProblem.clear();
    }
    if (repair) carryOut(true);
    return lines;
}

void ShaperAgent::stop() {
    if (!std::exchange(running_, false)) return;
    reactors_.clear();
    settled_.cancel();
    again_.cancel();
    for (auto& [ifindex, port] : ports_) giveBack(ifindex, port);
    ports_.clear();
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
    if (answer && port.madeIngress) answer = carryOut(port, planIngressRemoval(port.have));
    if (!answer && answer.error != ENODEV)
        complain(concat(port.name, ": cannot give the queues back: ", answer.problem()));
}

void ShaperAgent::publish(const Port& port, Shaper shaper, const std::string& why) {
    const auto record = records_.capabilities->shapingIs(IntfId{port.name});
    if (record->shaper() == shaper && record->why() == why) return;
    record->shaperIs(shaper);
    record->whyIs(why);
    complain(concat(port.name, ": ", shapedBy(shaper), why.empty() ? "" : " (", why, why.empty() ? "" : ")"));
}

void ShaperAgent::complain(const std::string& line) const {
    if (complaint_) complaint_(line);
}

}  // namespace Linux
