#include "Store/Address.h"

#include "Runtime/Text.h"
#include "Store/Reply.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <string_view>
#include <sys/un.h>

namespace Store {

using Runtime::concat;

namespace {

constexpr std::string_view unixPrefix = "unix:";

/// 0 for what is no port.
std::uint16_t portNumber(const std::string& text) {
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, port);
    return error == std::errc{} && rest == end ? port : std::uint16_t{0};
}

std::string shownAddress(const std::string& text) { return concat("address \"", inOneLine(text), "\": "); }

}  // namespace

bool isFigures(const std::string& host) {
    in6_addr scratch{};
    return ::inet_pton(AF_INET, host.c_str(), &scratch) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), &scratch) == 1;
}

std::optional<Address> Address::parse(const std::string& text, std::string& problem) {
    if (text.starts_with(unixPrefix)) {
        const std::string path = text.substr(unixPrefix.size());
        sockaddr_un to{};
        if (!path.starts_with('/') || path.size() >= sizeof to.sun_path ||
            path.find('\0') != std::string::npos) {
            problem = concat(shownAddress(text), "a path of 2 to ", sizeof to.sun_path - 1,
                             " octets that begins with / is needed after ", unixPrefix);
            return std::nullopt;
        }
        to.sun_family = AF_UNIX;
        std::memcpy(to.sun_path, path.data(), path.size());
        Address address;
        address.text_ = text;
        std::memcpy(&address.storage_, &to, sizeof to);
        address.length_ = sizeof to;
        return address;
    }
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    const bool brackets = host.starts_with('[') && host.ends_with(']');
    if (brackets) host = host.substr(1, host.size() - 2);
    // Without brackets nobody knows where such an address ends.
    const bool ambiguous = brackets != (host.find(':') != std::string::npos);
    if (colon == std::string::npos || host.empty() || ambiguous) {
        problem = concat(shownAddress(text),
                         "neither ADDRESS:PORT, like 127.0.0.1:6379 or [::1]:6379, nor unix:/PATH");
        return std::nullopt;
    }
    std::string why;
    auto address = of(host, text.substr(colon + 1), why);
    if (!address) problem = why;
    return address;
}

std::optional<Address> Address::of(const std::string& host, const std::string& port, std::string& problem) {
    const std::string figures = host == "localhost" ? "127.0.0.1" : host;
    const bool six = figures.find(':') != std::string::npos;
    Address address;
    address.host_ = figures;
    address.text_ = six ? concat('[', figures, "]:", port) : concat(figures, ':', port);
    const std::uint16_t number = portNumber(port);
    if (number == 0) {
        problem = concat(shownAddress(address.text_), "the port is no number from 1 to 65535");
        return std::nullopt;
    }
    sockaddr_in to4{};
    sockaddr_in6 to6{};
    if (figures.find('\0') == std::string::npos &&
        ::inet_pton(AF_INET, figures.c_str(), &to4.sin_addr) == 1) {
        to4.sin_family = AF_INET;
        to4.sin_port = htons(number);
        std::memcpy(&address.storage_, &to4, sizeof to4);
        address.length_ = sizeof to4;
        return address;
    }
    if (figures.find('\0') == std::string::npos &&
        ::inet_pton(AF_INET6, figures.c_str(), &to6.sin6_addr) == 1) {
        to6.sin6_family = AF_INET6;
        to6.sin6_port = htons(number);
        std::memcpy(&address.storage_, &to6, sizeof to6);
        address.length_ = sizeof to6;
        return address;
    }
    problem = concat(shownAddress(address.text_), '"', inOneLine(host),
                     "\" is no address in figures, and names are not looked up");
    return std::nullopt;
}

}  // namespace Store
