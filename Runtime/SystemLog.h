/// The system log: named events with fixed formats, one line each, for the person who runs the network.
#pragma once

#include "Runtime/Text.h"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace Runtime {

/// What is fixed about an event.  Made once when the program is loaded.
struct LogEvent {
    std::string_view name;    ///< for example "MSRP_ERROR"
    int severity;             ///< syslog severity, 6 = informational
    std::string_view format;  ///< conversions %s, %d and %llu, each taken by one argument
    std::string_view explanation;
    std::string_view recommendedAction;
    double rateInterval = 0.0;  ///< seconds in which lines may be held back; 0.0 never
    double rateLimit = 1.0;     ///< lines that pass in one interval
    int flags = 0;
};

/// What events recommend when nothing need be done.
inline constexpr std::string_view noActionRequired = "No action is required.";

/// `format` with each conversion replaced by the next argument.
std::string formatEvent(std::string_view format, std::initializer_list<std::string> arguments);

/// The same with pieces of any printable type.
template <class... Arguments>
std::string format(std::string_view text, const Arguments&... arguments) {
    return formatEvent(text, {concat(arguments)...});
}

class SystemLog {
public:
    using Sink = std::function<void(const LogEvent& event, const std::string& text)>;

    void sinkIs(Sink sink) { sink_ = std::move(sink); }

    template <class... Arguments>
    void log(const LogEvent& event, const Arguments&... arguments) const {
        if (sink_) sink_(event, format(event.format, arguments...));
    }

private:
    Sink sink_;
};

}  // namespace Runtime
