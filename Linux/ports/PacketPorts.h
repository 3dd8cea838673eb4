/// Ports on real Ethernet interfaces: one packet socket for each.
///
/// A frame is ours when it was sent by somebody else to the protocol's group address with the protocol's
/// EtherType and without a VLAN tag.  The kernel itself decides, by a filter that stands before the socket
/// hears of its interface, so that foreign traffic neither wakes the process nor fills the queue.
#pragma once

#include "Linux/links/Device.h"
#include "Mrp/PacketPort.h"
#include "Runtime/Loop.h"
#include "Switch/EthAddr.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace Linux {

/// What tells one protocol's frames from another's; MSRP's unless said otherwise (IEEE
/// 802.1Q 35.2.2.1, 35.2.2.2).
struct PacketProtocol {
    std::uint16_t etherType = 0x22EA;
    EthAddr group = EthAddr::fromNumber(0x0180C200000E);
};

/// IEEE 802.1Q 11.2.3.1.2
inline constexpr PacketProtocol mvrpProtocol{0x88F5, EthAddr::fromNumber(0x0180C2000021)};

/// What passed through one interface's ports since the provider was made.
struct PortCounters {
    std::uint64_t sent = 0;
    std::uint64_t sendDropped = 0;  ///< interface away or down, or the kernel's queue full
    std::uint64_t received = 0;
    std::uint64_t receiveDropped = 0;  ///< longer than a frame may be, or more than the socket could hold
    EthAddr lastSource{};              ///< of the last frame that was received; zero: there was none
};

enum class Direction { received, sent };

class PacketPorts : public Mrp::PacketPortProvider {
public:
    /// Sees a whole frame as it is on the wire, padding included; the octets are valid during the call only.
    /// Must not call back.
    using Tap = std::function<void(IntfId intf, Direction direction, std::span<const std::uint8_t> frame)>;
    /// Takes one line about something that an operator should know.
    using Complaint = std::function<void(const std::string& line)>;

    /// The loop must outlive the provider, and the provider its ports.
    explicit PacketPorts(Runtime::FdLoop& loop, PacketProtocol protocol = {}, Complaint complaint = {});
    ~PacketPorts() override;

    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override;

    /// Tells where the interface of that name is now.  A port follows it there.  To be told at every link
    /// event; it costs little when nothing moved, and gives a port whose socket could not be opened another
    /// chance.
    void interfaceIs(IntfId intf, const Place& place);

    /// Shows `tap` every frame that a port has sent, and every one that it receives, before its receiver gets
    /// it.  An empty one ends that, and costs nothing.
    void tapIs(Tap tap) { tap_ = std::move(tap); }

    /// Nothing is sent while `open` says no.
    void gateIs(std::function<bool()> open) { gate_ = std::move(open); }

    /// All zero for an interface that never had a port.
    [[nodiscard]] PortCounters counters(IntfId intf);
    /// They begin at zero again.
    void countersClear();

private:
    class Port;
    struct Batch;

    Runtime::FdLoop& loop_;
    const PacketProtocol protocol_;
    const Complaint complaint_;
    Tap tap_;
    std::function<bool()> gate_;
    std::map<IntfId, Place> places_;
    std::map<IntfId, PortCounters> counters_;
    std::vector<Port*> ports_;
    std::unique_ptr<Batch> batch_;  ///< where frames are received; shared, since one port reads at a time
};

}  // namespace Linux
