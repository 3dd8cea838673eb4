/// "linux/packets": what passed through the ports' sockets, asked of the kernel at the moment of reading.
#pragma once

#include "Linux/ports/PacketPorts.h"
#include "State/Record.h"

#include <functional>
#include <memory>
#include <string_view>

namespace Linux {

/// One port.
class IntfPackets : public State::Record<IntfPackets> {
public:
    static constexpr std::string_view type = "Linux::IntfPackets";
    explicit IntfPackets(IntfId) {}
    void sourceIs(std::function<PortCounters()> source) { source_ = std::move(source); }

    template <class F>
    static constexpr void fields(F&& each) {
        const auto counter = [](std::string_view name, std::uint64_t PortCounters::*which) {
            return State::derived<IntfPackets>(name, [which](const IntfPackets& record) {
                return record.source_ ? record.source_().*which : std::uint64_t{0};
            });
        };
        each(counter("sent", &PortCounters::sent));
        each(counter("sendDropped", &PortCounters::sendDropped));
        each(counter("received", &PortCounters::received));
        each(counter("receiveDropped", &PortCounters::receiveDropped));
        each(State::derived<IntfPackets>("lastSource", [](const IntfPackets& record) {
            return record.source_ ? record.source_().lastSource : EthAddr{};
        }));
    }

private:
    std::function<PortCounters()> source_;
};

class PacketStatus : public State::Record<PacketStatus> {
public:
    static constexpr std::string_view type = "Linux::PacketStatus";

    std::shared_ptr<IntfPackets> intfIs(IntfId id) { return makeChild(intf_, id, "intf"); }
    void intfDel(IntfId id) { delChild(intf_, id, "intf"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("intf", &PacketStatus::intf_));
    }

private:
    State::Collection<IntfId, IntfPackets> intf_;
};

}  // namespace Linux

// Made once, in PacketPorts.cpp.
extern template class State::Record<Linux::IntfPackets>;
extern template class State::Record<Linux::PacketStatus>;
