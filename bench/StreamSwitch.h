/// A simulated switch whose ports carry streams, and whose frames nobody reads while it works: what is
/// measured is the agent's own work.
#pragma once

#include "Mrp/Decoder.h"
#include "Msrp/types/Attributes.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"

#include <cstddef>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

namespace Bench {

class StreamSwitch {
public:
    /// The agent runs, all ports are core ports of both classes, each fast enough for tens of thousands of
    /// streams.
    /// `history`: what happens is remembered.
    explicit StreamSwitch(std::size_t ports, bool history = false) : ports_{names(ports)} {
        bridge_.mrpConfig->maxAttributesPerTypeIs(1'000'000);
        bridge_.mrpConfig->leaveAllTimeIs(600'000);  // no LeaveAll while something is measured
        for (const std::string& port : ports_) bridge_.speedIs(port, Interface::Speed::speed400Gbps);
        if (history) bridge_.historyStart();
        bridge_.start();
        settle();
        for (const std::string& port : ports_) Sim::Peer{bridge_, port}.say(Sim::domains());
        for (std::size_t port = 0; port < ports; ++port)
            bridge_.ports().cableIs(IntfId{ports_[port]},
                                    [this, port](const Sim::Pdu& pdu) { sent_[port].push_back(pdu); });
        settle();
    }

    /// Hands PDUs of the peer at that port to the agent; `port` counts from 0.
    void hear(std::size_t port, const std::vector<Sim::Pdu>& pdus) {
        for (const Sim::Pdu& pdu : pdus) bridge_.ports().deliver(IntfId{ports_[port]}, pdu);
    }
    void run(Runtime::Duration span) { loop_.runFor(span); }
    void forgetSent() { sent_ = std::vector<std::vector<Sim::Pdu>>(ports_.size()); }
    /// How many attributes of that type the agent has declared on the port since then.
    [[nodiscard]] std::size_t declared(std::size_t port, std::uint8_t type) const {
        std::unordered_set<std::uint64_t> keys;
        Mrp::DecodedPdu decoded;
        for (const Sim::Pdu& pdu : sent_[port]) {
            Mrp::decode(pdu, Msrp::application(), decoded);
            for (const Mrp::DecodedEvent& event : decoded.events) {
                const Mrp::AttributeType& kind = Msrp::application().types[event.typeIndex];
                if (kind.type == type && Mrp::declares(event.event))
                    keys.insert(kind.key(std::span{event.value.octets}.first(kind.valueLength)));
            }
        }
        return keys.size();
    }
    /// Time for what is repeated, published and aged.
    void settle() {
        loop_.runFor(std::chrono::seconds{2});
        forgetSent();
    }

    [[nodiscard]] Sim::Bridge& bridge() { return bridge_; }
    [[nodiscard]] Runtime::Loop& loop() { return loop_; }
    [[nodiscard]] std::size_t ports() const { return ports_.size(); }

private:
    static std::vector<std::string> names(std::size_t ports) {
        std::vector<std::string> out;
        for (std::size_t port = 1; port <= ports; ++port) out.push_back('p' + std::to_string(port));
        return out;
    }

    std::vector<std::string> ports_;
    std::vector<std::vector<Sim::Pdu>> sent_{ports_.size()};
    Runtime::VirtualLoop loop_;
    Sim::Bridge bridge_{loop_, ports_};
};

}  // namespace Bench
