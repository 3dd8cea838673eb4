#include "Linux/kernel/NetlinkMessage.h"

#include <algorithm>
#include <cstring>

namespace Linux {

NetlinkMessage::NetlinkMessage(std::uint16_t type, std::uint16_t flags) {
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_flags = flags;
    part(header);
}

NetlinkMessage& NetlinkMessage::raw(std::span<const std::byte> value) {
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    bytes_.resize((bytes_.size() + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO);
    finish();
    return *this;
}

NetlinkMessage& NetlinkMessage::octets(std::uint16_t type, std::span<const std::byte> value) {
    const nlattr header{static_cast<std::uint16_t>(sizeof(nlattr) + value.size()), type};
    part(header);
    return raw(value);
}

NetlinkMessage& NetlinkMessage::text(std::uint16_t type, std::string_view value) {
    std::vector<std::byte> terminated(value.size() + 1);
    std::ranges::copy(std::as_bytes(std::span{value}), terminated.begin());
    return octets(type, terminated);
}

std::size_t NetlinkMessage::beginNest(std::uint16_t type) {
    const std::size_t at = bytes_.size();
    part(nlattr{0, type});
    return at;
}

void NetlinkMessage::endNest(std::size_t at) {
    const auto length = static_cast<std::uint16_t>(bytes_.size() - at);
    std::memcpy(bytes_.data() + at + offsetof(nlattr, nla_len), &length, sizeof length);
}

void NetlinkMessage::sequenceIs(std::uint32_t sequence) {
    std::memcpy(bytes_.data() + offsetof(nlmsghdr, nlmsg_seq), &sequence, sizeof sequence);
}

void NetlinkMessage::finish() {
    const auto length = static_cast<std::uint32_t>(bytes_.size());
    std::memcpy(bytes_.data() + offsetof(nlmsghdr, nlmsg_len), &length, sizeof length);
}

}  // namespace Linux
