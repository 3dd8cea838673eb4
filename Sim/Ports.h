/// Packet ports of a simulated device: what one side sends is handed to whoever holds the other end of the
/// cable, one task later on the loop.
#pragma once

#include "Mrp/PacketPort.h"
#include "Runtime/Loop.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <vector>

namespace Sim {

using Pdu = std::vector<std::uint8_t>;

class Ports : public Mrp::PacketPortProvider {
public:
    using Handler = std::function<void(const Pdu&)>;

    explicit Ports(Runtime::Loop& loop) : loop_{loop} {}

    /// Who gets what the device sends on `intf`.
    void cableIs(IntfId intf, Handler farEnd) { farEnd_[intf] = std::move(farEnd); }
    /// Octets that a PDU of the device may have there, 1500 unless said otherwise; longer ones are lost.
    void capacityIs(IntfId intf, std::size_t octets) { capacity_[intf] = octets; }
    /// Hands a PDU to the device; lost when the port is not open by the time it arrives.
    void deliver(IntfId intf, const Pdu& pdu);
    /// How many the device has received there.
    [[nodiscard]] std::size_t delivered(IntfId intf) const {
        const auto at = delivered_.find(intf);
        return at == delivered_.end() ? 0 : at->second;
    }
    /// Whether the device listens there.
    [[nodiscard]] bool isOpen(IntfId intf) const { return open_.contains(intf); }

    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override;

private:
    class Port;
    Runtime::Loop& loop_;
    std::map<IntfId, Handler> farEnd_;
    std::map<IntfId, std::size_t> capacity_;
    std::map<IntfId, std::size_t> delivered_;
    /// As with the sockets of a real interface, several may be open at once, and each gets every frame.
    std::multimap<IntfId, std::shared_ptr<Receiver>> open_;
};

}  // namespace Sim
