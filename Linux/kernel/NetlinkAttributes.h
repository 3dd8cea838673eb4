/// Walks over the attributes of a netlink message and reads them: what is too short reads as zero, and what
/// is not whole is not seen.
#pragma once

#include <cstddef>
#include <cstring>
#include <libmnl/libmnl.h>
#include <span>
#include <string_view>
#include <type_traits>

namespace Linux {

/// Calls `each` for every whole attribute in `octets`, which begin at a multiple of four.
template <class F>
void eachAttribute(std::span<const std::byte> octets, F&& each) {
    while (octets.size() >= sizeof(nlattr)) {
        const auto* attribute = reinterpret_cast<const nlattr*>(octets.data());
        if (!mnl_attr_ok(attribute, static_cast<int>(octets.size()))) return;
        each(*attribute);
        const std::size_t step = (attribute->nla_len + std::size_t{3}) & ~std::size_t{3};
        if (step >= octets.size()) return;
        octets = octets.subspan(step);
    }
}

inline std::span<const std::byte> payload(const nlattr& attribute) {
    return {static_cast<const std::byte*>(mnl_attr_get_payload(&attribute)),
            mnl_attr_get_payload_len(&attribute)};
}

/// Those behind the first `offset` octets of a message's payload.
template <class F>
void eachAttribute(const nlmsghdr& message, std::size_t offset, F&& each) {
    const std::span whole{static_cast<const std::byte*>(mnl_nlmsg_get_payload(&message)),
                          mnl_nlmsg_get_payload_len(&message)};
    const std::size_t aligned = (offset + 3) & ~std::size_t{3};
    if (aligned < whole.size()) eachAttribute(whole.subspan(aligned), each);
}

/// Those inside another, behind its first `offset` octets.
template <class F>
void eachAttribute(const nlattr& attribute, F&& each, std::size_t offset = 0) {
    const auto inside = payload(attribute);
    if (offset < inside.size()) eachAttribute(inside.subspan(offset), each);
}

/// The number or structure that an attribute, or a message behind its header, begins with; zero where it is
/// too short.
template <class T>
T number(std::span<const std::byte> octets) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    if (octets.size() >= sizeof value) std::memcpy(&value, octets.data(), sizeof value);
    return value;
}
template <class T>
T number(const nlattr& attribute) {
    return number<T>(payload(attribute));
}

/// The text in an attribute, without the zero octet at its end.
inline std::string_view text(const nlattr& attribute) {
    const auto octets = payload(attribute);
    const std::string_view whole{reinterpret_cast<const char*>(octets.data()), octets.size()};
    return whole.substr(0, whole.find('\0'));
}

}  // namespace Linux
