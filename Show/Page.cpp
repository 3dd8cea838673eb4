#include "Show/Page.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Show {

namespace {

unsigned octet(char c) { return static_cast<unsigned char>(c); }

/// How many octets the character at the front has; 0 where it is none, or one that terminals obey.
std::size_t characterLength(std::string_view text) {
    const unsigned first = octet(text.front());
    if (first < 0x80) return first >= ' ' && first != 0x7f ? 1 : 0;
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
    const auto continues = [](char c) { return (octet(c) & 0xc0) == 0x80; };
    if (!std::ranges::all_of(text.substr(1, length - 1), continues)) return 0;
    // The control characters that take one octet in other encodings.
    return first == 0xc2 && octet(text[1]) < 0xa0 ? 0 : length;
}

using MoodWord = std::pair<std::string_view, Mood>;
// What is the usual case, or nobody's fault, has no colour.
constexpr auto moodWords = std::to_array<MoodWord>({
    {"up", Mood::good},           {"Core", Mood::good},         {"Forwarding", Mood::good},
    {"Advertise", Mood::good},    {"Ready", Mood::good},        {"yes", Mood::good},
    {"reserved", Mood::good},     {"accepted", Mood::good},     {"WaitingForPeer", Mood::waits},
    {"Boundary", Mood::waits},    {"ReadyFailed", Mood::waits}, {"partly reserved", Mood::waits},
    {"waits", Mood::waits},       {"warning", Mood::waits},     {"absent", Mood::waits},
    {"down", Mood::bad},          {"no interface", Mood::bad},  {"Blocked", Mood::bad},
    {"Failed", Mood::bad},        {"AskingFailed", Mood::bad},  {"failed", Mood::bad},
    {"talker failed", Mood::bad}, {"refused", Mood::bad},       {"no", Mood::bad},
    {"fault", Mood::bad},         {"error", Mood::bad},
});

/// The codes of ECMA-48 that turn a mood on.
constexpr std::string_view moodCode(Mood mood) {
    switch (mood) {
        case Mood::good:
            return "\x1b[32m";
        case Mood::waits:
            return "\x1b[33m";
        case Mood::bad:
            return "\x1b[31m";
        case Mood::heading:
            return "\x1b[1m";
        case Mood::plain:
            break;
    }
    return {};
}

}  // namespace

std::string printable(std::string_view text, std::string_view allowed) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const bool let = allowed.find(text.front()) != std::string_view::npos;
        const std::size_t length = let ? 1 : characterLength(text);
        out += length == 0 ? "?" : text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return out;
}

std::string painted(std::string text, Mood mood, const Page& page) {
    if (!page.colours || mood == Mood::plain || text.empty()) return text;
    return std::string{moodCode(mood)} + text + "\x1b[0m";
}

std::size_t columnsOf(std::string_view text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char c) { return (octet(c) & 0xc0) != 0x80; }));
}

std::string_view beginning(std::string_view text, std::size_t columns) {
    std::size_t end = 0;
    while (end < text.size() && columns > 0) {
        end += std::max<std::size_t>(characterLength(text.substr(end)), 1);
        --columns;
    }
    return text.substr(0, end);
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
    width = std::max<std::size_t>(width, 1);
    std::vector<std::string> lines;
    while (columnsOf(text) > width) {
        const std::string_view most = beginning(text, width);
        const std::size_t blank = text[most.size()] == ' ' ? most.size() : most.rfind(' ');
        const bool breaks = blank != std::string_view::npos && blank > 0;
        lines.emplace_back(text.substr(0, breaks ? blank : most.size()));
        text.remove_prefix(breaks ? blank + 1 : most.size());
    }
    lines.emplace_back(text);
    return lines;
}

Mood wordMood(const State::Value& cell) {
    if (const auto* flag = std::get_if<bool>(&cell.data)) return *flag ? Mood::good : Mood::bad;
    const auto* text = std::get_if<std::string>(&cell.data);
    if (text == nullptr) return Mood::plain;
    const auto* found = std::ranges::find(moodWords, std::string_view{*text}, &MoodWord::first);
    return found != moodWords.end() ? found->second : Mood::plain;
}

Mood goodIfTrue(const State::Value& cell) { return cell == State::Value{true} ? Mood::good : Mood::plain; }

}  // namespace Show
