#include "Linux/fence/FenceRules.h"

#include "Runtime/Text.h"

namespace Linux {

namespace {

constexpr std::string_view ourMark = "msrpd-fence:";
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

/// The other rules, as in "guarded+mvrp+police".
std::string words(const FenceRules& rules) {
    std::string text;
    const auto add = [&text](std::string_view word) { text.append(text.empty() ? "" : "+").append(word); };
    if (rules.guarded) add("guarded");
    if (rules.mvrp) add("mvrp");
    if (rules.metering != Metering::none) add(State::enumText(rules.metering));
    return text;
}

}  // namespace

std::string FenceRules::name() const {
    return Runtime::concat(ourMark, digits(closed), ':', digits(streams), ':', words(*this));
}

std::optional<FenceRules> FenceRules::parse(std::string_view name) {
    if (!name.starts_with(ourMark)) return std::nullopt;
    name.remove_prefix(ourMark.size());
    const auto closed = takeDigits(name);
    const auto streams = closed ? takeDigits(name) : std::nullopt;
    if (!streams) return std::nullopt;
    for (const bool guarded : {false, true}) {
        for (const bool mvrp : {false, true}) {
            for (const auto& [metering, word] : meteringNames) {
                const FenceRules rules{*closed, *streams, guarded, mvrp, metering};
                if (name == words(rules)) return rules;
            }
        }
    }
    return std::nullopt;
}

}  // namespace Linux
