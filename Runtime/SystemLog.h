/// The system log: named events with fixed formats, one line each, for the person who runs the network.
#pragma once

#include "Runtime/Text.h"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <tuple>
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

/// A text that is made when it is needed, which for a line that nobody will read is never.  Refers to its
/// pieces, so it lives no longer than the expression that makes it.
///
/// A type that stands for a port has a function `logSubject` beside its definition, which gives the port's
/// name.
template <class... Arguments>
class Formatted {
public:
    explicit Formatted(std::string_view format, const Arguments&... arguments)
        : format_{format}, arguments_{arguments...} {}

    [[nodiscard]] std::string text() const {
        return std::apply(
            [this](const auto&... arguments) { return formatEvent(format_, {concat(arguments)...}); },
            arguments_);
    }
    operator std::string() const { return text(); }
    /// The port that the text is about: that of the first piece that names one.
    [[nodiscard]] std::string_view subject() const {
        return std::apply(
            [](const auto&... arguments) {
                std::string_view found;
                ((found = found.empty() ? subjectOf(arguments) : found), ...);
                return found;
            },
            arguments_);
    }

private:
    template <class T>
    static std::string_view subjectOf(const T& piece) {
        if constexpr (requires { piece.subject(); }) {
            return piece.subject();
        } else if constexpr (requires { logSubject(piece); }) {
            return logSubject(piece);
        } else {
            return {};
        }
    }
    std::string_view format_;
    std::tuple<const Arguments&...> arguments_;
};

/// The same with pieces of any printable type.
template <class... Arguments>
[[nodiscard]] Formatted<Arguments...> format(std::string_view text, const Arguments&... arguments) {
    return Formatted<Arguments...>{text, arguments...};
}

class SystemLog {
public:
    /// `subject` is the port that the line is about, as far as that can be told without reading it.
    using Sink =
        std::function<void(const LogEvent& event, std::string_view subject, const std::string& text)>;
    /// Asked before the text is made; when it says no, the line is lost.
    using Gate = std::function<bool(const LogEvent& event, std::string_view subject)>;

    void sinkIs(Sink sink, Gate gate = {}) {
        sink_ = std::move(sink);
        gate_ = std::move(gate);
    }

    template <class... Arguments>
    void log(const LogEvent& event, const Arguments&... arguments) const {
        if (!sink_) return;
        const auto line = format(event.format, arguments...);
        const std::string_view subject = line.subject();
        if (!gate_ || gate_(event, subject)) sink_(event, subject, line.text());
    }

private:
    Sink sink_;
    Gate gate_;
};

}  // namespace Runtime
