#include "programs/EventWords.h"

#include "Msrp/MsrpEvents.h"
#include "Msrp/types/Enums.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

namespace {

using Runtime::LogLevel;
using Runtime::LogTopic;

struct Named {
    std::string_view name;
    EventKind kind;
};
constexpr auto kinds = std::to_array<Named>({
    {Msrp::MSRP_ERROR.name, {LogTopic::streams, LogLevel::warning}},
    {Msrp::MSRP_TALKER_FAIL_JOIN.name, {LogTopic::streams, LogLevel::notice}},
    {Msrp::MSRP_BW_ALLOC_FAIL.name, {LogTopic::bandwidth, LogLevel::warning}},
    {Msrp::MSRP_BW_ALLOC_SUCCESS.name, {LogTopic::bandwidth, LogLevel::information}},
    {Msrp::MSRP_BW_DEALLOC.name, {LogTopic::bandwidth, LogLevel::information}},
    {Msrp::MSRP_SR_CLASS_TRANSITION.name, {LogTopic::domains, LogLevel::notice}},
    {Msrp::MSRP_DOMAIN_JOIN.name, {LogTopic::domains, LogLevel::information}},
    {Msrp::MSRP_DOMAIN_LV.name, {LogTopic::domains, LogLevel::information}},
    {Msrp::MSRP_NOTIF.name, {LogTopic::ports, LogLevel::notice}},
});

/// What stands behind `before`, up to the next blank, comma or the end; empty when that is not in the text.
std::string_view wordBehind(std::string_view text, std::string_view before) {
    const std::size_t at = text.find(before);
    if (at == std::string_view::npos) return {};
    text.remove_prefix(at + before.size());
    return text.substr(0, text.find_first_of(" ,"));
}

/// The enumerator with the number that stands there, by name.
template <State::NamedEnum E>
std::string nameBehind(std::string_view text, std::string_view before) {
    const std::string_view word = wordBehind(text, before);
    std::uint8_t number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc{} || end != word.data() + word.size()) return {};
    return State::enumText(E{number});
}

std::string classBehind(std::string_view text, std::string_view before) {
    const std::string name = nameBehind<Msrp::SrClassId>(text, before);
    return name.starts_with("SrClass") ? "class " + name.substr(7) : name;
}

}  // namespace

EventKind kindOf(const Runtime::LogEvent& event) {
    const auto kind = std::ranges::find(kinds, event.name, &Named::name);
    return kind != kinds.end() ? kind->kind : EventKind{LogTopic::streams, LogLevel::information};
}

std::string inWords(const Runtime::LogEvent& event, std::string_view text) {
    using Msrp::SrClassState;
    if (event.name == Msrp::MSRP_SR_CLASS_TRANSITION.name) {
        return Runtime::concat(classBehind(text, "MSRP "), " on ", wordBehind(text, " on "), ": ",
                               nameBehind<SrClassState>(text, " from "), " -> ",
                               nameBehind<SrClassState>(text, " to "));
    }
    if (event.name == Msrp::MSRP_DOMAIN_JOIN.name || event.name == Msrp::MSRP_DOMAIN_LV.name)
        return classBehind(text, "Class: ");
    if (event.name == Msrp::MSRP_LISTENER_JOIN.name || event.name == Msrp::MSRP_LISTENER_LV.name)
        return nameBehind<Msrp::ListenerState>(text, ", state ");
    if (event.name == Msrp::MSRP_TALKER_FAIL_JOIN.name)
        return nameBehind<Msrp::TalkerFailureCode>(text, ", failureCode ");
    return {};
}
