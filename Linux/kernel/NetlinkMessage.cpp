#include "Linux/kernel/NetlinkMessage.h"

#include <cstring>
#include <libmnl/libmnl.h>
#include <string>

namespace Linux {

NetlinkMessage::NetlinkMessage(std::uint16_t type, std::uint16_t flags) : bytes_(MNL_NLMSG_HDRLEN) {
    nlmsghdr* header = mnl_nlmsg_put_header(bytes_.data());
    header->nlmsg_type = type;
    header->nlmsg_flags = flags;
}

nlmsghdr& NetlinkMessage::withRoom(std::size_t octets) {
    bytes_.resize(bytes_.size() + MNL_ALIGN(octets));
    return *reinterpret_cast<nlmsghdr*>(bytes_.data());
}

NetlinkMessage& NetlinkMessage::raw(std::span<const std::byte> value) {
    if (!value.empty())
        std::memcpy(mnl_nlmsg_put_extra_header(&withRoom(value.size()), value.size()), value.data(),
                    value.size());
    return *this;
}

NetlinkMessage& NetlinkMessage::octets(std::uint16_t type, std::span<const std::byte> value) {
    mnl_attr_put(&withRoom(sizeof(nlattr) + value.size()), type, value.size(), value.data());
    return *this;
}

NetlinkMessage& NetlinkMessage::text(std::uint16_t type, std::string_view value) {
    mnl_attr_put_strz(&withRoom(sizeof(nlattr) + value.size() + 1), type, std::string{value}.c_str());
    return *this;
}

void NetlinkMessage::endNest(std::size_t at) {
    mnl_attr_nest_end(&withRoom(0), reinterpret_cast<nlattr*>(bytes_.data() + at));
}

void NetlinkMessage::sequenceIs(std::uint32_t sequence) { withRoom(0).nlmsg_seq = sequence; }

}  // namespace Linux
