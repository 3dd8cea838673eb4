/// The blocks of a pcapng capture file (draft-ietf-opsawg-pcapng), as far as Ethernet frames need them.
///
/// A file is one section header, an interface description for each interface, and then the packets.  All is
/// little-endian, which the section header tells the reader.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace Pcapng {

using Octets = std::vector<std::uint8_t>;
using WallTime = std::chrono::sys_time<std::chrono::nanoseconds>;

/// The values are those of the packet's flags.
enum class Direction : std::uint8_t { inbound = 1, outbound = 2 };

struct Packet {
    std::uint32_t interface = 0;  ///< counted from 0, in the order of the descriptions
    WallTime time;
    Direction direction = Direction::inbound;
    std::uint64_t dropped = 0;  ///< packets that are missing between the one before it and this one
    std::span<const std::uint8_t> frame;
};

Octets sectionHeader();
/// An Ethernet interface whose times count nanoseconds.
Octets interfaceDescription(std::string_view name);
Octets enhancedPacket(const Packet& packet);

}  // namespace Pcapng
