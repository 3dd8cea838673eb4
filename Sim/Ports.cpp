#include "Sim/Ports.h"

namespace Sim {

class Ports::Port : public Mrp::PacketPort {
public:
    Port(Ports& ports, IntfId intf, Receiver receiver)
        : ports_{ports}, intf_{intf}, receiver_{std::make_shared<Receiver>(std::move(receiver))} {
        ports_.open_[intf_] = receiver_;
    }
    ~Port() override {
        // The port may have been opened anew before this one went.
        const auto at = ports_.open_.find(intf_);
        if (at != ports_.open_.end() && at->second == receiver_) ports_.open_.erase(at);
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
        const auto at = open_.find(intf);
        if (at == open_.end()) return;
        const std::shared_ptr<Receiver> receiver = at->second;
        (*receiver)(pdu);
    });
}

std::unique_ptr<Mrp::PacketPort> Ports::open(IntfId intf, Receiver receiver) {
    return std::make_unique<Port>(*this, intf, std::move(receiver));
}

}  // namespace Sim
