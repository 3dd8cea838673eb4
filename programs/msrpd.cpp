/// The daemon: the switch's records, the agents that keep them, and the ways in.
///
/// Exit codes: 0 stopped by a signal, 1 cannot run here (privileges, socket in use, another daemon for the
/// same bridge or port), 2 wrong usage or configuration.
#include "Control/FrameSource.h"
#include "Control/LogLimiter.h"
#include "Control/LogWriter.h"
#include "Control/Server.h"
#include "Linux/Dataplane.h"
#include "Linux/doctor/Capabilities.h"
#include "Linux/kernel/Claims.h"
#include "Linux/kernel/EpollLoop.h"
#include "Linux/kernel/Signals.h"
#include "Linux/links/LinkAgent.h"
#include "Linux/ports/PacketPorts.h"
#include "Linux/ports/PacketRecords.h"
#include "Linux/time/TimeAgent.h"
#include "Msrp/Database.h"
#include "Msrp/MsrpAgent.h"
#include "Mvrp/MvrpAgent.h"
#include "Runtime/RecentLog.h"
#include "Runtime/RepeatedLines.h"
#include "Switch/Refusals.h"
#include "Switch/TopologyAgent.h"
#include "programs/CommandLine.h"
#include "programs/Configuration.h"
#include "programs/PortClaims.h"
#include "programs/PortsOfInterest.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

struct Options {
    std::string config;
    std::string socket{Control::defaultSocket};
    bool useSyslog = false;
    std::uint64_t trace = 0;  ///< a Runtime::TraceLevel
};

class Daemon {
public:
    explicit Daemon(const Options& options) : options_{options} {
        Msrp::populate(database_);
        Mvrp::populate(database_);
        systemLog_.sinkIs(
            [this](const Runtime::LogEvent& event, std::string_view subject, const std::string& text) {
                const std::string_view port = subject.empty() ? portNamed(text) : subject;
                if (!subject.empty() || limiter_.asks(port))
                    folder_.line(event.severity, port, std::string{event.name} + ' ' + text);
            },
            [this](std::string_view subject) { return subject.empty() || limiter_.asks(subject); });
        trace_.sinkIs(static_cast<Runtime::TraceLevel>(options.trace),
                      [this](std::string_view line) { writer_.line(LOG_DEBUG, std::string{line}); });
        access_.guardIs([this](std::string_view path, const State::Value& patch) {
            return path == "msrp/config" ? portClaims_.take(patch.member("intfEnable"), Patience::none)
                                         : std::string{};
        });
    }

    void run() {
        demand(configuration_.load(options_.config, database_, access_), usage);
        demand(start());
        configuration_.eachSpeed(
            [this](IntfId intf, Interface::Speed speed) { links_.configuredSpeedIs(intf, speed); });
        const PortsOfInterest interest{config_, mvrp_, bridging_, [this](IntfId intf) { follow(intf); },
                                       [this](IntfId intf) { forget(intf); }};
        const State::Reactor addresses = status_->watch([this](const State::Change&) { chooseBridgeMac(); });
        const State::Reactor enabled = config_->react([this](const State::Change& change) {
            chooseBridgeMac();
            if (const auto* intf = change.key<IntfId>(); intf != nullptr && !config_->intfEnable().get(*intf))
                portClaims_.giveBack(intf->name());
        });
        chooseBridgeMac();
        if (std::ranges::none_of(config_->intfEnable(), [](const auto& port) { return port.second; }))
            tell(LOG_WARNING, options_.config + ": msrp/config/intfEnable enables MSRP on no port");
        // On a bridge the data plane tells which ports forward; elsewhere, without a spanning tree, all do.
        const Bridging::TopologyAgent topology{bridging_, stp_, onBridge().empty() ? status_ : nullptr,
                                               topology_};

        Msrp::Agent agent{agentEnvironment(), ports_};
        const auto cli = record<Msrp::CliConfig>("msrp/cliConfig");
        Mvrp::Agent vlans{agentEnvironment(), mvrpPorts_,
                          [cli](IntfId intf) { return VlanId{cli->streamVlan(intf)}; }};
        const State::Reactor streamVlans =
            cli->react([&vlans](const State::Change&) { vlans.streamVlansChanged(); });
        ringLog_.clocksAre(loop_.now(), loop_.wallNow());
        agent.start();
        vlans.start();
        loop_.run();
        // Peers that hear a Leave need not wait for their own timers.
        agent.withdraw();
        agent.stop();
        vlans.stop();
        if (dataplane_) dataplane_->stop();
        // The loop turns once more, so that log and captures get the Leaves that were just sent.
        loop_.runUntil([turned = false]() mutable { return std::exchange(turned, true); }, {});
        folder_.flush();
        limiter_.flush();
        writer_.finish(std::chrono::milliseconds{200});
    }

private:
    using Patience = Linux::Claims::Patience;

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
        if (problem.empty() && !onBridge().empty())
            problem = claims_.take("bridge " + onBridge(), Patience::some);
        if (problem.empty()) {
            const auto enabled = config_->fieldValue("intfEnable", {});
            problem = portClaims_.take(&*enabled, Patience::some);
        }
        if (problem.empty()) problem = server_.start(options_.socket);
        if (problem.empty()) problem = devices_.start();
        if (const std::string& clock = linux_->gptp().socket; problem.empty() && !clock.empty()) {
            problem = time_.start(clock);
            if (!problem.empty()) problem = "linux/config/gptp: " + problem;
        }
        // Last, for it changes what others see.
        if (problem.empty() && !onBridge().empty()) problem = startDataplane();
        return problem;
    }

    void signalled(int signal) {
        if (signal != SIGHUP) return loop_.stop();
        // Somebody has moved the files away, or started the log anew.
        writer_.reopen();
        ringLog_.clocksAre(loop_.now(), loop_.wallNow());
        if (const std::string problem = ringLog_.reopen(); !problem.empty()) tell(LOG_WARNING, problem);
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
                                      .traffic = traffic_},
            options_.socket,
            [this](Linux::Tone tone, const std::string& line) { tell(static_cast<int>(tone), line); },
            [](const std::string& bridge) { return Linux::Claims::taken("bridge " + bridge); });
        return dataplane_->start();
    }

    Control::Answer audit(const State::Value& request) {
        if (!dataplane_) return {{}, "linux/config names no bridge, so there is nothing to compare with"};
        const State::Value* repair = request.member("repair");
        State::Object lines;
        for (std::string& line :
             dataplane_->audit(repair != nullptr && State::Codec<bool>::decode(*repair).value_or(false)))
            lines.emplace_back(std::to_string(lines.size() + 1), State::Value{std::move(line)});
        return {State::Value{std::move(lines)}, {}};
    }

    void follow(IntfId intf) {
        portNames_.insert(intf.name());
        links_.followIs(intf);
        packets_->intfIs(intf)->sourceIs([this, intf] { return ports_.counters(intf); });
        if (!names_->intf().contains(intf))
            tell(LOG_NOTICE, intf.name() + " does not exist yet, waiting for it");
    }

    void forget(IntfId intf) {
        portNames_.erase(intf.name());
        // Later in the turn: the agent still has to withdraw what it declared there, over a link that is up.
        loop_.post([this, intf] {
            if (portNames_.contains(intf.name())) return;  // it was enabled again meanwhile
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

    [[nodiscard]] std::string_view portNamed(std::string_view text) const {
        return Control::portNamed(text, [this](std::string_view name) { return portNames_.contains(name); });
    }
    void tell(int severity, const std::string& text) { folder_.line(severity, portNamed(text), text); }
    void keep(int severity, const std::string& line) {
        recent_->add(Runtime::seconds(loop_.now()), line);
        writer_.line(severity, line);
    }

    const Options& options_;
    Linux::EpollLoop loop_;
    /// Blocks its signals from the start: one that comes early stops the daemon as soon as it runs.
    Linux::Signals signals_{loop_, [this](int signal) { signalled(signal); }, {SIGTERM, SIGINT, SIGHUP}};
    State::Database database_;
    std::shared_ptr<Runtime::RecentLog> recent_ = record<Runtime::RecentLog>("log");
    Control::LogWriter writer_{
        loop_, options_.useSyslog ? Control::systemLogSocket(loop_, "msrpd") : Control::standardError(),
        [this](const std::string& line) { recent_->add(Runtime::seconds(loop_.now()), line); }};
    Control::LogLimiter limiter_{loop_,
                                 [this](int severity, const std::string& line) { keep(severity, line); }};
    Runtime::RepeatedLines folder_{
        loop_, [this](int severity, std::string_view port, const std::string& line, std::uint64_t count) {
            limiter_.line(severity, port, line, count);
        }};
    std::set<std::string, std::less<>> portNames_;  ///< of those that are followed
    Linux::Claims claims_{loop_, [this](const std::string& line) { tell(LOG_WARNING, line); }};
    PortClaims portClaims_{claims_};
    Runtime::SystemLog systemLog_;
    Runtime::Trace trace_;
    Runtime::RingLog ringLog_;
    Control::RecordAccess access_{database_, Configuration::paths()};
    Linux::PacketPorts ports_{loop_, {}, [this](const std::string& line) { tell(LOG_WARNING, line); }};
    Linux::PacketPorts mvrpPorts_{loop_, Linux::mvrpProtocol,
                                  [this](const std::string& line) { tell(LOG_WARNING, line); }};
    std::shared_ptr<Linux::PacketStatus> packets_ = record<Linux::PacketStatus>("linux/packets");
    Control::FrameSource frames_{[this](std::string_view port) { return knowsPort(port); },
                                 [this](bool wanted) { tapPorts(wanted); }};
    const Control::Commands commands_{
        {"audit", [this](const State::Value& request) { return audit(request); }}};
    Control::Server server_{loop_, {access_, frames_, commands_}};
    Configuration configuration_;
    std::shared_ptr<Msrp::Config> config_ = record<Msrp::Config>("msrp/config");
    std::shared_ptr<Mvrp::Config> mvrp_ = record<Mvrp::Config>("mvrp/config");
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
    std::shared_ptr<Switch::Streams> streams_ = record<Switch::Streams>("switch/streams");
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status_ =
        record<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    std::shared_ptr<Interface::EthIntfStatusDir> names_ =
        record<Interface::EthIntfStatusDir>("interface/status/eth/intf");
    Linux::DeviceTable devices_{loop_, [this](const std::string& line) { tell(LOG_WARNING, line); }};
    Linux::LinkAgent links_{devices_, status_, names_, [this](IntfId intf, const Linux::Place& place) {
                                ports_.interfaceIs(intf, place);
                                mvrpPorts_.interfaceIs(intf, place);
                            }};
    std::optional<Linux::Dataplane> dataplane_;
    Linux::TimeAgent time_{
        loop_, record<Switch::TimeStatus>("switch/time"),
        [this](bool good, const std::string& line) { tell(good ? LOG_INFO : LOG_WARNING, line); },
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

ExitCode run(const Options& options) {
    if (options.config.empty()) throw Failure{"--config FILE is needed", usage};
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
    program.text("--config", "Configuration file, JSON", options.config)
        .text("--socket", "Control socket", options.socket)
        .flag("--syslog", "Log to syslog instead of standard error", options.useSyslog)
        .number("--trace", "Debug trace: 0 off, 1 notices, 2 handlers, 3 everything", options.trace, {0, 3});
    return program.run(argc, argv, [&] { return run(options); });
}
