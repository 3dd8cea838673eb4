#include "Control/LogLimiter.h"

#include <algorithm>
#include <utility>

namespace Control {

namespace {

constexpr Runtime::Duration interval = std::chrono::seconds{1};
constexpr Runtime::Duration minute = std::chrono::minutes{1};
constexpr double intervals = static_cast<double>(minute / interval);
constexpr int warning = 4;  // of syslog's severities

/// "1,234,567"
std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, 1, ',');
    return text;
}

}  // namespace

LogLimiter::Share& LogLimiter::share(std::string_view port) {
    // The same port is asked for again and again.
    if (lastAsked_.second != nullptr && lastAsked_.first == port) return *lastAsked_.second;
    auto at = shares_.find(port);
    if (at == shares_.end()) at = shares_.emplace(std::string{port}, Share{}).first;
    lastAsked_ = {at->first, &at->second};
    return at->second;
}

bool LogLimiter::asks(std::string_view port) {
    Share& asked = share(port);
    if (asked.lines >= 1) return true;
    leaveOut(asked, 1);
    return false;
}

void LogLimiter::line(int severity, std::string_view port, const std::string& text, std::uint64_t count) {
    Share& asked = share(port);
    const auto octets = static_cast<double>(text.size() + 1);
    if (asked.lines < 1 || octets_ < octets) return leaveOut(asked, count);
    asked.lines -= 1;
    octets_ -= octets;
    if (!timer_.armed()) timer_.armIn(interval);
    sink_(severity, text);
}

void LogLimiter::leaveOut(Share& share, std::uint64_t count) {
    share.leftOut += count;
    if (toTell_ <= loop_.now()) toTell_ = loop_.now() + minute;
    if (!timer_.armed()) timer_.armIn(interval);
}

void LogLimiter::tick() {
    if (toTell_ <= loop_.now()) flush();
    octets_ = std::min(savedOctets, octets_ + octetsPerMinute / intervals);
    bool again = octets_ < savedOctets;
    for (auto& [port, share] : shares_) {
        share.lines = std::min(savedLines, share.lines + linesPerMinute / intervals);
        again = again || share.lines < savedLines || share.leftOut > 0;
    }
    if (again) timer_.armIn(interval);
}

void LogLimiter::flush() {
    for (auto& [port, share] : shares_) {
        const std::uint64_t count = std::exchange(share.leftOut, 0);
        if (count == 0) continue;
        sink_(warning, (port.empty() ? "" : port + ": ") + grouped(count) +
                           (count == 1 ? " more line in the last minute was left out"
                                       : " more lines in the last minute were left out"));
    }
}

std::string_view portNamed(std::string_view line, const std::function<bool(std::string_view)>& known) {
    const auto word = [line](std::size_t at) {
        const std::string_view rest = line.substr(at);
        std::string_view found = rest.substr(0, rest.find(' '));
        while (!found.empty() && (found.back() == ':' || found.back() == ',')) found.remove_suffix(1);
        return found;
    };
    if (const std::string_view first = word(0); known(first)) return first;
    constexpr std::string_view on = " on ";
    for (std::size_t at = line.find(on); at != std::string_view::npos; at = line.find(on, at + 1)) {
        if (const std::string_view named = word(at + on.size()); known(named)) return named;
    }
    return {};
}

}  // namespace Control
