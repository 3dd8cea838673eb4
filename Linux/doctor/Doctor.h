/// What keeps a bridge of this machine from carrying streams, and the command that mends it.
///
/// `examine` (DoctorFacts.h) looks at the kernel; `diagnose` judges what it saw and looks at nothing.
#pragma once

#include "Linux/doctor/DoctorFacts.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Linux {

enum class Severity : std::uint8_t {
    note,     ///< good to know
    warning,  ///< streams pass; on fewer ports, or with weaker promises
    fault,    ///< streams do not pass, or not as they were promised
};
constexpr auto severityNames = std::to_array<State::EnumName<Severity>>(
    {{Severity::note, "note"}, {Severity::warning, "warning"}, {Severity::fault, "fault"}});
constexpr const auto& enumNames(Severity) { return severityNames; }

struct Finding {
    std::string device;      ///< that it is about; empty: the machine
    std::string_view check;  ///< a word for programs; at most one finding for each device and check
    Severity severity = Severity::note;
    std::string what;
    std::string command;  ///< for a shell; empty: no command mends it
    bool operator==(const Finding&) const = default;
};

/// Those about one device follow one another.
std::vector<Finding> diagnose(const DoctorFacts& facts);

}  // namespace Linux
