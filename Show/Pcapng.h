/// The blocks of a pcapng capture file (draft-ietf-opsawg-pcapng), as far as Ethernet frames need them.
///
/// A file is one section header, an interface description for each interface, and then the packets.  All is
/// little-endian, which the section header tells the reader.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace Pcapng {

using Octets = std::vector<std::uint8_t>;
using WallTime = std::chrono::sys_time<std::chrono::nanoseconds>;

// Block types.
inline constexpr std::uint32_t sectionBlock = 0x0A0D0D0A;
inline constexpr std::uint32_t interfaceBlock = 1;
inline constexpr std::uint32_t simplePacketBlock = 3;
inline constexpr std::uint32_t packetBlock = 6;
// Options: of any block, of an interface, and of a packet.
inline constexpr std::uint16_t endOfOptions = 0;
inline constexpr std::uint16_t comment = 1;
inline constexpr std::uint16_t ifName = 2;
inline constexpr std::uint16_t ifTsresol = 9;
inline constexpr std::uint16_t ifTsoffset = 14;
inline constexpr std::uint16_t epbFlags = 2;
inline constexpr std::uint16_t epbDropcount = 4;
/// Stands in a section header as the writer's order of octets has it.
inline constexpr std::uint32_t orderMark = 0x1A2B3C4D;
inline constexpr std::uint16_t linkTypeEthernet = 1;

/// The values are those of the lowest two bits of the packet's flags.
enum class Direction : std::uint8_t { unknown = 0, inbound = 1, outbound = 2 };

struct Packet {
    std::uint32_t interface = 0;  ///< counted from 0, in the order of the descriptions
    WallTime time;
    Direction direction = Direction::inbound;
    std::uint64_t dropped = 0;  ///< packets that are missing between the one before it and this one
    std::span<const std::uint8_t> frame;
    std::size_t onWire = 0;      ///< octets that it had there; 0: as many as are here
    std::string_view comment{};  ///< in UTF-8; longer ones than 65,535 octets are cut
};

Octets sectionHeader();
/// An Ethernet interface whose times count nanoseconds.
Octets interfaceDescription(std::string_view name);
Octets enhancedPacket(const Packet& packet);

}  // namespace Pcapng
