/// What a simulated bridge says and hears, as captures have it.
#pragma once

#include "Plan/replay/Traffic.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Plan {

struct Heard {
    Pcapng::WallTime time{};
    std::string port{};
    bool sent = false;
    Sim::Pdu pdu{};
};

/// Stands between an agent and its ports.
class Tap : public Mrp::PacketPortProvider {
public:
    explicit Tap(const Runtime::Loop& loop) : loop_{loop} {}
    void inner(Mrp::PacketPortProvider& ports) { ports_ = &ports; }
    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override {
        return std::make_unique<Port>(*this, intf, std::move(receiver));
    }
    std::vector<Heard> frames{};

private:
    struct Port : Mrp::PacketPort {
        Port(Tap& tap, IntfId intf, Receiver receiver) : tap_{tap}, intf_{intf} {
            open_ = tap.ports_->open(intf, [this, receiver](std::span<const std::uint8_t> pdu) {
                tap_.note(intf_, false, pdu);
                receiver(pdu);
            });
        }
        bool send(std::span<const std::uint8_t> pdu) override {
            tap_.note(intf_, true, pdu);
            return open_->send(pdu);
        }
        Tap& tap_;
        IntfId intf_;
        std::unique_ptr<Mrp::PacketPort> open_{};
    };
    void note(IntfId intf, bool sent, std::span<const std::uint8_t> pdu) {
        frames.push_back({loop_.wallNow(), intf.name(), sent, {pdu.begin(), pdu.end()}});
    }
    const Runtime::Loop& loop_;
    Mrp::PacketPortProvider* ports_ = nullptr;
};

/// The frame around a PDU; the bridge's address is 02:00:00:00:00:01, that of its peers ends in 99.
inline Pcapng::Octets framed(const Heard& heard, bool tagged = false) {
    Pcapng::Octets out{0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e, 0x02, 0, 0, 0, 0};
    out.push_back(heard.sent ? 0x01 : 0x99);
    if (tagged) out.insert(out.end(), {0x81, 0x00, 0x00, 0x00});
    out.insert(out.end(), {0x22, 0xea});
    out.insert(out.end(), heard.pdu.begin(), heard.pdu.end());
    return out;
}

/// With an interface for each port; without `directions`, only the addresses tell who sent a frame.
inline Pcapng::Octets pcapngOf(const std::vector<Heard>& frames, bool directions = true) {
    Pcapng::Octets out = Pcapng::sectionHeader();
    const auto add = [&](const Pcapng::Octets& block) { out.insert(out.end(), block.begin(), block.end()); };
    std::vector<std::string> ports;
    for (const Heard& heard : frames) {
        auto at = std::ranges::find(ports, heard.port);
        if (at == ports.end()) {
            add(Pcapng::interfaceDescription(heard.port));
            at = ports.insert(at, heard.port);
        }
        const Pcapng::Octets frame = framed(heard);
        const auto way = heard.sent ? Pcapng::Direction::outbound : Pcapng::Direction::inbound;
        add(Pcapng::enhancedPacket({.interface = static_cast<std::uint32_t>(at - ports.begin()),
                                    .time = heard.time,
                                    .direction = directions ? way : Pcapng::Direction::unknown,
                                    .frame = frame}));
    }
    return out;
}

}  // namespace Plan
