#include "Linux/fence/FenceAgent.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <cerrno>
#include <linux/rtnetlink.h>
#include <utility>

namespace Linux {

namespace {

using Runtime::concat;

/// Ports that the timed audit reads in one turn of the loop.
constexpr int fencesPerTurn = 16;
/// Streams and groups that are entered into the table of one or the other in one turn.
constexpr std::size_t tableChangesPerTurn = 512;
constexpr std::size_t meterChangesPerTurn = 256;
/// That are kept though no port has them now.
constexpr std::size_t programsKept = 16;
constexpr int fenceNoticeBytes = 1 << 20;

const std::string chipForwards = "a switch chip forwards its frames, which do not come by the filter";

std::uint8_t bitOf(Cos priority) { return static_cast<std::uint8_t>(1U << priority.value()); }

/// The priorities with a true entry.
std::uint8_t maskOf(const State::FlatMap<Cos, bool>& priorities) {
    unsigned mask = 0;
    for (const auto& [priority, set] : priorities) mask |= set ? bitOf(priority) : 0U;
    return static_cast<std::uint8_t>(mask);
}

}  // namespace

FenceAgent::FenceAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& kernel, Records records,
                       std::function<void()> wake, Report report, std::uint32_t tableRoom, Served served)
    : loop_{loop},
      devices_{devices},
      kernel_{kernel},
      records_{std::move(records)},
      wake_{std::move(wake)},
      report_{std::move(report)},
      served_{std::move(served)},
      notices_{loop, [this](const nlmsghdr& message) { notice(message); }, [this] { readEverything(); }},
      table_{tableRoom},
      talkers_{records_.groups,
               [this](const auto& stream, IntfId port, bool there) { streamMoved(stream, port, there); }},
      groups_{loop,
              kernel,
              [](unsigned, const GroupEntry&) { return GroupOwner::another; },
              [this](const GroupMember& member, auto, auto) { groupChanged(member); },
              [] {},
              [this] {
                  groupsUnread_ = true;
                  stir();
              }},
      meter_{loop, records_.streams, records_.traffic, [this] { stir(); },
             [this](Tone tone, const std::string& line) { tell(tone, line); }},
      settled_{loop, [this] { settle(); }},
      again_{loop, [this] { stir(); }},
      audit_{loop, [this] { auditSome(); }} {
    devices.watch([this](const Device* before, const Device* now) { deviceChanged(before, now); });
}

std::string FenceAgent::start(Runtime::Duration settling, Runtime::Duration audit) {
    // Followed before it is read, so that nothing falls between.
    if (std::string problem = notices_.open({RTNLGRP_TC}, fenceNoticeBytes); !problem.empty()) return problem;
    if (usesTable()) {
        if (std::string problem = groups_.start(); !problem.empty()) return problem;
    }
    reactors_.push_back(records_.domain->watch([this](const State::Change&) { stir(); }));
    reactors_.push_back(records_.vlans->react([this](const State::Change&) { stir(); }));
    if (records_.config->fence() == Fencing::streams) talkers_.start();
    tryMeter();
    running_ = true;
    settled_.armIn(settling);
    auditInterval_ = audit;
    audit_.armIn(audit);
    takeBackStrays();
    // At once: frames come in already.
    followMembers();
    fillTable(FenceTable::defaultRoom);
    stirred_ = true;
    apply();
    return {};
}

void FenceAgent::deviceChanged(const Device* before, const Device* now) {
    if (before == nullptr && now == nullptr) return;
    const unsigned ifindex = now != nullptr ? now->ifindex : before->ifindex;
    if (now == nullptr) {
        records_.places->erase(ifindex);
        if (const auto port = ports_.extract(ifindex)) portMoved(ifindex, IntfId{port.mapped().name}, false);
    }
    const std::string& bridge = records_.config->bridge();
    const bool concerns = ports_.contains(ifindex) || (now != nullptr && now->bridge != 0) ||
                          (before != nullptr && before->name == bridge) ||
                          (now != nullptr && now->name == bridge);
    if (!concerns) return;
    membersStale_ = true;
    const auto port = ports_.find(ifindex);
    // Whoever was behind a link that went may be another when it returns.
    if (port != ports_.end() && !now->operational) port->second.leftOpen = 0;
    if (running_) stir();
}

void FenceAgent::notice(const nlmsghdr& message) {
    const auto held = ports_.find(queueDevice(message));
    if (held == ports_.end() || held->second.unread) return;
    FencePlace after = held->second.have;
    after.take(message);
    if (after == held->second.have) return;
    // It may be news that was overtaken by what we asked for since: the kernel is asked how things are.
    held->second.unread = true;
    stir();
}

void FenceAgent::stir() {
    stirred_ = true;
    wake_();
}

void FenceAgent::readEverything() {
    for (auto& [ifindex, port] : ports_) port.unread = true;
    stir();
}

void FenceAgent::bridgeIs(const Device* bridge) {
    const unsigned now = bridge != nullptr ? bridge->ifindex : 0;
    if (now == bridge_) return;
    bridge_ = now;
    for (const HeldGroup& held : groups_.table().all())
        table_.want({.address = held.member.group.mac.octets()}, false);
    groups_.bridgeIs(now);
    groupsUnread_ = now != 0 && usesTable();
}

void FenceAgent::portMoved(unsigned ifindex, IntfId name, bool there) {
    if (there) {
        indexes_[name] = ifindex;
    } else {
        records_.status->portDel(name);
    }
    meter_.portIs(name, there ? ifindex : 0);
    for (const StreamAddress& stream : talkers_.behind(name)) streamMoved(stream, name, there);
    if (!there) indexes_.erase(name);
}

void FenceAgent::streamMoved(const StreamAddress& stream, IntfId port, bool there) {
    const auto index = indexes_.find(port);
    if (index == indexes_.end()) return;
    table_.want({stream.mac.octets(), stream.vlan.value(), index->second}, there);
    stir();
}

void FenceAgent::groupChanged(const GroupMember& member) {
    const EthAddr mac = member.group.mac;
    if (!isStreamAddress(mac)) return;
    table_.want({.address = mac.octets()}, !groups_.table().of(mac).empty());
    stir();
}

void FenceAgent::fillTable(std::size_t changes) {
    if (!usesTable()) return;
    if (std::exchange(groupsUnread_, false) && !groups_.read()) {
        groupsUnread_ = true;
        tableDue_ = loop_.now() + firstRetry;
    }
    if (tableDue_ && loop_.now() >= *tableDue_) {
        tableDue_.reset();
        // Programs that look into the old one are of no use any more.
        if (table_.retry()) programs_.clear();
    }
    if (!table_.carryOut(changes)) stir();
    if (!table_.problem().empty() && !tableDue_) {
        tableDue_ = loop_.now() + tablePatience_;
        tablePatience_ = std::min(2 * tablePatience_, lastRetry);
    } else if (table_.filled()) {
        tablePatience_ = firstRetry;
    }
    if (records_.status->problem() == table_.problem()) return;
    records_.status->problemIs(table_.problem());
    if (records_.capabilities->abilities().ebpf == Ability::absent) return;
    tell(table_.problem().empty() ? Tone::informational : Tone::warning,
         table_.problem().empty() ? std::string{"the fence tells streams apart again"}
                                  : concat("the fence does not tell streams apart: ", table_.problem()));
}

bool FenceAgent::guards() const {
    // Without snooping the bridge takes no groups, and streams reach their listeners by going everywhere.
    const Device* bridge = devices_.find(bridge_);
    return bridge != nullptr && bridge->bridgeSettings && bridge->bridgeSettings->multicastSnooping &&
           groups_.known() && table_.filled();
}

void FenceAgent::auditSome() {
    auto port = ports_.lower_bound(auditNext_);
    for (int i = 0; i < fencesPerTurn && port != ports_.end(); ++i, ++port) port->second.unread = true;
    const bool done = port == ports_.end();
    auditNext_ = done ? 0 : port->first;
    audit_.armIn(done ? auditInterval_ : Runtime::Duration{0});
    if (done && bridge_ != 0) groupsUnread_ = usesTable();
    if (done) tryMeter();
    stir();
}

void FenceAgent::settle() {
    settled_.cancel();
    for (auto& [ifindex, port] : ports_) port.leftOpen = 0;
    stir();
}

void FenceAgent::tryMeter() {
    if (records_.config->streams() != Metering::none && meter_.descriptor() < 0) meter_.start();
}

void FenceAgent::abilitiesChanged() {
    if (std::exchange(meterRefused_, false)) meter_.refused({});
    tryMeter();
    for (auto& [ifindex, port] : ports_) {
        port.due.reset();
        port.patience = firstRetry;
    }
    stir();
}

void FenceAgent::takeBackStrays() {
    for (const auto& [ifindex, device] : devices_.all()) {
        const Device* bridge = devices_.find(device.bridge);
        if (bridge != nullptr &&
            (bridge->name == records_.config->bridge() || (served_ && served_(bridge->name))))
            continue;
        Port port;
        if (!readFence(kernel_, ifindex, port.have) || !fenceOf(port.have)) continue;
        if (bridge != nullptr) {
            // Another daemon may be about to start.
            tell(Tone::warning, concat(device.name,
                                       ": the fence of a daemon that does not run is there; 'msrpctl "
                                       "clean' takes it away"));
            continue;
        }
        port.name = device.name;
        port.adopted = true;
        records_.places->insert(ifindex);
        tell(Tone::informational,
             concat(device.name, ": takes back the fence that an earlier life of the daemon has left there"));
        giveBack(ifindex, port);
    }
}

void FenceAgent::followMembers() {
    if (!std::exchange(membersStale_, false)) return;
    const std::string& name = records_.config->bridge();
    const Device* bridge = name.empty() ? nullptr : devices_.find(name);
    bridgeIs(bridge);
    const std::set<unsigned> none;
    const std::set<unsigned>& members = bridge_ != 0 ? devices_.portsOf(bridge_) : none;
    for (auto at = ports_.begin(); at != ports_.end();) {
        if (members.contains(at->first)) {
            ++at;
            continue;
        }
        portMoved(at->first, IntfId{at->second.name}, false);
        giveBack(at->first, at->second);
        at = ports_.erase(at);
    }
    // All that go by another name first: two may have swapped theirs.
    std::vector<unsigned> renamed;
    for (const unsigned ifindex : members) {
        Port& port = ports_[ifindex];
        if (port.name == devices_.find(ifindex)->name) continue;
        if (!port.name.empty()) portMoved(ifindex, IntfId{port.name}, false);
        renamed.push_back(ifindex);
    }
    for (const unsigned ifindex : renamed) {
        ports_[ifindex].name = devices_.find(ifindex)->name;
        portMoved(ifindex, IntfId{ports_[ifindex].name}, true);
    }
}

bool FenceAgent::read(unsigned ifindex, Port& port) {
    const NetlinkAnswer answer = readFence(kernel_, ifindex, port.have);
    if (!answer) {
        failed(port, concat("cannot read the filters of incoming frames: ", answer.problem()));
        return false;
    }
    port.unread = false;
    if (!port.have.ingress) records_.places->erase(ifindex);
    if (std::exchange(port.adopted, true)) return noticeDrift(ifindex, port);
    if (const auto left = fenceOf(port.have)) {
        records_.places->insert(ifindex);
        port.inherited = true;
        if (settled_.armed()) port.leftOpen = static_cast<std::uint8_t>(~left->closed);
    }
    return true;
}

bool FenceAgent::noticeDrift(unsigned ifindex, Port& port) {
    if (!port.made) return true;
    const auto steps = planFence(ifindex, port.made, port.have);
    if (steps.empty()) return true;
    port.made.reset();
    (void)port.changed.changed(loop_.now());
    if (port.changed.leftAlone(loop_.now())) {
        failed(port, "somebody else takes its filter away again and again, it is left alone for a while",
               Contention::span);
        return false;
    }
    tell(Tone::warning,
         concat(port.name, ": ", steps.back().difference, "; somebody else changed the filters"));
    return true;
}

std::optional<FenceRules> FenceAgent::rulesFor(Port& port) const {
    FenceRules rules;
    rules.mvrp = records_.vlans->running();
    if (meter_.descriptor() >= 0 && !meterRefused_) rules.metering = records_.config->streams();
    if (records_.config->fence() == Fencing::none)
        return rules != FenceRules{} ? std::optional{rules} : std::nullopt;
    const auto told = records_.domain->port(IntfId{port.name});
    const std::uint8_t core = told ? maskOf(told->core()) : std::uint8_t{0};
    // Once it has been a core port in this life, only the record counts.
    port.leftOpen &= static_cast<std::uint8_t>(~core);
    const unsigned open = unsigned{core} | port.leftOpen;
    const std::uint8_t priorities = maskOf(records_.domain->classPriority());
    rules.closed = static_cast<std::uint8_t>(priorities & ~open);
    rules.guarded = guards();
    // Streams that were there before a restart are registered again soon.
    const bool known = table_.filled() && !(port.inherited && settled_.armed());
    if (records_.config->fence() == Fencing::streams && known)
        rules.streams = static_cast<std::uint8_t>(priorities & core);
    return rules;
}

std::string FenceAgent::filterFor(unsigned ifindex, const FenceRules& rules, std::optional<Filter>& filter) {
    auto program = programs_.find(rules);
    if (program == programs_.end()) {
        LoadedProgram loaded;
        if (std::string problem =
                loadProgram(fenceProgram(rules, {table_.descriptor(), meter_.descriptor()}), loaded);
            !problem.empty()) {
            if (rules.metering == Metering::none) return problem;
            // The fence matters more.
            meterRefused_ = true;
            meter_.refused(problem);
            FenceRules plain = rules;
            plain.metering = Metering::none;
            return filterFor(ifindex, plain, filter);
        }
        program = programs_.emplace(rules, std::move(loaded)).first;
    }
    filter = fenceFilter(ifindex, {rules.name(), program->second.id, program->second.descriptor.get()});
    return {};
}

NetlinkAnswer FenceAgent::carryOut(unsigned ifindex, Port& port, const std::optional<Filter>& wanted) {
    const bool placed = port.have.ingress.has_value();
    for (const QueueStep& step : planFence(ifindex, wanted, port.have)) {
        if (NetlinkAnswer answer = kernel_.carryOut(step.request); !answer) return answer;
    }
    NetlinkAnswer answer = readFence(kernel_, ifindex, port.have);
    if (!placed && port.have.ingress) records_.places->insert(ifindex);
    return answer;
}

void FenceAgent::apply() {
    if (!running_ || !std::exchange(stirred_, false)) return;
    followMembers();
    fillTable(tableChangesPerTurn);
    if (!meter_.carryOut(meterChangesPerTurn)) stir();
    for (auto& [ifindex, port] : ports_) apply(ifindex, port);
    // A peer that comes and goes shall not cost a program each time.  Those that hang on ports live on
    // without us.
    const auto unused = [this](const auto& program) {
        return std::ranges::none_of(ports_, [&](const auto& port) {
            const auto& made = port.second.made;
            return made && std::get<FrameProgram>(made->options).id == program.second.id;
        });
    };
    if (programs_.size() > programsKept) std::erase_if(programs_, unused);
    armRetry();
}

void FenceAgent::apply(unsigned ifindex, Port& port) {
    if (port.due && loop_.now() < *port.due) return;
    if (port.unread && !read(ifindex, port)) return;
    const auto rules = rulesFor(port);
    std::optional<Filter> wanted;
    if (rules) {
        if (const std::string problem = filterFor(ifindex, *rules, wanted); !problem.empty())
            return failed(port, problem);
    }
    if (!planFence(ifindex, wanted, port.have).empty()) {
        const NetlinkAnswer answer = carryOut(ifindex, port, wanted);
        port.unread = !answer;
        // The news of its end is on its way.
        if (answer.error == ENODEV) return;
        if (!answer) return failed(port, concat("cannot set up the filter: ", answer.problem()));
        if (!planFence(ifindex, wanted, port.have).empty())
            return failed(port, "the filter is not there though it was made");
    }
    port.made = wanted;
    port.due.reset();
    port.patience = firstRetry;
    if (rules) {
        const bool inChip = devices_.find(ifindex)->inSwitchChip;
        publish(port, rules->closed, inChip ? chipForwards : std::string{});
    } else {
        records_.status->portDel(IntfId{port.name});
    }
}

void FenceAgent::failed(Port& port, const std::string& why) {
    failed(port, why, port.patience);
    port.patience = std::min(2 * port.patience, lastRetry);
}

void FenceAgent::failed(Port& port, const std::string& why, Runtime::Duration wait) {
    port.unread = true;
    port.due = loop_.now() + wait;
    const auto rules = fenceOf(port.have);
    publish(port, rules ? rules->closed : std::uint8_t{0}, why);
}

void FenceAgent::publish(Port& port, std::uint8_t closed, const std::string& problem) {
    const auto record = records_.status->portIs(IntfId{port.name});
    for (std::uint8_t value = 0; value < Cos::max; ++value) {
        const Cos priority{value};
        if ((closed & bitOf(priority)) != 0) {
            record->closedIs(priority);
        } else {
            record->closedDel(priority);
        }
    }
    record->problemIs(problem);
    if (problem == port.problem) return;
    port.problem = problem;
    // That the kernel cannot do it at all is said for all ports at once.
    if (records_.capabilities->abilities().ebpf == Ability::absent) return;
    const bool fenced = usesTable();
    if (problem.empty()) {
        tell(Tone::informational,
             concat(port.name, fenced ? ": frames from outside the classes' domain are kept out again"
                                      : ": frames of MVRP end here again"));
    } else {
        tell(Tone::warning, concat(port.name,
                                   fenced ? ": frames from outside the classes' domain may use their queues: "
                                          : ": frames of MVRP may go on to other ports: ",
                                   problem));
    }
}

void FenceAgent::armRetry() {
    std::optional<Runtime::Time> next = tableDue_;
    for (const auto& [ifindex, port] : ports_) {
        if (port.due) next = next ? std::min(*next, *port.due) : *port.due;
    }
    if (next) {
        again_.armAt(*next);
    } else {
        again_.cancel();
    }
}

std::vector<std::string> FenceAgent::audit(bool repair) {
    std::vector<std::string> lines;
    if (!running_) return lines;
    membersStale_ = true;
    followMembers();
    for (auto& [ifindex, port] : ports_) {
        port.unread = true;
        if (repair) port.due.reset();
        if (!read(ifindex, port)) {
            lines.push_back(concat(port.name, ": ", port.problem));
            continue;
        }
        const auto rules = rulesFor(port);
        std::optional<Filter> wanted;
        const std::string problem = rules ? filterFor(ifindex, *rules, wanted) : std::string{};
        if (!problem.empty()) lines.push_back(concat(port.name, ": ", problem));
        if (!problem.empty()) continue;
        for (const QueueStep& step : planFence(ifindex, wanted, port.have))
            lines.push_back(concat(port.name, ": ", step.difference));
    }
    if (repair) {
        stirred_ = true;
        apply();
    }
    return lines;
}

void FenceAgent::stop() {
    if (!std::exchange(running_, false)) return;
    reactors_.clear();
    for (Runtime::Timer* timer : {&settled_, &again_, &audit_}) timer->cancel();
    for (auto& [ifindex, port] : ports_) {
        records_.status->portDel(IntfId{port.name});
        giveBack(ifindex, port);
    }
    ports_.clear();
    indexes_.clear();
    programs_.clear();
    meter_.stop();
    records_.status->problemIs({});
}

void FenceAgent::giveBack(unsigned ifindex, Port& port) {
    if (!port.adopted) return;
    NetlinkAnswer answer = readFence(kernel_, ifindex, port.have);
    if (answer) answer = carryOut(ifindex, port, std::nullopt);
    if (answer && port.have.ingress && records_.places->contains(ifindex) && !hasFilters(kernel_, ifindex)) {
        answer = kernel_.carryOut(deleteQdisc(*port.have.ingress));
        records_.places->erase(ifindex);
    }
    if (!answer && answer.error != ENODEV)
        tell(Tone::warning,
             concat(port.name, ": cannot take the filter of incoming frames away: ", answer.problem()));
}

void FenceAgent::tell(Tone tone, const std::string& line) const {
    if (report_) report_(tone, line);
}

}  // namespace Linux
