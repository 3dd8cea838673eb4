/// A netlink message in the making.
#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/netlink.h>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Linux {

/// Flags of requests that the kernel has to confirm, as the standard tools combine them.
inline constexpr std::uint16_t requestAck = NLM_F_REQUEST | NLM_F_ACK;
inline constexpr std::uint16_t requestAdd = requestAck | NLM_F_CREATE | NLM_F_EXCL;
inline constexpr std::uint16_t requestReplace = requestAck | NLM_F_CREATE | NLM_F_REPLACE;

/// The kernel's header, the fixed part of the message's family, then attributes: in this order.
class NetlinkMessage {
public:
    /// `type` as in RTM_NEWLINK, `flags` as in NLM_F_REQUEST.
    NetlinkMessage(std::uint16_t type, std::uint16_t flags);

    /// The fixed part (ifinfomsg, tcmsg, ...), or a part of an attribute that is a bare structure.
    template <class T>
    NetlinkMessage& part(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        return raw(std::as_bytes(std::span{&value, 1}));
    }
    NetlinkMessage& raw(std::span<const std::byte> value);
    /// An attribute that holds one structure or number, in the machine's byte order.
    template <class T>
    NetlinkMessage& attribute(std::uint16_t type, const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        return octets(type, std::as_bytes(std::span{&value, 1}));
    }
    NetlinkMessage& octets(std::uint16_t type, std::span<const std::byte> value);
    /// An attribute that holds a text with the zero octet behind it.
    NetlinkMessage& text(std::uint16_t type, std::string_view value);
    /// An attribute that holds what `inside` appends to this message.
    template <class F>
    NetlinkMessage& nest(std::uint16_t type, F&& inside) {
        const std::size_t at = bytes_.size();
        octets(type, {});
        inside(*this);
        endNest(at);
        return *this;
    }

    /// Must be set before it is sent: answers carry it.
    void sequenceIs(std::uint32_t sequence);
    [[nodiscard]] std::span<const std::byte> bytes() const { return bytes_; }

private:
    /// The header, with so many octets more for what is put behind the message.
    nlmsghdr& withRoom(std::size_t octets);
    /// The attribute that begins there holds all that came since.
    void endNest(std::size_t at);

    std::vector<std::byte> bytes_;
};

}  // namespace Linux
