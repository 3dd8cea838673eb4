/// The history as one text.
#pragma once

#include "History/Journal.h"
#include "Show/History.h"

#include <string>

namespace History {

/// A line for each event, without its number and times.
inline std::string told(const Journal& journal, const Filter& filter = {}) {
    std::string out;
    std::uint64_t after = journal.start(filter);
    while (const auto found = journal.find(filter, after)) {
        after = found->event.sequence;
        std::string line = Show::eventLine("", valueOf(found->event, found->missing));
        if (found->missing != 0) {
            out += line.substr(0, line.find('\n') + 1);
            line.erase(0, line.find('\n') + 1);
        }
        out += line.substr(line.find(' ', line.find(' ') + 1) + 1);
    }
    return out;
}

}  // namespace History
