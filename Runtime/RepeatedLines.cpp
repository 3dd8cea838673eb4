#include "Runtime/RepeatedLines.h"

#include <iterator>
#include <utility>

namespace Runtime {

RepeatedLines::RepeatedLines(Loop& loop, Sink sink)
    : loop_{loop}, sink_{std::move(sink)}, timer_{loop, [this] { expire(); }} {}

void RepeatedLines::line(int severity, std::string_view port, const std::string& text) {
    if (const auto at = byText_.find(text); at != byText_.end()) {
        ++at->second->again;
        return;
    }
    if (held_.size() == capacity) closeOldest(false);
    held_.push_back({severity, std::string{port}, text, 0, loop_.now() + window});
    byText_.emplace(held_.back().text, std::prev(held_.end()));
    if (!timer_.armed()) timer_.armAt(held_.front().until);
    sink_(severity, port, text, 1);
}

void RepeatedLines::flush() {
    while (!held_.empty()) closeOldest(false);
    timer_.cancel();
}

void RepeatedLines::expire() {
    while (!held_.empty() && held_.front().until <= loop_.now()) closeOldest(true);
    if (!held_.empty()) timer_.armAt(held_.front().until);
}

void RepeatedLines::closeOldest(bool mayReopen) {
    const auto oldest = held_.begin();
    const std::uint64_t again = std::exchange(oldest->again, 0);
    if (again > 0) {
        sink_(oldest->severity, oldest->port,
              oldest->text + " (again " + std::to_string(again) + (again == 1 ? " time)" : " times)"), again);
    }
    if (again > 0 && mayReopen) {
        // What went on for a minute will go on: still one line a minute.
        oldest->until = loop_.now() + window;
        held_.splice(held_.end(), held_, oldest);
        return;
    }
    byText_.erase(oldest->text);
    held_.erase(oldest);
}

}  // namespace Runtime
