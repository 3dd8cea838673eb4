/// The stream reservation state machine (IEEE 802.1Q clause 35): one for each agent.
///
/// Streams arrive as talker declarations on one port and are declared on all others; listeners ask for them
/// on some of these, get bandwidth there or not, and their answers are merged towards the talker.  Two things
/// decide what a port may carry: its SR class states (`domain/`) and its VLANs (`bridging/`).
///
/// `MsrpSm` is one class because its operations are one vocabulary that calls back and forth across subjects;
/// each folder below this one defines the group of operations of its own subject, and holds the decisions
/// that need no state machine as free functions and small classes.
///
/// Everything runs on the loop's one thread.  A handler that calls something which may delete the stream's
/// record looks the record up again afterwards; walks over streams and ports go on by key.
///
/// What one event means for all streams of a port or of the switch is done in pieces (`chores_`), port by
/// port in the order of the events: a port that has some of it left finishes that before it comes to run
/// again, and of what its peer says about the domain meanwhile only the last counts.  Retries of those that
/// wait are put off to the end of the callback, once for all that it released.
#pragma once

#include "Mrp/MrpAttrLogSm.h"
#include "Msrp/InputFollowers.h"
#include "Msrp/MsrpEvents.h"
#include "Msrp/MsrpLib.h"
#include "Msrp/lifecycle/PendingStreams.h"
#include "Msrp/lifecycle/StreamTable.h"
#include "Msrp/types/Attributes.h"
#include "Msrp/types/Config.h"
#include "Msrp/types/Status.h"
#include "Msrp/types/Waiting.h"
#include "Runtime/Assert.h"
#include "Runtime/Chores.h"
#include "Runtime/Loop.h"
#include "Runtime/RingLog.h"
#include "Runtime/SystemLog.h"
#include "Runtime/Trace.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingInput.h"
#include "Switch/Domain.h"
#include "Switch/Interface.h"
#include "Switch/Qos.h"
#include "Switch/Refusals.h"
#include "Switch/Stp.h"
#include "Switch/Time.h"
#include "Switch/TopologyLibrary.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Msrp {

class MsrpAdditionSm;
class MsrpDeletionSm;

class MsrpSm {
public:
    /// Weight of the agent's settings in the switch's quality of service while it runs.
    static constexpr std::uint32_t qosPriority = 85;

    struct Inputs {
        std::shared_ptr<const CliConfig> cliConfig;
        std::shared_ptr<const Config> config;
        std::shared_ptr<Status> status;
        std::shared_ptr<Waiting> waiting;
        std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> ethPhyIntfStatusDir;
        std::shared_ptr<const Bridging::Config> brConfig;
        std::shared_ptr<Qos::Input::Config> qosMsrpConfig;
        std::shared_ptr<const Qos::Status> qosStatus;
        std::shared_ptr<const Qos::HwStatus> qosHwStatus;
        std::shared_ptr<Bridging::Input::Config> brMsrpConfig;
        std::shared_ptr<const Bridging::Topology::Config> bridgingTopoConfig;
        std::shared_ptr<const Stp::Status> stpStatus;
        std::shared_ptr<const Bridging::Topology::TopoLibState> topoLib;
        std::shared_ptr<const Switch::Refusals> refusals;
        std::shared_ptr<const Switch::TimeStatus> time;
        std::shared_ptr<Switch::Domain> domain;
        Mrp::MrpAttrLogSm* attrLogSm = nullptr;  ///< not owned
        MsrpLib* msrpLib = nullptr;              ///< not owned; must outlive the state machine
        bool standbyMode = false;
    };
    /// Where the state machine gets its time from and speaks to; all must outlive it.
    struct Platform {
        Runtime::Loop& loop;
        const Runtime::SystemLog& systemLog;
        const Runtime::Trace& trace;
        Runtime::RingLog& ringLog;
        /// Streams looked at, and things said of them, in one turn of the loop; 0: a thousand.
        unsigned unitsPerTurn = 0;
    };

    MsrpSm(Inputs inputs, Platform platform);
    MsrpSm(const MsrpSm&) = delete;
    MsrpSm& operator=(const MsrpSm&) = delete;
    ~MsrpSm();

    // Lifecycle
    // -----------------------------------------------------------------------------------------------------
    void handleInitialized();
    /// Takes over (active) or lets go (standby); runs at initialisation and when the role changes.
    void handleStandbyMode();
    void standbyModeIs(bool standby) { inputs_.standbyMode = standby; }
    [[nodiscard]] bool standbyMode() const { return inputs_.standbyMode; }
    [[nodiscard]] bool initialized() const { return initialized_; }
    /// Publishes whether MSRP runs, and withdraws the claim on the queues when it does not.
    void doMaybeStopMsrp();
    /// All reactors' notifications off or on.
    void hasNotificationActiveIs(bool active);
    [[nodiscard]] const std::shared_ptr<Status>& status() const { return inputs_.status; }
    [[nodiscard]] const Config& config() const { return *inputs_.config; }
    [[nodiscard]] const Inputs& inputs() const { return inputs_; }
    [[nodiscard]] Runtime::Loop& loop() { return platform_.loop; }
    /// Seconds on the agent's clock.
    [[nodiscard]] double now() const { return Runtime::seconds(platform_.loop.now()); }
    [[nodiscard]] bool isAttrLogOutClogged();

    // Counters and reports
    // ------------------------------------------------------------------------------------------
    void counterInc(IntfId intf, Direction direction, MsrpCounter counter);
    template <class... Pieces>
    void trace(const Pieces&... pieces) const {
        platform_.trace(Runtime::TraceLevel::handler, pieces...);
    }
    void ringTrace(std::string_view label, U64 a = 0, U64 b = 0, U64 c = 0) {
        platform_.ringLog.write(platform_.loop.now(), label, a, b, c);
    }

    // Ports
    // -----------------------------------------------------------------------------------------------------------
    void handleIntfEnable(IntfId intf);
    void handleIntfEnable();
    /// Ends MSRP on every port: all declarations are withdrawn and sent.
    void withdrawPorts();
    void handleLinkStatus(IntfId intf);
    void handleSpeed(IntfId intf);
    void setLinkStatus(IntfId intf);
    [[nodiscard]] bool isLinkUp(IntfId intf) const;
    /// The port has come to keep common time with its neighbour, or does not any more.
    void handleTime(IntfId intf);

    // Stream table
    // ------------------------------------------------------------------------------------------------
    [[nodiscard]] std::shared_ptr<StreamData> streamList(U64 streamId) const {
        return streams_.find(streamId);
    }
    [[nodiscard]] const std::map<U64, std::shared_ptr<StreamData>>& streamList() const {
        return streams_.all();
    }
    /// Throws std::invalid_argument for a null record.
    void streamListIs(std::shared_ptr<StreamData> stream) { streams_.put(std::move(stream)); }
    void streamListDel(U64 streamId) { streams_.remove(streamId); }
    void streamListDelAll() { streams_.clear(); }

    // Talkers
    // -----------------------------------------------------------------------------------------------------
    /// True when the declaration was discarded.
    bool processTalkerAdvertiseJoin(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr);
    /// True when the declaration was discarded.  Throws std::range_error for a VLAN out of range.
    bool processTalkerFailedJoin(IntfId intf, const MsrpTalkerFailedAttribute& attr);
    void processTalkerAdvertiseLeave(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr);
    void processTalkerFailedLeave(IntfId intf, const MsrpTalkerFailedAttribute& attr);

    /// `None` also for a port whose talker is to be deleted.
    [[nodiscard]] TalkerState getTalkerState(const StreamData& stream, IntfId intf) const;
    void setTalkerState(StreamData& stream, IntfId intf, TalkerState state);
    /// The stream must exist and have a talker.
    [[nodiscard]] MsrpTalkerAdvertiseAttribute streamDataTalkerAttribute(U64 streamId) const;
    void sendTalkerInternalLeave(IntfId intf, U64 streamId, TalkerState state);
    void transmitTalkerAdvertise(IntfId intf, U64 streamId, TalkerState state);
    void transmitTalkerFailed(IntfId intf, U64 streamId, TalkerFailureCode code, TalkerState state);
    /// On every eligible port, or on `onlyIntf` when it names one.
    void propagateTalkerAdvertiseJoin(IntfId ingressIntf, U64 streamId, IntfId onlyIntf);
    void propagateTalkerFailed(IntfId ingressIntf, U64 streamId, TalkerFailureCode code, TalkerState state);
    void propagateTalkerAdvertiseLeave(IntfId ingressIntf, U64 streamId);

    [[nodiscard]] std::shared_ptr<MacDaBlocked> macDaBlocked(EthAddr macDa) const {
        return inputs_.waiting->macDaBlocked(macDa);
    }
    std::shared_ptr<MacDaBlocked> macDaBlockedIs(EthAddr macDa) {
        return inputs_.waiting->macDaBlockedIs(macDa);
    }
    void macDaBlockedDel(EthAddr macDa) { inputs_.waiting->macDaBlockedDel(macDa); }
    void macDaBlockedDelAll() { inputs_.waiting->macDaBlockedDelAll(); }
    void addMacDaBlockedStream(EthAddr macDa, U64 streamId);
    void removeMacDaBlockedStream(EthAddr macDa, U64 streamId);
    void reprocessMacDaFailedStreams(EthAddr macDa);

    // Listeners
    // ---------------------------------------------------------------------------------------------------
    /// True when the declaration was discarded.
    bool processListenerJoin(IntfId intf, const MsrpListenerAttribute& attr);
    void processListenerLeave(IntfId intf, const MsrpListenerAttribute& attr);
    TalkerFailureCode addListener(IntfId intf, const U64& streamId);
    void removeListener(IntfId intf, const U64& streamId, ListenerState newState);
    /// The doors to the two states of a listener: what counts on the port, and what was registered there.
    /// `Ignore` for no listener.
    void listenerStateIs(StreamData& stream, IntfId intf, ListenerState state);
    void listenerStateOrigIs(StreamData& stream, IntfId intf, ListenerState state);
    void propagateListenerAttribute(const U64& streamId);
    void transmitListenerAttribute(IntfId intf, const U64& streamId, ListenerState state);

    // SR domain
    // ---------------------------------------------------------------------------------------------------
    [[nodiscard]] bool srClassSupported(SrClassId srClass) const;
    [[nodiscard]] U8 srClassPriority(SrClassId srClass) const;
    [[nodiscard]] U16 intfSrPvid(IntfId intf) const;
    void transmitSrDomainVector(IntfId intf, SrClassId srClass, bool join);
    [[nodiscard]] MsrpDomainAttribute domainOf(IntfId intf, SrClassId srClass) const;
    /// True when the declaration was discarded.
    bool processDomainVectorJoin(IntfId intf, const MsrpDomainAttribute& attr);
    void processDomainVectorLeave(IntfId intf, const MsrpDomainAttribute& attr);
    void setSrClassState(IntfId intf, SrClassId srClass, SrClassState state);
    /// `vlanId` 0 stands for every VLAN.
    void registerSrClassStreams(IntfId intf, SrClassId srClass, U16 vlanId);
    void deregisterSrClassStreams(IntfId intf, SrClassId srClass, U16 vlanId, TalkerFailureCode code);

    // Bandwidth and queues
    // ----------------------------------------------------------------------------------------
    TalkerFailureCode checkBandwidthAvailability(IntfId intf, const U64& streamId, SrClassId srClass,
                                                 const U64& bandwidthNeeded);
    void addFailedStreamToIntf(const U64& streamId, IntfId intf);
    void removeFailedStreamFromIntf(const U64& streamId, IntfId intf);
    void reprocessBandwidthFailedStreams();
    void reprocessBandwidthFailedStreams(IntfId intf);
    [[nodiscard]] std::shared_ptr<BwFailedIntf> bandwidthFailedIntf(IntfId intf) const {
        return inputs_.waiting->bandwidthFailedIntf(intf);
    }
    std::shared_ptr<BwFailedIntf> bandwidthFailedIntfIs(IntfId intf) {
        return inputs_.waiting->bandwidthFailedIntfIs(intf);
    }
    void bandwidthFailedIntfDel(IntfId intf) { inputs_.waiting->bandwidthFailedIntfDel(intf); }
    void bandwidthFailedIntfDelAll() { inputs_.waiting->bandwidthFailedIntfDelAll(); }
    void bandwidthReleasedIs(IntfId intf, bool released) { bandwidthReleased_[intf] = released; }
    void bandwidthReleasedDel(IntfId intf) { bandwidthReleased_.erase(intf); }
    void bandwidthReleasedDelAll() { bandwidthReleased_.clear(); }

    [[nodiscard]] TrafficClass cosToTc(Cos cos) const;
    /// A queue number; 16 for none.
    [[nodiscard]] U8 tcToTxQueue(TrafficClass tc) const;
    [[nodiscard]] U8 tcToMcTxQueue(TrafficClass tc) const;
    [[nodiscard]] Qos::TxQueue getAvbQueue(SrClassId srClass) const;
    [[nodiscard]] bool avbBwValidOnTxQ(const std::shared_ptr<const IntfStatus>& intfStatus,
                                       Qos::TxQueue queue) const;
    void doSetQosTxQueueConfig(IntfId intf);
    /// That a stream with such frames (octets) has, or gives back, bandwidth of the class on the port: queues
    /// are shaped by the largest (IEEE 802.1Q L.3).
    void frameReserved(IntfId intf, SrClassId srClass, U16 maxFrameSize, bool there);
    void doUpdateShapeRate();
    void doSetCosToTcMap();

    // Stream lifecycle
    // --------------------------------------------------------------------------------------------
    /// The stream's record: a new one that waits to be published, or the published one.
    std::shared_ptr<StreamData> addStreamToAddPending(const U64& id);
    void removeStreamFromAddPending(const U64& id);
    void addStreamToDeletePending(const U64& id);
    void removeStreamFromDeletePending(const U64& id);
    void addTalkerToDeletePending(const U64& id, IntfId intf);
    void removeTalkerFromDeletePending(const U64& id, IntfId intf);
    std::shared_ptr<StreamDeleteIntfs> deletePendingStreamIntfsIs(const U64& id) {
        return pending_.removeTalkerIs(id);
    }
    void deletePendingStreamIntfsDel(const U64& id) { pending_.removeTalker.erase(id); }
    void deletePendingStreamIntfsDelAll() { pending_.removeTalker.clear(); }
    /// Drops what a stream without a talker no longer needs, and the stream itself when nobody asks for it.
    void cleanupStreamDataIfEmpty(const U64& id);
    /// True while reviews must not run: in standby, before initialisation, and until a take-over is done.
    [[nodiscard]] bool reviewsSuspended() const { return !acts(); }
    [[nodiscard]] std::map<U64, bool>& addPendingStream() { return pending_.add; }
    [[nodiscard]] std::map<U64, bool>& deletePendingStream() { return pending_.remove; }
    [[nodiscard]] std::map<U64, std::shared_ptr<StreamDeleteIntfs>>& deletePendingStreamIntfs() {
        return pending_.removeTalker;
    }

    // Bridging
    // ----------------------------------------------------------------------------------------------------
    [[nodiscard]] std::string baseSpanningTreeTopo(IntfId intf) const;
    [[nodiscard]] bool isPortForwarding(IntfId intf) const;
    void setPortState(IntfId intf);
    void handlePortState(const std::string& topoName, IntfId intf);
    /// This bridge's identifier as seen on the port: priority in the top 16 bits, MAC address below.
    [[nodiscard]] U64 selfBridgeId(IntfId intf) const;
    /// The id for a failure that this bridge finds, whatever state the port is in: one that has lost its base
    /// topology and is about to stop goes by the default priority.
    [[nodiscard]] U64 failureBridgeId(IntfId intf) const;
    [[nodiscard]] TalkerFailureCode checkVlanConfig(IntfId intf, const U64& streamId, U16 vlan);
    /// One VLAN's entry of a topology port has changed; without a VLAN, all are looked at.
    void handleVlanPortConfig(const std::string& topoName, IntfId intf, VlanId vlan);
    void handleVlanPortConfig(const std::string& topoName, IntfId intf);
    void handleNativeVlan(IntfId intf);

    // What its followers tell of the records that it reads
    // --------------------------------------------------------------------
    void handleCliConfig(const State::Change& change);
    void handleStpMode();
    void handleVlanConfig(VlanId vlan);
    /// The record of the switch port has come, was replaced or has gone.
    void handleSwitchIntfConfig(IntfId intf);
    /// A record of the interface has come or was replaced.
    void followIntf(IntfId intf);
    void closeTopoPort(const std::string& name, const Bridging::Topology::TopoPort& port);
    void handleRefusal(const State::Change& change);

private:
    // A change of "msrp/cliConfig", by field
    void shapingChanged(const State::Change&) { doUpdateShapeRate(); }
    template <SrClassId srClass>
    void classSupportChanged(const State::Change&);
    void classPriorityChanged(const State::Change&);
    void streamVlanChanged(const State::Change&);
    void bandwidthPercentChanged(const State::Change&);
    void latencyChanged(const State::Change& change);
    /// It binds each stream from the next repetition of its declaration.
    void frameSizeLimitChanged(const State::Change&) {}

    /// One port's entry into a class, or exit from it, for every stream of the class.
    struct ClassWalk {
        IntfId intf;
        SrClassId srClass{};
        U16 vlanId = 0;  ///< 0: every VLAN
        /// What the streams fail with, or `noFailure` where they leave; none: they enter.
        std::optional<TalkerFailureCode> code;
        U64 next = 0;  ///< the stream to go on with
    };

    /// Takes over the shares that are configured; true when one has grown.
    bool keepPercentages();
    /// The same for the VLANs that streams use; the ports on which it is another one now.
    std::vector<IntfId> keepStreamVlans();
    template <class Act>
    void everyPort(Act act);

    // Work in pieces
    [[nodiscard]] static Runtime::Chores::Lane portLane(IntfId intf) { return intf.number(); }
    [[nodiscard]] static Runtime::Chores::Lane retryLane(IntfId intf) { return 1ULL << 56U | intf.number(); }
    [[nodiscard]] static Runtime::Chores::Lane addressLane(EthAddr addr) {
        return 2ULL << 56U | addr.number();
    }
    static constexpr Runtime::Chores::Lane switchLane = 3ULL << 56U;
    /// The port has work left of what happened to it.
    [[nodiscard]] bool busy(IntfId intf) const { return chores_.busy(portLane(intf)); }
    /// Whether it has work left for the streams of that class.
    [[nodiscard]] bool busy(IntfId intf, SrClassId srClass) const {
        return classWork_.contains({intf, srClass});
    }
    void addClassWork(IntfId intf, SrClassId srClass, Runtime::Chores::Job job);
    void laneIdle(Runtime::Chores::Lane lane);
    /// Goes on with what waited for the port's work to be done.
    void settlePort(IntfId intf);
    /// Tells the engine what was done, beyond the ordinary, on its behalf.
    void spend(unsigned units) {
        spent_ += units;
        inputs_.msrpLib->mrpSpend(units);
    }
    /// Calls `visit(id, stream)` for these streams from `next` on, as far as `units` go; true when it has
    /// come to the end.  `visit` may add and delete streams.
    template <class Visit>
    bool walkStreams(U16 vlanId, U64& next, unsigned& units, Visit visit);
    void walkSoon(ClassWalk walk);
    bool walkClass(ClassWalk& walk, unsigned& units);
    void enterClass(const ClassWalk& walk, U64 id, StreamData& stream);
    void exitClass(const ClassWalk& walk, U64 id, StreamData& stream);
    /// The stream fails on a port to which it is declared.
    void failEgress(StreamData& stream, IntfId intf, TalkerFailureCode code);
    /// The stream's talker, whose advertise is registered, fails for all other ports.
    void failIngress(StreamData& stream, TalkerFailureCode code);
    /// Drops what is left when the role changes.
    void dropWork();

    // Ports
    /// This agent may change what is published.
    [[nodiscard]] bool acts() const { return initialized() && !standbyMode() && !takingOver_; }
    /// The port has a status and this agent may change it.
    [[nodiscard]] bool actsOn(IntfId intf) const;
    void createIntfStatus(IntfId intf);
    /// Publishes the speed under which the port admits streams.
    void setSpeed(IntfId intf);
    void admitPort(IntfId intf);
    /// Some class has left NotSupported.
    [[nodiscard]] bool runs(IntfId intf) const;
    void stopPort(IntfId intf);
    /// Configured to run MSRP, and not at the end of the agent.
    [[nodiscard]] bool isEnabled(IntfId intf) const { return !ending_ && config().intfEnable(intf); }
    /// Takes the port out of both classes, with every stream and listener on it.
    void leaveClasses(IntfId intf);
    /// Looks anew whether the port forwards, and enables or stops it accordingly.
    void refreshPort(IntfId intf);
    /// True for a port that declarations are propagated to: enabled, and with a status.
    [[nodiscard]] bool isCandidate(IntfId intf) const {
        return config().intfEnable(intf) && inputs_.status->intfStatus().contains(intf);
    }
    /// A withdrawal goes to all of these: a port that was disabled while nobody acted still has declarations.
    [[nodiscard]] std::vector<IntfId> portsWithStatus() const;
    /// Stops the port and removes its status.
    void removePort(IntfId intf);
    void removeIntfStatus(IntfId intf);
    /// How far a port is to be taken down once its work is done, also when it is to run again by then.
    enum class Ending : U8 { none, stop, remove };
    void endsAfterWork(IntfId intf, Ending ending);
    /// Lets the port start over: out of both classes, nothing registered, then enabled again.
    void readmitPort(IntfId intf);
    /// Withdraws every listener that is still recorded for a port that has lost its classes.
    void releaseListeners(IntfId intf);
    /// Drops the port's registrations in the engine, as soon as its work is done.
    void forgetRegistrations(IntfId intf);

    // Streams
    [[nodiscard]] std::shared_ptr<StreamData> existingStream(U64 streamId) const;
    void removeFromBandwidthQueues(U64 streamId);
    /// Forgets that the stream waits for anything.
    void removeFromQueues(U64 streamId, EthAddr macDa);
    void clearIngress(StreamData& stream);
    /// The stream could take its destination address now.
    [[nodiscard]] bool addressFree(const StreamData& stream) const;
    /// Makes the working tables anew from what is published.
    bool rebuildStreams(U64& next, unsigned& units);
    /// Puts the group in the place of one that is known by its address only; none if there is no such one.
    void findGroup(StreamData& stream);
    void rebuildQueues();
    void rebuildAllocations();
    /// Takes over what is published; several turns where that is much.
    void takeOver();
    /// Tells the fresh engine what the published records say was declared and registered, so that no peer
    /// loses anything by the change of roles; then every port asks with a LeaveAll who still means it.
    struct Seeding {
        std::vector<IntfId> ports;  ///< still to be seeded, the next one last
        U64 next = 0;               ///< stream of that port; 0 before the first one
    };
    bool seedEngine(Seeding& seeding, unsigned& units);
    /// False for a port without a class, about which there is nothing to tell.
    bool seedDomains(IntfId intf);
    void seedStream(const StreamData& stream, IntfId intf);
    void finishTakeOver();
    /// Every configured port, as link, topology and configuration are now.
    void refreshPorts();
    /// What was on its way out when the other side stopped acting goes now.
    void catchUpWithStream(StreamData& stream);
    void catchUpWithStream(StreamData& stream, const StreamPort& port);
    /// Forgets a port that has no status any more.
    void dropPort(StreamData& stream, IntfId intf);
    /// Puts into effect what was configured while nobody acted.
    void catchUpWithConfig();
    /// A piece of it: VLANs from `next` on.  True when all are done.
    bool catchUpWithVlans(U16& next, unsigned& units);
    /// Removes groups and queue configurations that belong to no stream: left over, they would block
    /// addresses for ever.
    void removeLeftovers();

    // VLANs
    /// Throws std::range_error for a VLAN out of range.
    [[nodiscard]] struct VlanFacts vlanFacts(IntfId intf, U16 vlan) const;
    void tellVlan(const struct VlanVerdict& verdict, IntfId intf, U64 streamId, U16 vlan) const;

    // Talkers
    template <class Attribute>
    void registerTalker(StreamData& stream, IntfId intf, const Attribute& attr, SrClassId srClass,
                        U32 chargedFrames);
    template <class Attribute>
    [[nodiscard]] struct TalkerFacts talkerFacts(IntfId intf, const Attribute& attr) const;
    [[nodiscard]] struct ListenerFacts listenerFacts(IntfId intf, const MsrpListenerAttribute& attr,
                                                     const StreamData* stream) const;
    [[nodiscard]] std::shared_ptr<StreamData> newTalkerStream(U64 streamId, IntfId intf);
    void claimGroup(StreamData& stream, IntfId intf);
    [[nodiscard]] TalkerFailureCode judgeAdvertise(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr,
                                                   const StreamData* known, SrClassId srClass);
    [[nodiscard]] TalkerFailureCode checkMacDaInUse(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr);
    /// A second look at the streams that wait for an address; true when all had theirs.
    bool retryAddress(EthAddr macDa, U32& next, U32 last, unsigned& units);
    [[nodiscard]] struct EgressFacts egressFacts(IntfId port, const StreamData& stream) const;
    [[nodiscard]] TalkerFailureCode judgeEgress(IntfId port, StreamData& stream, IntfId ingressIntf);
    bool discard(IntfId intf, MsrpCounter counter, const std::string& text);
    void dropFailureCode(StreamData& stream, IntfId intf);
    /// What ends with a failure code of a port.
    void failureCodeGone(StreamData& stream, IntfId intf, TalkerFailureCode old);
    void transmitTalkerAdvertise(IntfId intf, StreamData& stream, TalkerState state);
    /// The stream as it is declared on a port: with what this bridge adds to its latency.
    [[nodiscard]] MsrpTalkerAdvertiseAttribute declaredOn(IntfId intf, const StreamData& stream) const;
    void declareAgain(IntfId intf, const StreamData& stream, U8 request = Mrp::requestDeclare);
    /// Ports that have failed the stream name the bridge that is the cause by now; `before` it was that one.
    void failedBridgeChanged(const StreamData& stream, U64 before);
    void send(IntfId intf, U8 type, U8 request, std::span<const U8> value, U32 declaration = 0);

    // Bandwidth
    [[nodiscard]] struct AdmissionRequest admissionRequest(IntfId intf, SrClassId srClass, U64 needed) const;
    /// Begins the retries that are due.
    void retrySoon();
    void beginRetries();
    bool retryPort(IntfId intf, U32& next, U32 last, unsigned& units);
    [[nodiscard]] bool stillWaitsForBandwidth(const StreamData& stream, IntfId intf) const;
    [[nodiscard]] bool portCanCarry(const StreamData& stream, IntfId intf) const;
    void retryBandwidth(StreamData& stream, IntfId intf);
    void programTxQueue(Qos::Input::IntfConfig& config, Qos::TxQueue queue, U64 bandwidth);

    // What could not be carried out
    /// The stream's group has been refused, or there is room for it again.
    void reviewGroup(const Switch::GroupId& group);
    void reviewGroupOf(StreamData& stream);
    /// The port cannot give a stream its bandwidth, or can again.
    void reviewShaping(IntfId intf);
    void reviewShapingOf(StreamData& stream, IntfId intf);
    [[nodiscard]] bool groupRefused(const Switch::GroupId& group) const;
    void tellGroupRefused(U64 streamId, IntfId intf, const Switch::GroupId& group) const;
    [[nodiscard]] bool shapingRefused(const StreamData& stream, IntfId intf) const;

    template <class... Arguments>
    void log(const Runtime::LogEvent& event, const Arguments&... arguments) const {
        platform_.systemLog.log(event, arguments...);
    }
    /// MSRP_ERROR and the trace with it.
    void error(const std::string& text) const;
    /// The same for a declaration that is discarded.
    void discard(const std::string& text) const;

    Inputs inputs_;
    Platform platform_;
    bool initialized_ = false;
    U8 percentA_ = 0;  ///< the shares at their last change, to tell growth from shrinkage
    U8 percentB_ = 0;
    State::FlatMap<IntfId, SrPvid> srPvid_;  ///< the VLANs at their last change
    U16 defaultSrPvid_ = 0;
    bool takingOver_ = false;
    bool ending_ = false;  ///< all ports are being closed for good
    unsigned spent_ = 0;   ///< units of work, ever

    StreamTable streams_;
    PendingStreams pending_;
    std::map<IntfId, bool> bandwidthReleased_;
    /// How many streams of class A with frames of each size have bandwidth on a port.
    std::map<IntfId, std::map<U16, std::size_t>> reservedFrames_;
    /// Jobs that ports have left for a class.
    std::map<std::pair<IntfId, SrClassId>, unsigned> classWork_;
    /// What a peer last said of a class while its port had such work left, and whether it was a join.
    std::map<std::pair<IntfId, SrClassId>, std::pair<MsrpDomainAttribute, bool>> domainDue_;
    /// What was declared to be taken over.
    std::map<std::pair<IntfId, SrClassId>, MsrpDomainAttribute> seededDomains_;
    /// Ports to be enabled or ended when their work is done, and what is due before that.
    std::map<IntfId, Ending> settleDue_;
    std::set<IntfId> withoutTime_;  ///< ports of which it was said that they keep no common time
    std::set<IntfId> forgetDue_;    ///< ... to drop their registrations then
    std::set<IntfId> retryDue_;     ///< ports that released bandwidth
    std::set<EthAddr> addressDue_;  ///< addresses that may be free
    bool retriesPosted_ = false;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  ///< ends with the state machine
    std::unique_ptr<MsrpAdditionSm> msrpAdditionSm_;
    std::unique_ptr<MsrpDeletionSm> msrpDeletionSm_;

    InputFollowers followers_{*this};
    /// Behind everything that it works on.
    Runtime::Chores chores_;
};

template <class Visit>
bool MsrpSm::walkStreams(U16 vlanId, U64& next, unsigned& units, Visit visit) {
    while (const auto id = streams_.next(vlanId, next)) {
        next = *id;
        if (units == 0) return false;
        const std::shared_ptr<StreamData> stream = streamList(*id);
        const unsigned before = spent_;
        visit(*id, *stream);
        units -= std::min(units, 1 + (spent_ - before));
        if (++next == 0) break;  // that was the last id of all
    }
    return true;
}

}  // namespace Msrp
