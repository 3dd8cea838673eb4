#include "Linux/kernel/Netlink.h"

#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

using Linux::DumpReader;

namespace {

using Bytes = std::vector<std::byte>;
constexpr std::uint32_t sequence = 7;

/// A message of that type and flags with `payload`, as it follows others in a datagram.
template <class T>
Bytes message(std::uint16_t type, unsigned flags, const T& payload, std::uint32_t number = sequence) {
    Linux::NetlinkMessage made{type, static_cast<std::uint16_t>(flags)};
    made.part(payload).sequenceIs(number);
    return {made.bytes().begin(), made.bytes().end()};
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

TEST_F(DumpTest, MayBeRefusedAtOnceOrAtItsEndWithTheKernelsWords) {
    struct {
        int error = -EINVAL;
        nlattr header{4 + 8, NLMSGERR_ATTR_MSG};
        std::array<char, 8> text{"not now"};
    } payload;
    EXPECT_EQ(read(message(NLMSG_DONE, NLM_F_MULTI | NLM_F_ACK_TLVS, payload)), DumpReader::State::refused);
    EXPECT_EQ(reader.answer().problem(), "Invalid argument (not now)");
    EXPECT_EQ(read(message(NLMSG_ERROR, 0, nlmsgerr{-EPERM, {}})), DumpReader::State::refused);
    EXPECT_EQ(reader.answer().problem(), "Operation not permitted");
}

TEST_F(DumpTest, IsReadToItsEndButWorthNothingWhenInterrupted) {
    EXPECT_EQ(read(message(RTM_NEWLINK, NLM_F_MULTI | NLM_F_DUMP_INTR, ifinfomsg{}) + entry),
              DumpReader::State::more);
    EXPECT_EQ(read(done), DumpReader::State::interrupted);
    EXPECT_EQ(entries, 0);
}

}  // namespace
