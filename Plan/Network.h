/// A network that somebody plans: bridges and stations, links, streams, and what is to happen.
#pragma once

#include "Msrp/bandwidth/MediaFormats.h"
#include "Runtime/Time.h"
#include "State/Value.h"
#include "Switch/EthAddr.h"
#include "Switch/Interface.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Plan {

/// A line of a file; 0: no line in particular.
struct Place {
    std::string file{};
    unsigned line = 0;
    /// "net.dot:12"
    [[nodiscard]] std::string text() const;
};

struct Device {
    std::string name;
    bool bridge = false;
    EthAddr address{};
    std::uint16_t treePriority = 32768;             ///< of a bridge, in the spanning tree (802.1Q 13.26)
    std::map<std::string, State::Value> records{};  ///< patches of the agent's configuration, by path
    /// Of a bridge, from the last octet of a frame to the first one of it in the queue.
    Runtime::Duration processing = std::chrono::microseconds{5};
    std::array<std::uint8_t, 2> priorities{3, 2};  ///< of a station, for class A and class B
    Place place{};
};

/// One end of a link, as its device is set up for it.
struct LinkEnd {
    std::size_t device = 0;
    std::string port{};                  ///< of a bridge
    std::vector<std::uint16_t> vlans{};  ///< with a tag, of a bridge
};

struct Link {
    LinkEnd ends[2];
    Interface::Speed speed = Interface::Speed::speed1Gbps;
    Runtime::Duration delay{};  ///< of the wire
    double loss = 0;            ///< share of frames
    Place place{};
};

struct Stream {
    std::string name;
    std::uint64_t id = 0;
    std::size_t talker = 0;
    std::vector<std::size_t> listeners{};
    Msrp::SrClassId srClass = Msrp::SrClassId::SrClassA;
    Msrp::Tspec tspec{};
    EthAddr destination{};
    std::uint16_t vlan = 2;
    std::uint8_t rank = 1;
    bool later = false;  ///< is not there at the beginning
    Place place{};
};

struct Network {
    std::string title{};
    std::string layout{};    ///< the engine of Graphviz that is to draw it; empty: any
    std::uint16_t vlan = 2;  ///< that of streams, and of links, which name no other
    std::vector<Device> devices{};
    std::vector<Link> links{};
    std::vector<Stream> streams{};

    // What happens to it, one event in a line or behind a semicolon (Plan/Script.h)
    std::string script{};
    Place scriptPlace{};

    /// Links at a device, in the order of the file.
    [[nodiscard]] std::vector<std::size_t> linksOf(std::size_t device) const;
    /// Numbers of the device or stream of that name; their count when there is none.
    [[nodiscard]] std::size_t device(std::string_view name) const;
    [[nodiscard]] std::size_t stream(std::string_view name) const;
};

}  // namespace Plan
