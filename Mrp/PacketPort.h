/// The way to the wire, as the engine sees it.
#pragma once

#include "Switch/IntfId.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace Mrp {

/// One open port that sends and receives frames of one protocol (one destination group address and
/// EtherType). Closes with its destruction.
class PacketPort {
public:
    virtual ~PacketPort() = default;
    /// Octets that an MRPDU may have to fit into a frame at the moment.
    [[nodiscard]] virtual std::size_t capacity() const { return 1500; }
    /// Sends one MRPDU (what follows the EtherType; the port adds addresses, EtherType and padding).  At most
    /// 1500 octets; one above the present capacity is lost.  False when the frame could not be handed to the
    /// wire; the protocol repeats itself, so nobody retries.
    virtual bool send(std::span<const std::uint8_t> pdu) = 0;
};

/// Makes ports.  An interface that comes and goes is the provider's business: an open port of an interface
/// that is away sends nothing and receives nothing, and works again when the interface is back.
class PacketPortProvider {
public:
    /// Takes one received MRPDU; the octets are valid during the call only.  Called from the loop, never from
    /// inside `send` or `open`.
    using Receiver = std::function<void(std::span<const std::uint8_t> pdu)>;

    virtual ~PacketPortProvider() = default;
    /// Never null.
    virtual std::unique_ptr<PacketPort> open(IntfId intf, Receiver receiver) = 0;
};

}  // namespace Mrp
