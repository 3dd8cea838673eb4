/// A simulated switch whose ports carry streams, and whose frames nobody reads: what is measured is the
/// agent's own work.
#pragma once

#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Bench {

class StreamSwitch {
public:
    /// The agent runs, all ports are core ports of both classes, each fast enough for tens of thousands of
    /// streams.
    explicit StreamSwitch(std::size_t ports) : ports_{names(ports)} {
        bridge_.mrpConfig->maxAttributesPerTypeIs(1'000'000);
        bridge_.mrpConfig->leaveAllTimeIs(600'000);  // no LeaveAll while something is measured
        for (const std::string& port : ports_) bridge_.speedIs(port, Interface::Speed::speed400Gbps);
        bridge_.start();
        settle();
        for (const std::string& port : ports_) Sim::Peer{bridge_, port}.say(Sim::domains());
        for (const std::string& port : ports_) bridge_.ports().cableIs(IntfId{port}, [](const Sim::Pdu&) {});
        settle();
    }

    /// Hands PDUs of the peer at that port to the agent; `port` counts from 0.
    void hear(std::size_t port, const std::vector<Sim::Pdu>& pdus) {
        for (const Sim::Pdu& pdu : pdus) bridge_.ports().deliver(IntfId{ports_[port]}, pdu);
    }
    /// How many declarations the agent has sent on the port that were news to the peer.
    [[nodiscard]] std::uint64_t joined(std::size_t port) const {
        return bridge_.mrpStatus->intf(IntfId{ports_[port]})->txEvents(Mrp::Event::JoinMt);
    }
    /// Runs until every port from `first` up to (not including) `last` has sent `count` more than `before`.
    /// False when that takes an opportunity beyond the first ones: then repetitions would be among them.
    bool untilJoined(std::size_t first, std::size_t last, const std::vector<std::uint64_t>& before,
                     std::size_t count) {
        return loop_.runUntil(
            [&] {
                for (std::size_t port = first; port < last; ++port) {
                    if (joined(port) < before[port] + count) return false;
                }
                return true;
            },
            std::chrono::milliseconds{50});
    }
    [[nodiscard]] std::vector<std::uint64_t> joined() const {
        std::vector<std::uint64_t> counts;
        for (std::size_t port = 0; port < ports_.size(); ++port) counts.push_back(joined(port));
        return counts;
    }
    /// Time for what is repeated, published and aged.
    void settle() { loop_.runFor(std::chrono::seconds{2}); }

    [[nodiscard]] Sim::Bridge& bridge() { return bridge_; }
    [[nodiscard]] std::size_t ports() const { return ports_.size(); }

private:
    static std::vector<std::string> names(std::size_t ports) {
        std::vector<std::string> out;
        for (std::size_t port = 1; port <= ports; ++port) out.push_back('p' + std::to_string(port));
        return out;
    }

    std::vector<std::string> ports_;
    Runtime::VirtualLoop loop_;
    Sim::Bridge bridge_{loop_, ports_};
};

}  // namespace Bench
