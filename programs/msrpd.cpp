/// The daemon: the switch's records, the agents that keep them, and the ways in.
///
/// Exit codes: 0 stopped by a signal, 1 cannot run here (privileges, socket in use, another daemon for the
/// same bridge or port), 2 wrong usage or configuration.
#include "Control/FrameSource.h"
#include "Control/Server.h"
#include "History/Recorder.h"
#include "Linux/Dataplane.h"
#include "Linux/doctor/Capabilities.h"
#include "Linux/kernel/Claims.h"
#include "Linux/kernel/EpollLoop.h"
#include "Linux/kernel/ServiceManager.h"
#include "Linux/kernel/Signals.h"
#include "Linux/links/LinkAgent.h"
#include "Linux/ports/PacketPorts.h"
#include "Linux/ports/PacketRecords.h"
#include "Linux/time/TimeAgent.h"
#include "Msrp/Database.h"
#include "Msrp/MsrpAgent.h"
#include "Msrp/lifecycle/StreamCensus.h"
#include "Mvrp/MvrpAgent.h"
#include "Runtime/ProcessStatus.h"
#include "Runtime/RecentLog.h"
#include "Runtime/Text.h"
#include "Store/Status.h"
#include "Store/Supervisor.h"
#include "Switch/Refusals.h"
#include "Switch/TopologyAgent.h"
#include "programs/ClearCounters.h"
#include "programs/CommandLine.h"
#include "programs/ConfigChanges.h"
#include "programs/Configuration.h"
#include "programs/DaemonLog.h"
#include "programs/EveryPort.h"
#include "programs/HistoryCommand.h"
#include "programs/PortClaims.h"
#include "programs/PortsOfInterest.h"
#include "programs/StoreOptions.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/// Of its changes, those that are written to the log and the history.
constexpr std::size_t linesOfReload = 50;

/// "1 port", "2 ports"
std::string some(std::size_t count, const char* what) {
    return Runtime::concat(count, what, count == 1 ? "" : "s");
}

struct Options {
    std::vector<std::string> config;
    std::optional<std::vector<std::string>> check;
    std::string socket{Control::defaultSocket};
    bool useSyslog = false;
    std::uint64_t trace = 0;  ///< a Runtime::TraceLevel
    std::string state{stateDirectory()};
    std::uint64_t historySize = History::Journal::defaultOctets >> 20;  ///< MiB
};

class Daemon {
public:
    explicit Daemon(const Options& options) : options_{options} {
        Msrp::populate(database_);
        Mvrp::populate(database_);
        History::populate(database_);
        log_.listen(systemLog_);
        trace_.sinkIs(static_cast<Runtime::TraceLevel>(options.trace),
                      [this](std::string_view line) { log_.trace(line); });
        access_.writtenIs([this](const Control::RecordAccess::Written& written) {
            tellDone(written.text());
            if (history_) history_->configured(written.path, written.before, written.after, written.who);
        });
        process_->versionIs(programVersion());
        process_->startTimeIs(loop_.wallNow());
        process_->delaysAre(loop_.delays());
        access_.guardIs([this](std::string_view path, const State::Value& patch) {
            const std::string problem = everyPortProblem(path, patch, onBridge());
            return problem.empty() ? portClaims_.take(path, patch, Patience::none) : problem;
        });
        access_.followerIs([this](std::string_view path, const State::Value& patch) {
            configuration_.written(path, patch);
        });
    }

    void run() {
        demand(configuration_.load(access_), usage);
        if (storeConfig_->used()) {
            makeSupervisor();
        } else {
            redundancy_->roleIs(Store::Role::active);
            redundancy_->nameIs(supervisorName(*redundancyConfig_));
        }
        demand(start());
        history_.emplace(loop_, database_,
                         History::Recorder::Options{.octets = options_.historySize << 20,
                                                    .directory = options_.state,
                                                    .outcomes = dataplane_ ? outcomes_ : nullptr});
        if (!history_->problem().empty()) tell(Level::warning, history_->problem());
        history_->started(programVersion());
        configuration_.eachSpeed(
            [this](IntfId intf, Interface::Speed speed) { links_.configuredSpeedIs(intf, speed); });
        const PortsOfInterest interest{config_, mvrp_, bridging_, [this](IntfId intf) { follow(intf); },
                                       [this](IntfId intf) { forget(intf); }};
        const State::Reactor addresses = status_->watch([this](const State::Change&) { chooseBridgeMac(); });
        const State::Reactor enabled = config_->react([this](const State::Change&) { chooseBridgeMac(); });
        chooseBridgeMac();
        if (std::ranges::none_of(config_->choice().said(), [](const auto& port) { return port.second; }))
            tell(Level::warning, "msrp/config/intfEnable enables MSRP on no port");
        // On a bridge the data plane tells which ports forward; elsewhere, without a spanning tree, all do.
        const Bridging::TopologyAgent topology{bridging_, stp_, onBridge().empty() ? status_ : nullptr,
                                               topology_};

        const Msrp::StreamCensus census{loop_, record<Msrp::Status>("msrp/status"),
                                        record<Msrp::Census>("msrp/census")};
        Msrp::Agent agent{agentEnvironment(), ports_};
        const auto cli = record<Msrp::CliConfig>("msrp/cliConfig");
        const State::Reactor streamVlans = cli->react([this](const State::Change&) {
            if (vlans_) vlans_->streamVlansChanged();
        });
        ringLog_.clocksAre(loop_.now(), loop_.wallNow());
        agent.start();
        if (!redundant()) startVlans();
        if (supervisor_) demand(supervisor_->start());
        const State::Reactor counts = reservations_->react([this](const State::Change&) {
            if (!tellCounts_.armed()) tellCounts_.armIn(std::chrono::seconds{1});
        });
        tellCounts();
        manager_.ready();
        loop_.run();
        manager_.stopping();
        // What another goes on with is not taken down.
        const bool takesDown = !handedOver();
        // Peers that hear a Leave need not wait for their own timers.
        if (takesDown) agent.withdraw();
        agent.stop();
        if (takesDown && vlans_) vlans_->stop();
        if (takesDown && dataplane_) dataplane_->stop();
        supervisor_.reset();
        history_->stopped("by a signal");
        // The loop turns once more, so that log and captures get the Leaves that were just sent.
        loop_.runUntil([turned = false]() mutable { return std::exchange(turned, true); }, {});
        log_.finish();
    }

private:
    using Patience = Linux::Claims::Patience;
    using Level = Runtime::LogLevel;
    using Topic = Runtime::LogTopic;

    Runtime::AgentEnvironment agentEnvironment() {
        return {.database = database_,
                .loop = loop_,
                .systemLog = systemLog_,
                .trace = trace_,
                .ringLog = ringLog_,
                .ringLogFile = true,
                .seed = std::random_device{}()};
    }

    template <class R>
    std::shared_ptr<R> record(std::string_view path) {
        return database_.entityIs<R>(path);
    }

    /// All that can keep the daemon from running here.  Empty on success, else why.
    std::string start() {
        std::string problem = Linux::packetSocketProblem();
        if (problem.empty() && !onBridge().empty()) problem = Linux::netAdminProblem();
        // Supervisors of one switch may stand over the same ports; which of them acts, the store decides.
        const std::string as = redundant() ? " as " + supervisorName(*redundancyConfig_) : "";
        if (redundant()) portClaims_.sharedAs(supervisorName(*redundancyConfig_));
        if (problem.empty() && !onBridge().empty())
            problem = claims_.take(bridgeClaim() + as, Patience::some);
        if (problem.empty()) problem = portClaims_.take("msrp/config", config_->value(), Patience::some);
        if (problem.empty()) problem = portClaims_.take("mvrp/config", mvrp_->value(), Patience::some);
        if (problem.empty()) problem = server_.start(options_.socket);
        for (const std::string& notice : server_.notices()) tell(Level::warning, notice);
        if (problem.empty()) problem = devices_.start();
        if (const std::string& clock = linux_->gptp().socket; problem.empty() && !clock.empty()) {
            problem = time_.start(clock);
            if (!problem.empty()) problem = "linux/config/gptp: " + problem;
        }
        // Last, for it changes what others see.
        if (problem.empty() && !onBridge().empty() && !redundant()) problem = startDataplane();
        if (problem.empty() && !onBridge().empty()) {
            everyPort_.emplace(loop_, devices_, onBridge(), config_, mvrp_, portClaims_,
                               [this](const std::string& line) { warn(line); });
        }
        return problem;
    }

    void tellCounts() {
        manager_.statusIs(some(reservations_->intfStatus().size(), " port") + ", " +
                          some(reservations_->registeredStreams().size(), " stream"));
    }

    void signalled(int signal) {
        if (signal != SIGHUP) return loop_.stop();
        manager_.reloading();
        // Somebody has moved the files away, or started the log anew.
        log_.reopen();
        ringLog_.clocksAre(loop_.now(), loop_.wallNow());
        if (const std::string problem = ringLog_.reopen(); !problem.empty()) tell(Level::warning, problem);
        if (const std::string problem = reload("SIGHUP").problem; !problem.empty())
            tell(Level::error, "not reloaded: " + problem);
        manager_.ready();
    }

    Configuration::Reloaded reload(const std::string& who) {
        std::map<IntfId, Interface::Speed> speeds;
        configuration_.eachSpeed([&](IntfId intf, Interface::Speed speed) { speeds[intf] = speed; });
        Configuration::Reloaded done =
            configuration_.reload([this](const ConfigRecords& wanted) { return claim(wanted); });
        if (!done.problem.empty()) return done;
        chooseBridgeMac();
        std::map<IntfId, Interface::Speed> changed = speeds;
        for (auto& [intf, speed] : changed) speed = Interface::Speed::speedUnknown;
        configuration_.eachSpeed([&](IntfId intf, Interface::Speed speed) { changed[intf] = speed; });
        for (const auto& [intf, speed] : changed) {
            const auto before = speeds.find(intf);
            if (before == speeds.end() || before->second != speed) links_.configuredSpeedIs(intf, speed);
        }
        reloaded(done.changes, who);
        return done;
    }

    void reloaded(const std::vector<State::Difference>& changes, const std::string& who) {
        tellDone(
            Runtime::concat("configuration reloaded: ", some(changes.size(), " field"), " changed: ", who));
        for (std::size_t i = 0; i < std::min(changes.size(), linesOfReload); ++i) {
            const State::Difference& change = changes[i];
            tellDone("configuration: " + changeText(change));
            if (history_) history_->configured(change.path(), change.was, change.is, who);
        }
    }

    /// All ports of that configuration, or none that is not claimed already.
    std::string claim(const ConfigRecords& wanted) {
        for (const char* path : {"msrp/config", "mvrp/config"}) {
            std::string problem =
                portClaims_.take(path, wanted.all().find(path)->second->value(), Patience::none);
            if (problem.empty()) continue;
            for (const auto& [intf, on] : wanted.record<Msrp::Config>("msrp/config")->intfEnable())
                portClaims_.settle(intf);
            return problem;
        }
        return {};
    }

    /// The bridge's name, or nothing.
    [[nodiscard]] const std::string& onBridge() const { return linux_->bridge(); }

    std::string startDataplane() {
        streams_->wantedIs(linux_->streams() != Linux::Metering::none);
        // Its files lie beside the control socket: two daemons have two sockets, so none reads another's.
        dataplane_.emplace(
            loop_, devices_,
            Linux::Dataplane::Records{.config = linux_,
                                      .bridging = bridging_,
                                      .topology = topology_,
                                      .stp = stp_,
                                      .groups = record<Bridging::Input::Config>("bridging/input/config/msrp"),
                                      .vlans = record<Bridging::VlanRequests>("bridging/input/vlans/mvrp"),
                                      .queues = record<Qos::Input::Config>("qos/input/config/msrp"),
                                      .queueMap = record<Qos::Status>("qos/status"),
                                      .hardwareQueueMap = record<Qos::HwStatus>("qos/hardware/status/global"),
                                      .domain = record<Switch::Domain>("switch/domain"),
                                      .streams = streams_,
                                      .groupStatus = groups_,
                                      .vlanMembers = record<Bridging::VlanMembers>("bridging/vlans"),
                                      .refusals = record<Switch::Refusals>("switch/refusals"),
                                      .capabilities = capabilities_,
                                      .fence = fence_,
                                      .traffic = traffic_,
                                      .outcomes = outcomes_},
            redundancyConfig_->files().empty() ? options_.socket : redundancyConfig_->files(),
            [this](Linux::Tone tone, const std::string& line) {
                log_.say(Topic::kernel, static_cast<Level>(tone), line);
            },
            [](const std::string& bridge) { return Linux::Claims::taken("bridge " + bridge); });
        return dataplane_->start();
    }

    /// Whether there may be others that act in our place.
    [[nodiscard]] bool redundant() const { return redundancyConfig_->lease() > 0; }

    void startVlans() {
        const auto cli = record<Msrp::CliConfig>("msrp/cliConfig");
        vlans_.emplace(agentEnvironment(), mvrpPorts_,
                       [cli](IntfId intf) { return VlanId{cli->streamVlan(intf)}; });
        vlans_->start();
    }

    void makeSupervisor() {
        // Where there is such a record, the agent does nothing before it is told to.
        const auto redundancy =
            redundant() ? record<Redundancy::RedundancyStatus>("redundancy/status") : nullptr;
        supervisor_.emplace(
            loop_, database_, supervisorOptions(*storeConfig_, *redundancyConfig_), redundancy, redundancy_,
            Store::Supervisor::Calls{
                .begin = [this] { return beginRole(); },
                .end = [this] { endRole(); },
                .report =
                    [this](Store::Supervisor::Tone tone, const std::string& line) {
                        log_.say(Topic::daemon,
                                 tone == Store::Supervisor::Tone::notice ? Level::notice : Level::warning,
                                 line);
                    }});
        if (!redundant()) return;
        const auto mayAct = [this] { return acting_ && supervisor_ && supervisor_->mayAct(); };
        ports_.gateIs(mayAct);
        mvrpPorts_.gateIs(mayAct);
        loop_.firstIs([this] {
            if (supervisor_) supervisor_->check();
        });
    }

    [[nodiscard]] std::string bridgeClaim() const { return "bridge " + onBridge(); }

    // One that stands still may have it yet.
    void claimBridge() {
        if (!claims_.take(bridgeClaim(), Patience::none).empty()) claimAgain_.armIn(std::chrono::seconds{1});
    }

    std::string beginRole() {
        acting_ = true;
        std::string problem;
        if (!onBridge().empty()) {
            claimBridge();
            problem = startDataplane();
        }
        if (problem.empty()) startVlans();
        if (!problem.empty()) endRole();
        return problem;
    }

    /// The kernel goes on with what it has.
    void endRole() {
        acting_ = false;
        claimAgain_.cancel();
        if (!onBridge().empty()) claims_.giveBack(bridgeClaim());
        dataplane_.reset();
        if (vlans_) vlans_->stop();
        vlans_.reset();
    }

    /// Whether another supervisor goes on with what this one has done.
    bool handedOver() {
        if (!redundant()) return false;
        if (!supervisor_->mayAct()) return true;
        bool done = false;
        bool toAnother = false;
        supervisor_->leave([&](bool heir) {
            done = true;
            toAnother = heir;
        });
        loop_.runUntil([&] { return done; }, std::chrono::seconds{2});
        // Nothing is said any more, whoever will have the role.
        if (toAnother) endRole();
        return toAnother;
    }

    Control::Answer switchOver(const Control::Peer& who) {
        if (!redundant()) return {{}, "redundancy/config/lease is 0: this supervisor is the only one"};
        if (std::string problem = supervisor_->handOver(); !problem.empty()) return {{}, problem};
        tellDone("hands over, for " + who.text());
        return {};
    }

    Control::Answer audit(const State::Value& request, const Control::Peer& who) {
        if (!dataplane_) return {{}, "linux/config names no bridge, so there is nothing to compare with"};
        const State::Value* repair = request.member("repair");
        const bool mends = repair != nullptr && State::Codec<bool>::decode(*repair).value_or(false);
        if (mends) tellDone("mends what differs between records and kernel, for " + who.text());
        State::Object lines;
        for (std::string& line : dataplane_->audit(mends))
            lines.emplace_back(std::to_string(lines.size() + 1), State::Value{std::move(line)});
        return {State::Value{std::move(lines)}, {}};
    }

    Control::Answer clearCountersOfAll(const Control::Peer& who) {
        clearCounters(database_);
        for (Linux::PacketPorts* ports : {&ports_, &mvrpPorts_}) ports->countersClear();
        loop_.delaysClear();
        process_->countersClearedIs(loop_.wallNow());
        tellDone("all counters were set to zero, for " + who.text());
        return {};
    }

    void follow(IntfId intf) {
        log_.portIs(intf.name(), true);
        followed_.insert(intf);
        links_.followIs(intf);
        packets_->intfIs(intf)->sourceIs([this, intf] { return ports_.counters(intf); });
        if (!names_->intf().contains(intf))
            tell(Level::notice, intf.name() + " does not exist yet, waiting for it");
    }

    void forget(IntfId intf) {
        log_.portIs(intf.name(), false);
        followed_.erase(intf);
        // Later in the turn: the agent still has to withdraw what it declared there, over a link that is up.
        loop_.post([this, intf] {
            if (followed_.contains(intf)) return;  // it was enabled again meanwhile
            links_.followDel(intf);
            packets_->intfDel(intf);
        });
    }

    /// A bridge without an address of its own takes that of its first enabled port, and keeps it.
    void chooseBridgeMac() {
        if (bridging_->bridgeMac() != EthAddr{} || !onBridge().empty()) return;
        for (const auto& [intf, enabled] : config_->intfEnable()) {
            const auto link = status_->intfStatus(intf);
            if (!enabled || !link || link->macAddr() == EthAddr{}) continue;
            bridging_->bridgeMacIs(link->macAddr());
            return;
        }
    }

    /// A port that does not exist yet has a record too.
    [[nodiscard]] bool knowsPort(std::string_view port) const {
        bool known = false;
        status_->intfStatus().each([&](IntfId intf, const auto&) { known = known || intf.name() == port; });
        return known;
    }

    void tapPorts(bool wanted) {
        Linux::PacketPorts::Tap tap;
        if (wanted) {
            tap = [this](IntfId intf, Linux::Direction direction, std::span<const std::uint8_t> frame) {
                const bool sent = direction == Linux::Direction::sent;
                frames_.pass(intf.name(), sent ? Control::Direction::sent : Control::Direction::received,
                             frame);
            };
        }
        mvrpPorts_.tapIs(tap);
        ports_.tapIs(std::move(tap));
    }

    void tell(Level level, const std::string& text) { log_.say(Topic::daemon, level, text); }
    /// What an operator has done.
    void tellDone(const std::string& text) { log_.sayAlways(Level::notice, text); }
    /// Of the machine.
    void warn(const std::string& text) { log_.say(Topic::kernel, Level::warning, text); }

    const Options& options_;
    Linux::EpollLoop loop_;
    /// Blocks its signals from the start: one that comes early stops the daemon as soon as it runs.
    Linux::Signals signals_{loop_, [this](int signal) { signalled(signal); }, {SIGTERM, SIGINT, SIGHUP}};
    State::Database database_;
    DaemonLog log_{
        loop_, options_.useSyslog ? Control::systemLogSocket(loop_, "msrpd") : Control::standardError(loop_),
        record<Runtime::LogConfig>("log/config"), record<Runtime::RecentLog>("log")};
    std::shared_ptr<Runtime::ProcessStatus> process_ = record<Runtime::ProcessStatus>("process");
    std::set<IntfId> followed_;
    Linux::Claims claims_{loop_, [this](const std::string& line) { warn(line); }};
    Runtime::SystemLog systemLog_;
    Runtime::Trace trace_;
    Runtime::RingLog ringLog_;
    Control::RecordAccess access_{database_, ConfigRecords::paths()};
    Linux::PacketPorts ports_{loop_, {}, [this](const std::string& line) { warn(line); }};
    Linux::PacketPorts mvrpPorts_{loop_, Linux::mvrpProtocol,
                                  [this](const std::string& line) { warn(line); }};
    std::shared_ptr<Linux::PacketStatus> packets_ = record<Linux::PacketStatus>("linux/packets");
    Control::FrameSource frames_{[this](std::string_view port) { return knowsPort(port); },
                                 [this](bool wanted) { tapPorts(wanted); }};
    const Control::Commands commands_{
        {"audit",
         {[this](const State::Value& request, const Control::Peer& who) { return audit(request, who); }}},
        {"reload", {[this](const State::Value&, const Control::Peer& who) {
             const Configuration::Reloaded done = reload(who.text());
             return Control::Answer{changesValue(done.changes), done.problem};
         }}},
        {"switchOver", {[this](const State::Value&, const Control::Peer& who) { return switchOver(who); }}},
        {"unsaved", {[this](const State::Value&, const Control::Peer&) { return configuration_.unsaved(); }}},
        {"clearCounters",
         {[this](const State::Value&, const Control::Peer& who) { return clearCountersOfAll(who); }}},
        {"history",
         {[this](const State::Value& request, const Control::Peer&) {
              return answerHistory(events_, request);
          },
          true}}};
    Control::Server server_{loop_, {access_, frames_, commands_}};
    Configuration configuration_{database_, configSources(options_.config)};
    std::shared_ptr<Msrp::Config> config_ = record<Msrp::Config>("msrp/config");
    std::shared_ptr<Mvrp::Config> mvrp_ = record<Mvrp::Config>("mvrp/config");
    std::shared_ptr<Store::Config> storeConfig_ = record<Store::Config>("store/config");
    std::shared_ptr<Store::RedundancyConfig> redundancyConfig_ =
        record<Store::RedundancyConfig>("redundancy/config");
    std::shared_ptr<Store::Status> redundancy_ = record<Store::Status>("redundancy");
    PortClaims portClaims_{claims_, config_, mvrp_};
    std::shared_ptr<Bridging::Config> bridging_ = record<Bridging::Config>("bridging/config");
    std::shared_ptr<Bridging::Topology::Config> topology_ =
        record<Bridging::Topology::Config>("bridging/topology/config");
    std::shared_ptr<Stp::Status> stp_ = record<Stp::Status>("stp/status");
    std::shared_ptr<Linux::Config> linux_ = record<Linux::Config>("linux/config");
    std::shared_ptr<Linux::GroupStatus> groups_ = record<Linux::GroupStatus>("linux/groups");
    std::shared_ptr<Linux::CapabilityStatus> capabilities_ =
        record<Linux::CapabilityStatus>("linux/capabilities");
    std::shared_ptr<Linux::FenceStatus> fence_ = record<Linux::FenceStatus>("linux/fence");
    std::shared_ptr<Linux::TrafficStatus> traffic_ = record<Linux::TrafficStatus>("linux/traffic");
    std::shared_ptr<Switch::Outcomes> outcomes_ = std::make_shared<Switch::Outcomes>();
    std::shared_ptr<History::Journal> events_ = record<History::Journal>("history/events");
    std::shared_ptr<Switch::Streams> streams_ = record<Switch::Streams>("switch/streams");
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status_ =
        record<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    std::shared_ptr<Interface::EthIntfStatusDir> names_ =
        record<Interface::EthIntfStatusDir>("interface/status/eth/intf");
    std::shared_ptr<const Msrp::Status> reservations_ = record<Msrp::Status>("msrp/status");
    Linux::ServiceManager manager_{loop_};
    Runtime::Timer tellCounts_{loop_, [this] { tellCounts(); }};
    Linux::DeviceTable devices_{loop_, [this](const std::string& line) { warn(line); }};
    Linux::LinkAgent links_{devices_, status_, names_, [this](IntfId intf, const Linux::Place& place) {
                                ports_.interfaceIs(intf, place);
                                mvrpPorts_.interfaceIs(intf, place);
                            }};
    std::optional<Linux::Dataplane> dataplane_;
    std::optional<Mvrp::Agent> vlans_;
    std::optional<Store::Supervisor> supervisor_;
    Runtime::Timer claimAgain_{loop_, [this] { claimBridge(); }};
    bool acting_ = false;  ///< the role's work has begun; without a lease it is not asked
    std::optional<EveryPort> everyPort_;
    std::optional<History::Recorder> history_;
    Linux::TimeAgent time_{loop_, record<Switch::TimeStatus>("switch/time"),
                           [this](bool good, const std::string& line) {
                               log_.say(Topic::kernel, good ? Level::information : Level::warning, line);
                           },
                           options_.socket + ".time"};
};

/// Standard streams that were closed before the start lead nowhere: their numbers would else be given to our
/// own sockets, and the log be written to one of those.
void openStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The lowest number that is free is taken, and that is this one.
        if (::fcntl(stream, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) != stream) std::abort();
    }
}

ExitCode checkFiles(const Options& options) {
    const auto sources = configSources(options.check->empty() ? options.config : *options.check);
    std::vector<Control::ConfigFile> files;
    demand(readConfigs(sources, Control::ConfigReading::once, files), usage);
    demand(ConfigRecords{}.take(files), usage);
    std::cout << "good: " << files.size() << (files.size() == 1 ? " file\n" : " files\n");
    return done;
}

ExitCode run(const Options& options) {
    if (options.check) return checkFiles(options);
    // That the reader of our log goes away must not end the daemon.
    std::signal(SIGPIPE, SIG_IGN);
    Daemon{options}.run();
    return done;
}

}  // namespace

int main(int argc, char** argv) {
    openStandardStreams();
    Options options;
    Program program{"msrpd", "Stream reservation (MSRP, IEEE 802.1Q clause 35) for the ports of this switch"};
    program
        .list("--config",
              "Configuration, JSON: files and directories of files, of which later ones win; else "
              "/etc/msrpd/msrpd.json and /etc/msrpd/msrpd.d",
              options.config)
        .list("--check", "Only judges these files, or those that it would start with", options.check)
        .text("--socket", "Control socket", options.socket)
        .flag("--syslog", "Log to syslog instead of standard error", options.useSyslog)
        .text("--state", "Directory for what is to outlive the daemon (default: $STATE_DIRECTORY)",
              options.state)
        .number("--history-size", "Room for what has happened, MiB", options.historySize, {1, 16})
        .number("--trace", "Debug trace: 0 off, 1 notices, 2 handlers, 3 everything", options.trace, {0, 3});
    return program.run(argc, argv, [&] { return run(options); });
}
