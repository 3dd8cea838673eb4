/// The records of a running daemon at one moment, as values; and how to find one's way in them.
#pragma once

#include "State/Value.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Show {

/// The member that the names lead to, one below the other; a null value when there is none.
const State::Value& at(const State::Value& value, std::initializer_list<std::string_view> names);
/// Empty for anything but a text.
std::string textOf(const State::Value& value);
/// 0 for anything but a whole number.
std::uint64_t numberOf(const State::Value& value);
/// All members' numbers together.
std::uint64_t sumOf(const State::Value& value);
bool isTrue(const State::Value& value);
/// The members of an object; none for anything else.
const State::Object& membersOf(const State::Value& value);

struct Snapshot {
    /// Where ages mean nothing.
    static constexpr double noClock = std::numeric_limits<double>::quiet_NaN();
    /// Seconds on the daemon's clock.
    double now = 0.0;
    /// Seconds from that time on; negative where there is no clock.
    [[nodiscard]] double since(double time) const {
        return std::isnan(now) ? -1.0 : std::max(0.0, now - time);
    }
    std::map<std::string, State::Value, std::less<>> records;

    /// A null value when there is no such record.
    [[nodiscard]] const State::Value& record(std::string_view path) const;
};

/// Whether a protocol is to run on the port, by an "intfEnable": by the port's name, or else by that of all.
bool chosen(const State::Value& intfEnable, std::string_view port);
/// Those on which MSRP is configured to run.
std::vector<std::string> enabledPorts(const Snapshot& snapshot);

}  // namespace Show
