#include "Linux/LinkMessage.h"
#include "Linux/Netlink.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>

using Linux::DumpReader;

namespace {

using Bytes = std::vector<std::byte>;
constexpr std::uint32_t sequence = 7;

/// A message of that type and flags with `payload`, as it follows others in a datagram.
template <class T>
Bytes message(std::uint16_t type, unsigned flags, const T& payload, std::uint32_t number = sequence) {
    Bytes bytes(MNL_ALIGN(sizeof(nlmsghdr) + sizeof payload));
    const nlmsghdr header{sizeof(nlmsghdr) + sizeof payload, type, static_cast<std::uint16_t>(flags), number,
                          0};
    std::memcpy(bytes.data(), &header, sizeof header);
    std::memcpy(bytes.data() + sizeof header, &payload, sizeof payload);
    return bytes;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct DumpTest : testing::Test {
    DumpReader::State read(const Bytes& datagram) {
        return reader.read(datagram, [this](const nlmsghdr&) { ++entries; });
    }
    DumpReader reader{sequence};
    int entries = 0;
    const Bytes entry = message(RTM_NEWLINK, NLM_F_MULTI, ifinfomsg{});
    const Bytes done = message(NLMSG_DONE, NLM_F_MULTI, 0);
};

TEST_F(DumpTest, IsCompleteAtItsEndOnly) {
    EXPECT_EQ(read(entry + entry), DumpReader::State::more);
    EXPECT_EQ(read(message(RTM_NEWLINK, NLM_F_MULTI, ifinfomsg{}, sequence - 1)), DumpReader::State::more);
    EXPECT_EQ(read(entry + done), DumpReader::State::complete);
    EXPECT_EQ(entries, 3);
}

TEST_F(DumpTest, MayBeRefusedAtItsEndWithTheKernelsWords) {
    struct {
        int error = -EINVAL;
        nlattr header{4 + 8, NLMSGERR_ATTR_MSG};
        std::array<char, 8> text{"not now"};
    } payload;
    EXPECT_EQ(read(message(NLMSG_DONE, NLM_F_MULTI | NLM_F_ACK_TLVS, payload)), DumpReader::State::refused);
    EXPECT_EQ(reader.problem(), "Invalid argument (not now)");
}

TEST_F(DumpTest, MayBeRefusedAtOnce) {
    EXPECT_EQ(read(message(NLMSG_ERROR, 0, nlmsgerr{-EPERM, {}})), DumpReader::State::refused);
    EXPECT_EQ(reader.problem(), "Operation not permitted");
}

TEST_F(DumpTest, IsReadToItsEndButWorthNothingWhenInterrupted) {
    EXPECT_EQ(read(message(RTM_NEWLINK, NLM_F_MULTI | NLM_F_DUMP_INTR, ifinfomsg{}) + entry),
              DumpReader::State::more);
    EXPECT_EQ(read(done), DumpReader::State::interrupted);
    EXPECT_EQ(entries, 0);
}

/// A device as the kernel describes it, among attributes that nobody here knows.
std::vector<std::byte> linkBytes(std::uint16_t type, unsigned char family, unsigned flags) {
    std::vector<std::byte> bytes(512);
    nlmsghdr* header = mnl_nlmsg_put_header(bytes.data());
    header->nlmsg_type = type;
    auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg)));
    info->ifi_family = family;
    info->ifi_type = ARPHRD_ETHER;
    info->ifi_index = 5;
    info->ifi_flags = flags;
    const std::array<std::uint8_t, 6> mac{2, 0, 0, 0, 0, 5};
    mnl_attr_put_u8(header, 999, 1);
    mnl_attr_put_strz(header, IFLA_IFNAME, "swp5");
    mnl_attr_put_u32(header, NLA_F_NESTED | 998, 1);
    mnl_attr_put(header, IFLA_ADDRESS, mac.size(), mac.data());
    bytes.resize(header->nlmsg_len);
    return bytes;
}
std::optional<Linux::LinkMessage> decode(const Bytes& bytes) {
    return Linux::decodeLink(*reinterpret_cast<const nlmsghdr*>(bytes.data()));
}
constexpr unsigned up = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;

TEST(LinkMessage, TellsNameAddressAndState) {
    const Linux::LinkMessage expected{false, 5, "swp5", true, EthAddr::fromNumber(0x020000000005)};
    EXPECT_EQ(decode(linkBytes(RTM_NEWLINK, AF_UNSPEC, up)), expected);
    EXPECT_FALSE(decode(linkBytes(RTM_NEWLINK, AF_UNSPEC, up & ~unsigned{IFF_LOWER_UP}))->operational);
    EXPECT_FALSE(decode(linkBytes(RTM_NEWLINK, AF_UNSPEC, up & ~unsigned{IFF_RUNNING}))->operational);
    EXPECT_TRUE(decode(linkBytes(RTM_DELLINK, AF_UNSPEC, up))->gone);
}

TEST(LinkMessage, ThatAPortLeftItsBridgeIsNotItsEnd) {
    EXPECT_EQ(decode(linkBytes(RTM_DELLINK, AF_BRIDGE, up)), std::nullopt);
}

TEST(LinkMessage, CutAnywhereIsReadNoFurther) {
    const Bytes whole = linkBytes(RTM_NEWLINK, AF_UNSPEC, up);
    for (std::size_t length = sizeof(nlmsghdr); length < whole.size(); ++length) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        reinterpret_cast<nlmsghdr*>(cut.data())->nlmsg_len = static_cast<std::uint32_t>(length);
        const auto link = decode(cut);
        EXPECT_TRUE(!link || link->name == "swp5") << length;
    }
}

}  // namespace
