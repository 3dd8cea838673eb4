/// An AVB end station with one port: talker, listener, or both (IEEE 802.1Q 35.1.2).
///
/// It remembers what it wants (classes, streams that it talks, streams that it listens to) and declares that
/// whenever its link is up; what the bridge declares comes back as events.  A listener follows its talker:
/// it is Ready while a Talker Advertise is there and Asking Failed otherwise, before the talker is known
/// included, so that the order in which stations start does not matter (35.2.3.1).
#pragma once

#include "Mrp/MrpSm.h"
#include "Msrp/types/Attributes.h"
#include "Station/Event.h"
#include "Switch/Interface.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Station {

/// One SR class as the station understands it (35.2.2.9).
struct Domain {
    Msrp::U8 priority = 0;
    Msrp::U16 vid = 2;  ///< the VLAN that talkers should use
};

/// One stream (35.2.2.8).  The priority tells its class.
struct TalkerSpec {
    Msrp::U64 streamId = 0;
    EthAddr macDa{};
    Msrp::U16 vlan = 2;
    Msrp::U8 priority = 3;
    Msrp::U16 maxFrameSize = 100;     ///< octets of one frame's data
    Msrp::U16 maxIntervalFrames = 1;  ///< frames in one class measurement interval
    Msrp::U8 rank = 1;                ///< 0 for emergencies
    Msrp::U32 latency = 0;            ///< nanoseconds within the station itself
};

class EndStation : private Mrp::MrpLib {
public:
    /// Everything referred to must outlive the station.
    struct Environment {
        Runtime::Loop& loop;
        Mrp::PacketPortProvider& ports;
        const Runtime::Trace& trace;
        std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> links;  ///< followed; never null
        std::uint64_t seed;                                              ///< of the timers' random parts
        std::function<void(const Event&)> tell;
        /// Takes lines about malformed frames and the like.  May be empty.
        std::function<void(const std::string&)> report;
    };

    /// Class A has priority 3 and class B priority 2, both VLAN 2, until `domainIs` says otherwise.
    EndStation(IntfId intf, Environment environment);

    void domainIs(Msrp::SrClassId srClass, Domain domain);
    /// Declares the stream, or changes the declaration.
    void talk(const TalkerSpec& spec);
    void stopTalking(Msrp::U64 streamId);
    /// Declares a listener.  With `fixed` it declares that, whatever its talker does.
    void listen(Msrp::U64 streamId, std::optional<Msrp::ListenerState> fixed = {});
    void stopListening(Msrp::U64 streamId);
    /// Withdraws everything, at once and on the wire if the link is up; nothing is declared or heard after
    /// it. To be called at a clean end; mere destruction is like a pulled cable.
    void leave();
    /// For those who look on.
    [[nodiscard]] const Mrp::MrpSm& engine() const { return engine_; }

private:
    [[nodiscard]] const std::type_info& fwkType() const override;
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override;
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override;
    std::uint8_t talkerJoined(Msrp::U8 type, const TalkerEvent& heard);
    void talkerLeft(Msrp::U64 streamId, Msrp::TalkerState state);
    void listenerJoined(const Msrp::MsrpListenerAttribute& attribute);
    void listenerLeft(Msrp::U64 streamId);
    void domainJoined(const Msrp::MsrpDomainAttribute& attribute);
    void domainLeft(Msrp::SrClassId srClass);

    void followLink();
    void forgetHeard();
    void request(Msrp::U8 type, std::span<const Msrp::U8> value, Msrp::U8 kind, Msrp::U32 declaration = 0);
    void sendDomain(Msrp::SrClassId srClass, Domain domain, Msrp::U8 kind);
    void sendTalker(const TalkerSpec& spec, Msrp::U8 kind);
    void sendListener(Msrp::U64 streamId, Msrp::U8 kind);
    void tell(const Event& event) const { environment_.tell(event); }

    const IntfId intf_;
    const Environment environment_;
    bool linkUp_ = false;

    std::map<Msrp::SrClassId, Domain> domains_;
    std::map<Msrp::U64, TalkerSpec> talks_;
    std::map<Msrp::U64, std::optional<Msrp::ListenerState>> listens_;

    std::map<Msrp::U64, TalkerEvent> heardTalkers_;
    std::map<Msrp::U64, ListenerEvent> heardListeners_;
    std::map<Msrp::SrClassId, DomainEvent> heardDomains_;

    Mrp::MrpSm engine_;
    State::Reactor linkReactor_;
};

}  // namespace Station
