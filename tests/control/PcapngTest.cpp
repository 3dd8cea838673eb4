#include "Control/HexOctets.h"
#include "programs/Pcapng.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using Pcapng::Octets;

/// Everything in a block is aligned to four octets, so it reads best in groups of four.
std::string groups(const Octets& block) {
    std::string text = Control::hexOctets(block);
    for (std::size_t at = 8; at < text.size(); at += 9) text.insert(at, 1, ' ');
    return text;
}

TEST(Pcapng, WritesASmallFileOctetByOctet) {
    const Octets frame{0x01, 0x80, 0xc2, 0x00, 0x99};
    const Pcapng::WallTime time{std::chrono::nanoseconds{0x1122334455667788}};
    EXPECT_EQ(groups(Pcapng::sectionHeader()),
              "0a0d0d0a 1c000000 4d3c2b1a 01000000 ffffffff ffffffff 1c000000");
    EXPECT_EQ(groups(Pcapng::interfaceDescription("swp10")),
              "01000000 2c000000 01000000 00000000 "
              "02000500 73777031 30000000 "  // if_name
              "09000100 09000000 "           // if_tsresol
              "00000000 2c000000");
    EXPECT_EQ(groups(Pcapng::enhancedPacket({.time = time, .frame = frame})),
              "06000000 34000000 00000000 44332211 88776655 05000000 05000000 0180c200 99000000 "
              "02000400 01000000 "  // epb_flags
              "00000000 34000000");
    const Pcapng::Packet late{.interface = 1,
                              .time = time,
                              .direction = Pcapng::Direction::outbound,
                              .dropped = 0x102,
                              .frame = {}};
    EXPECT_EQ(groups(Pcapng::enhancedPacket(late)),
              "06000000 38000000 01000000 44332211 88776655 00000000 00000000 "
              "02000400 02000000 "           // epb_flags
              "04000800 02010000 00000000 "  // epb_dropcount
              "00000000 38000000");
}

}  // namespace
