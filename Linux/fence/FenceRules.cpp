#include "Linux/fence/FenceRules.h"

#include "Runtime/Text.h"

#include <array>

namespace Linux {

namespace {

constexpr std::string_view ourMark = "msrpd-fence:";
/// By the rules that are in force besides.
constexpr std::array<std::array<std::string_view, 2>, 2> words{{{"", "mvrp"}, {"guarded", "guarded+mvrp"}}};
constexpr unsigned tagPriorities = 8;

std::string digits(std::uint8_t mask) {
    std::string text;
    for (unsigned priority = 0; priority < tagPriorities; ++priority) {
        if ((mask >> priority & 1U) != 0) text += static_cast<char>('0' + priority);
    }
    return text;
}

/// Takes the digits up to a colon, and the colon, off the text.
std::optional<std::uint8_t> takeDigits(std::string_view& text) {
    unsigned mask = 0;
    while (!text.empty() && text.front() >= '0' && text.front() < static_cast<char>('0' + tagPriorities)) {
        mask |= 1U << (text.front() - '0');
        text.remove_prefix(1);
    }
    if (!text.starts_with(':')) return std::nullopt;
    text.remove_prefix(1);
    return static_cast<std::uint8_t>(mask);
}

}  // namespace

std::string FenceRules::name() const {
    return Runtime::concat(ourMark, digits(closed), ':', digits(streams), ':',
                           words[guarded ? 1 : 0][mvrp ? 1 : 0]);
}

std::optional<FenceRules> FenceRules::parse(std::string_view name) {
    if (!name.starts_with(ourMark)) return std::nullopt;
    name.remove_prefix(ourMark.size());
    const auto closed = takeDigits(name);
    const auto streams = closed ? takeDigits(name) : std::nullopt;
    if (!streams) return std::nullopt;
    for (const bool guarded : {false, true}) {
        for (const bool mvrp : {false, true}) {
            if (name == words[guarded ? 1 : 0][mvrp ? 1 : 0])
                return FenceRules{*closed, *streams, guarded, mvrp};
        }
    }
    return std::nullopt;
}

}  // namespace Linux
