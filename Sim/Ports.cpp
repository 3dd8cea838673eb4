#include "Sim/Ports.h"

namespace Sim {

class Ports::Port : public Mrp::PacketPort {
public:
    Port(Ports& ports, IntfId intf, Receiver receiver)
        : ports_{ports}, intf_{intf}, receiver_{std::make_shared<Receiver>(std::move(receiver))} {
        ports_.open_.emplace(intf_, receiver_);
    }
    ~Port() override {
        std::erase_if(ports_.open_, [this](const auto& entry) { return entry.second == receiver_; });
    }
    [[nodiscard]] std::size_t capacity() const override {
        const auto at = ports_.capacity_.find(intf_);
        return at != ports_.capacity_.end() ? at->second : PacketPort::capacity();
    }
    bool send(std::span<const std::uint8_t> pdu) override {
        const auto farEnd = ports_.farEnd_.find(intf_);
        if (farEnd == ports_.farEnd_.end() || pdu.size() > capacity()) return false;
        ports_.loop_.post(
            [handler = farEnd->second, octets = Pdu(pdu.begin(), pdu.end())] { handler(octets); });
        return true;
    }

private:
    Ports& ports_;
    IntfId intf_;
    std::shared_ptr<Receiver> receiver_;
};

void Ports::deliver(IntfId intf, const Pdu& pdu) {
    loop_.post([this, intf, pdu] {
        // A receiver may open and close ports.
        const auto [first, last] = open_.equal_range(intf);
        for (const auto& [name, receiver] : std::vector(first, last)) {
            ++delivered_[intf];
            (*receiver)(pdu);
        }
    });
}

std::unique_ptr<Mrp::PacketPort> Ports::open(IntfId intf, Receiver receiver) {
    return std::make_unique<Port>(*this, intf, std::move(receiver));
}

}  // namespace Sim
