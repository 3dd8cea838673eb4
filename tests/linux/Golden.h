/// Netlink messages as kernels and the standard tools exchanged them, recorded in tests/linux/golden.
#pragma once

#include "Linux/kernel/Netlink.h"

#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace golden {

using Bytes = std::vector<std::byte>;

inline Bytes bytes(std::string_view hex) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<std::byte>(std::stoi(std::string{hex.substr(i, 2)}, nullptr, 16)));
    return bytes;
}

inline std::string hex(std::span<const std::byte> bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::byte b : bytes) {
        text += digits[std::to_integer<std::size_t>(b >> 4)];
        text += digits[std::to_integer<std::size_t>(b & std::byte{15})];
    }
    return text;
}

inline const nlmsghdr& header(const Bytes& message) {
    return *reinterpret_cast<const nlmsghdr*>(message.data());
}

/// One recorded file: "requests" by case, "dumps" and "notifications" by "KERNEL CASE", in hexadecimal.
class Recording {
public:
    /// `name` without directory and extension.
    explicit Recording(const std::string& name) {
        std::ifstream file{std::string{GOLDEN_DIRECTORY} + "/" + name + ".json"};
        json_ = nlohmann::json::parse(file);
    }
    /// The messages that the standard tool sends; sequence number and sender are 0.
    [[nodiscard]] std::vector<std::string> requests(const std::string& name) const {
        return json_.at("requests").at(name).get<std::vector<std::string>>();
    }
    [[nodiscard]] std::vector<Bytes> dump(const std::string& kernelAndName) const {
        return messages("dumps", kernelAndName);
    }
    [[nodiscard]] std::vector<Bytes> notifications(const std::string& kernelAndName) const {
        return messages("notifications", kernelAndName);
    }

private:
    [[nodiscard]] std::vector<Bytes> messages(const char* kind, const std::string& name) const {
        std::vector<Bytes> all;
        for (const std::string hexText : json_.at(kind).at(name)) all.push_back(bytes(hexText));
        return all;
    }
    nlohmann::json json_;
};

/// Reads a message that is cut after each octet, and once with attributes that nobody knows in front, and
/// checks that `decode` (which takes an nlmsghdr) survives the former.
template <class F>
void cutAnywhere(const Bytes& whole, F&& decode) {
    for (std::size_t length = sizeof(nlmsghdr); length < whole.size(); ++length) {
        // In memory of its own, so that a sanitizer sees what is read behind the end.
        Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        cut.shrink_to_fit();
        reinterpret_cast<nlmsghdr*>(cut.data())->nlmsg_len = static_cast<std::uint32_t>(length);
        decode(header(cut));
    }
}

}  // namespace golden
