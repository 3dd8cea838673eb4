/// A whole switch in one object: the agent over a database of its own, with ports whose cables end in the
/// simulation.
#pragma once

#include "History/Recorder.h"
#include "Mrp/Records.h"
#include "Msrp/MsrpAgent.h"
#include "Msrp/lifecycle/StreamCensus.h"
#include "Msrp/types/Config.h"
#include "Msrp/types/Status.h"
#include "Msrp/types/Waiting.h"
#include "Mvrp/MvrpAgent.h"
#include "Runtime/Loop.h"
#include "Runtime/Redundancy.h"
#include "Sim/Ports.h"
#include "Sim/VlanKernel.h"
#include "State/Database.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingInput.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Interface.h"
#include "Switch/Qos.h"
#include "Switch/Refusals.h"
#include "Switch/Stp.h"
#include "Switch/TopologyAgent.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Sim {

class Bridge {
public:
    /// A bridge with address 02:00:00:00:00:01, those ports (see `portIs`) and no spanning tree.  The agent
    /// is not started yet.  With `realPorts`, which must outlive the bridge, it speaks through these and not
    /// through `ports()`.
    Bridge(Runtime::Loop& loop, const std::vector<std::string>& ports, std::uint64_t seed = 1,
           Mrp::PacketPortProvider* realPorts = nullptr);
    ~Bridge();

    /// Starts the agent (anew, when it was stopped).
    void start();
    /// Ends the agent as a clean end of its process would.
    void stop();

    /// Starts a second agent over the same records and ports, in standby.
    void standbyStart();
    /// The active agent goes to standby; the other one takes over with the next call.
    void activeStops() { agent_->standbyModeIs(true); }
    void standbyTakesOver();

    /// Starts MVRP as well, on all of its ports, which gives them the VLANs that are asked for.
    void mvrpStart();
    void mvrpStop() { mvrp_.reset(); }

    /// Remembers what happens from now on; the records of the history are in the database.
    void historyStart(const History::Recorder::Options& options = {});
    void historyStop() { history_.reset(); }
    [[nodiscard]] History::Recorder& history() { return *history_; }

    [[nodiscard]] Ports& ports() { return ports_; }
    [[nodiscard]] Ports& mvrpPorts() { return mvrpPorts_; }
    [[nodiscard]] Mvrp::Agent& mvrp() { return *mvrp_; }
    [[nodiscard]] Msrp::Agent& agent() { return *agent_; }
    [[nodiscard]] State::Database& database() { return database_; }

    /// A port is there, in VLAN 2 with a tag, its link up at 1 Gbit/s and MSRP enabled.
    void portIs(const std::string& port);
    void linkIs(const std::string& port, bool up);
    void speedIs(const std::string& port, Interface::Speed speed);
    /// Adds the port to the VLAN.
    void vlanIs(std::uint16_t vlan, const std::string& port, bool tagged);
    void vlanDel(std::uint16_t vlan, const std::string& port);

    /// One line for each stream of the working table: "0x1 SrClassA 9088 p1 -> p2 p3".
    [[nodiscard]] std::string streams() const;
    /// The same for one stream, or nothing.
    [[nodiscard]] std::string stream(std::uint64_t id) const;
    /// "p1 Core WaitingForPeer" for class A and class B.
    [[nodiscard]] std::string classes(const std::string& port) const;
    /// One line for each group: "2 91:e0:f0:00:00:01: p2 p3".
    [[nodiscard]] std::string groups() const;
    /// Reserved kbit/s.
    [[nodiscard]] std::uint64_t allocated(const std::string& port, Msrp::SrClassId srClass) const;
    [[nodiscard]] std::uint32_t rx(const std::string& port, std::uint32_t counter) const;
    [[nodiscard]] std::uint32_t tx(const std::string& port, std::uint32_t counter) const;
    /// Lines of the system log that contain `text`.
    [[nodiscard]] std::size_t logged(const std::string& text) const;
    [[nodiscard]] const std::vector<std::string>& log() const { return log_; }
    void logClear() { log_ = {}; }
    /// Takes the lines that would be kept otherwise.
    void logSinkIs(Runtime::SystemLog::Sink sink) { systemLog_.sinkIs(std::move(sink)); }
    /// Where the agents trace what they do; nowhere by default.
    void traceIs(Runtime::TraceLevel level, Runtime::Trace::Sink sink) {
        trace_.sinkIs(level, std::move(sink));
    }

private:
    [[nodiscard]] Runtime::AgentEnvironment environment();
    [[nodiscard]] std::unique_ptr<Msrp::Agent> makeAgent();
    State::Database database_;

public:
    // The records, for tests and scenarios to read and write.
    std::shared_ptr<Msrp::CliConfig> cliConfig;
    std::shared_ptr<Msrp::Config> config;
    std::shared_ptr<Msrp::Status> status;
    std::shared_ptr<Msrp::Waiting> waiting;
    std::shared_ptr<Msrp::Census> census;
    std::shared_ptr<Mrp::MrpConfig> mrpConfig;
    std::shared_ptr<Mrp::MrpStatus> mrpStatus;
    std::shared_ptr<Bridging::Config> bridging;
    std::shared_ptr<Bridging::Input::Config> groupConfig;
    std::shared_ptr<Bridging::Topology::Config> topology;
    std::shared_ptr<Stp::Status> stp;
    std::shared_ptr<Qos::Input::Config> queues;
    std::shared_ptr<Qos::Status> qosStatus;
    std::shared_ptr<Qos::HwStatus> qosHwStatus;
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> phy;
    std::shared_ptr<Switch::Refusals> refusals;
    std::shared_ptr<Switch::TimeStatus> time;
    std::shared_ptr<Mvrp::Config> mvrpConfig;
    std::shared_ptr<Mvrp::Status> mvrpStatus;
    std::shared_ptr<Bridging::VlanRequests> vlanRequests;
    std::shared_ptr<Bridging::VlanMembers> vlanMembers;
    /// Of the agents that are started from now on: `AgentEnvironment`'s.
    unsigned unitsPerTurn = 0;

private:
    Runtime::Loop& loop_;
    std::uint64_t seed_;
    Ports ports_;
    Ports mvrpPorts_;
    Mrp::PacketPortProvider& provider_;
    std::vector<std::string> log_;
    Runtime::SystemLog systemLog_;
    Runtime::Trace trace_;
    Runtime::RingLog ringLog_;
    std::unique_ptr<Bridging::TopologyAgent> topologyAgent_;
    std::unique_ptr<Msrp::StreamCensus> streamCensus_;
    std::unique_ptr<VlanKernel> vlanKernel_;
    std::unique_ptr<Mvrp::Agent> mvrp_;
    std::unique_ptr<Msrp::Agent> agent_;
    std::unique_ptr<Msrp::Agent> standby_;
    std::unique_ptr<History::Recorder> history_;
};

}  // namespace Sim
