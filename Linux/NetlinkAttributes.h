/// Walks over the attributes of a netlink message.
#pragma once

#include <cstddef>
#include <libmnl/libmnl.h>

namespace Linux {

/// Calls `each` for every whole attribute that stands behind the first `offset` octets of the payload.
template <class F>
void eachAttribute(const nlmsghdr& message, std::size_t offset, F&& each) {
    const auto aligned = [](std::size_t length) { return (length + 3) & ~std::size_t{3}; };
    const auto* at = static_cast<const std::byte*>(mnl_nlmsg_get_payload(&message));
    std::size_t left = mnl_nlmsg_get_payload_len(&message);
    std::size_t step = aligned(offset);
    while (step < left) {
        at += step;
        left -= step;
        const auto* attribute = reinterpret_cast<const nlattr*>(at);
        if (!mnl_attr_ok(attribute, static_cast<int>(left))) return;
        each(*attribute);
        step = aligned(attribute->nla_len);
    }
}

}  // namespace Linux
