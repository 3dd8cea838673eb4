/// The far end of a bridge's port, word by word: sends the MRPDUs that a test makes, and remembers what the
/// bridge says.
#pragma once

#include "Mrp/Decoder.h"
#include "Msrp/types/Attributes.h"
#include "Sim/Bridge.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Sim {

/// A talker's declaration; the defaults are a class A stream of one frame of 100 octets per interval.
struct Talker {
    std::uint64_t id = 1;
    std::uint64_t macDa = 0x91'e0'f0'00'00'01;
    std::uint16_t vlan = 2;
    std::uint16_t maxFrameSize = 100;
    std::uint16_t frames = 1;
    std::uint8_t priority = 3;
    std::uint8_t rank = 1;
    std::uint32_t latency = 0;
};

/// What was declared, in words: "Advertise 0x1" (with " latency 500" behind it when there is one), "Failed
/// 0x1 code 8 bridge 0x8000020000000001", "Listener 0x1 Ready", "Domain 6 priority 3 vid 2".
std::string describe(std::uint8_t type, const Mrp::AttributeValue& value);

/// One attribute event of an MRPDU.
struct Say {
    Mrp::Event event;
    std::uint8_t type;
    std::vector<std::uint8_t> value;
    std::uint8_t declaration = 0;
};

Say advertise(const Talker& talker, Mrp::Event event = Mrp::Event::JoinMt);
Say failed(const Talker& talker, std::uint8_t code, std::uint64_t bridge = 0x8000'02'00'00'00'00'99,
           Mrp::Event event = Mrp::Event::JoinMt);
Say listener(std::uint64_t id, Msrp::ListenerState state, Mrp::Event event = Mrp::Event::JoinMt);
Say domain(Msrp::SrClassId srClass, std::uint8_t priority, Mrp::Event event = Mrp::Event::JoinMt,
           std::uint16_t vid = 2);
/// Class A of priority 3 and class B of priority 2.
std::vector<Say> domains(Mrp::Event event = Mrp::Event::JoinMt);

/// The value as the engine keeps it.
Mrp::AttributeValue valueOf(const Say& what);
/// The events in ascending order of type, in as many PDUs as they take; with `leaveAll` a LeaveAll of every
/// type before them.
std::vector<Pdu> pdusOf(std::vector<Say> events, bool leaveAll = false);

class Peer {
public:
    /// Puts itself at the far end of the bridge's port; the bridge must outlive it.
    Peer(Bridge& bridge, const std::string& port);
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Sends what `pdusOf` makes of the events.
    void say(std::vector<Say> events, bool leaveAll = false) {
        for (const Pdu& pdu : pdusOf(std::move(events), leaveAll)) sendRaw(pdu);
    }
    void say(Say event) { say(std::vector<Say>{std::move(event)}); }
    void sendRaw(const Pdu& pdu) { bridge_.ports().deliver(intf_, pdu); }

    /// What the bridge declares at the moment, one line for each attribute: "Advertise 0x1", "Failed 0x1 code
    /// 8 bridge 0x8000020000000001", "Listener 0x1 Ready", "Domain 6 priority 3 vid 2".
    [[nodiscard]] std::string registered() const;
    /// The events heard since the last call, one line for each: "JoinMt Advertise 0x1".
    std::string heard();
    [[nodiscard]] std::size_t frames() const { return frames_; }
    [[nodiscard]] const std::vector<Pdu>& pdus() const { return pdus_; }

private:
    void receive(const Pdu& pdu);

    Bridge& bridge_;
    IntfId intf_;
    std::map<std::pair<int, std::uint64_t>, std::string> registered_;  ///< by kind and key
    std::string heard_;
    std::size_t frames_ = 0;
    std::vector<Pdu> pdus_;
};

}  // namespace Sim
