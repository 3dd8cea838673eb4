/// The MRP engine (Multiple Registration Protocol, IEEE 802.1ak and 802.1Q clause 10) for one application.
///
/// `MrpSm` owns a `Participant` for each enabled port and binds itself to the application's `MrpLib`, whose
/// requests arrive here and whose indications go out from here.  A received MRPDU takes the way packet port,
/// `Decoder`, `Participant`, indications; what is to be said takes the way request, `Participant` (state and
/// queue), transmit opportunity, `PduWriter`, packet port.  What the application refused is kept by the
/// participants and offered again from here, in the order of type, key and port.  The state tables are in
/// Tables.h.
#pragma once

#include "Mrp/AttributeRecords.h"
#include "Mrp/Inbox.h"
#include "Mrp/MrpAttrLogSm.h"
#include "Mrp/MrpLib.h"
#include "Mrp/Offers.h"
#include "Mrp/PacketPort.h"
#include "Mrp/Participant.h"
#include "Mrp/PeriodicSm.h"
#include "Mrp/Records.h"
#include "Mrp/ReportLimiter.h"
#include "Mrp/Turns.h"
#include "Runtime/Loop.h"
#include "Runtime/Trace.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Interface.h"
#include "Switch/Stp.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>

namespace Mrp {

/// What the engine stands on; everything referred to must outlive it.
struct Environment {
    Runtime::Loop& loop;
    PacketPortProvider& ports;
    const Runtime::Trace& trace;
    /// Takes lines for the operator: at most one for each port and reason in ten seconds.  May be empty.
    std::function<void(IntfId, const std::string&)> report;
    std::uint64_t seed;  ///< of the timers' random parts
};

/// A record that is null counts as one with defaults or without entries.
struct Inputs {
    std::shared_ptr<const Bridging::Config> brConfig;
    MrpLib& application;
    std::shared_ptr<const MrpConfig> mrpConfig;
    std::shared_ptr<MrpStatus> mrpStatus;
    std::shared_ptr<AttributesStatus> attributes;
    std::shared_ptr<const Stp::Status> stpStatus;
    std::shared_ptr<const Bridging::Topology::Config> topoConfig;
    std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> ethPhyIntfStatusDir;
    Environment environment;
    bool standbyMode;
};

class MrpSm final : private Participant::Host {
public:
    /// Binds itself to `inputs.application` for as long as it lives.
    explicit MrpSm(Inputs inputs);
    MrpSm(const MrpSm&) = delete;
    MrpSm& operator=(const MrpSm&) = delete;
    ~MrpSm();

    /// Where joins, leaves and requests are logged; null for nowhere.  Must outlive the engine or be set to
    /// null.
    void attrLogIs(MrpAttrLogSm* log) { attrLog_ = log; }

    /// The role; `handleStandbyMode` puts it into effect.
    void standbyModeIs(bool standby) { standby_ = standby; }
    [[nodiscard]] bool standbyMode() const { return standby_; }
    /// In standby all participants end silently, and only the set of enabled ports is kept.  On the way out
    /// of it every enabled port begins anew and sends a LeaveAll.
    void handleStandbyMode();

    // The requests of `MrpLib`, which describes them.
    void sendAttribute(const MrpParameters& params);
    void requestOpportunity(IntfId intf);
    void interfaceEnable(IntfId intf);
    void interfaceDisable(IntfId intf);
    void cleanUpIntfDatabase(IntfId intf);
    void cleanUpIntfDatabaseAttribute(IntfId intf, std::uint8_t type, std::uint64_t key);
    [[nodiscard]] const std::set<IntfId>& enabledPorts() const { return enabled_; }
    void openPort(IntfId intf) { portOpened(intf); }
    void pausedIs(bool paused);
    [[nodiscard]] bool attributeHeld(IntfId intf, std::uint8_t type, std::uint64_t key) const;
    /// What is known of the attributes of an enabled port, in the order of type and key; nothing for others.
    void eachAttribute(IntfId intf,
                       const std::function<void(const AttributeRef&, const Attribute&)>& visit) const;
    [[nodiscard]] const Inputs& inputs() const { return inputs_; }
    [[nodiscard]] PeriodicSm& periodicSm() { return periodicSm_; }

private:
    struct Port {
        std::unique_ptr<PacketPort> packetPort;
        std::shared_ptr<Participant>
            participant;  ///< null between its end and the closing of the packet port
        Inbox inbox;
    };

    Participant::Outcome joinIndication(IntfId intf, const AttributeRef& ref, const AttributeValue& value,
                                        bool isNew) override;
    Participant::Outcome leaveIndication(IntfId intf, const AttributeRef& ref,
                                         const AttributeValue& value) override;
    [[nodiscard]] unsigned takeCost() override { return std::exchange(application_.spent_, 0U); }
    void registrationEnded(std::uint64_t key) override;
    void portOpened(IntfId intf) override;
    void offerDue(IntfId intf, const AttributeRef& ref) override;
    [[nodiscard]] std::optional<Runtime::Time> backlogSince(IntfId intf) const override;
    [[nodiscard]] bool mayTransmit(IntfId intf) override;
    void transmitted(std::size_t attributes) override;
    [[nodiscard]] std::size_t capacity(IntfId intf) const override;
    void send(IntfId intf, std::span<const std::uint8_t> pdu) override;
    void count(IntfId intf, const MrpCounts& more) override;
    void reportFlaw(IntfId intf, const Flaw& flaw) override;
    void reportLimit(IntfId intf, std::uint8_t type, bool reached) override;

    template <class F>
    Participant::Outcome indicate(IntfId intf, const AttributeRef& ref, const AttributeValue& value,
                                  bool isNew, F&& handler);
    [[nodiscard]] const AttributeType& type(const AttributeRef& ref) const {
        return application_.application().types[ref.typeIndex];
    }
    [[nodiscard]] std::uint8_t typeIndex(std::uint8_t type) const;
    [[nodiscard]] std::shared_ptr<Participant> participant(IntfId intf) const;
    void start(IntfId intf);
    void stop(IntfId intf);
    void received(IntfId intf, std::span<const std::uint8_t> pdu);
    /// Keeps a PDU until the port has its turn.
    void keep(IntfId intf, Port& port, std::span<const std::uint8_t> pdu);
    /// The port's turn, which may cost that much.
    void servePort(IntfId intf, unsigned most);
    struct Received {
        bool done;  ///< the whole PDU
        unsigned cost;
    };
    /// Takes what was done off this turn's budget.
    Received receive(Participant& receiver, Reception& in, unsigned most);
    void log(AttrLogRecord::What what, IntfId intf, const AttributeRef& ref);
    void report(IntfId intf, std::uint32_t reason, const std::string& line);
    void configChanged(std::string_view field);
    /// Runs `task` from the loop, unless the engine has ended by then.
    void later(std::function<void()> task);
    void runOffers();

    Inputs inputs_;
    MrpLib& application_;
    Runtime::Loop& loop_;
    std::shared_ptr<const MrpConfig> config_;
    std::shared_ptr<MrpStatus> status_;
    std::shared_ptr<AttributesStatus> attributes_;
    MrpAttrLogSm* attrLog_ = nullptr;
    bool standby_;
    std::mt19937_64 random_;
    ReportLimiter limiter_;
    PeriodicSm periodicSm_;
    std::set<IntfId> enabled_;
    std::map<IntfId, Port> ports_;
    Turns turns_;
    Reception direct_;  ///< of a PDU that need not wait; kept for its memory
    bool indicating_ = false;

    Offers offers_;
    Runtime::Timer offerTimer_;                                   ///< armed while anything is to be offered
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  ///< ends with the engine
    State::Reactor configReactor_;
};

}  // namespace Mrp
