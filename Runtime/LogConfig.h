/// How much of what happens the log tells.
#pragma once

#include "State/Codec.h"
#include "State/Record.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace Runtime {

/// How much a line matters; the numbers are those of syslog (RFC 5424).
enum class LogLevel : std::uint8_t { error = 3, warning = 4, notice = 5, information = 6, debug = 7 };
constexpr auto logLevelNames = std::to_array<State::EnumName<LogLevel>>({{LogLevel::error, "error"},
                                                                         {LogLevel::warning, "warning"},
                                                                         {LogLevel::notice, "notice"},
                                                                         {LogLevel::information, "info"},
                                                                         {LogLevel::debug, "debug"}});
constexpr const auto& enumNames(LogLevel) { return logLevelNames; }

/// What a line is about.
enum class LogTopic : std::uint8_t {
    streams,    ///< declarations of talkers and listeners, and those that are discarded
    bandwidth,  ///< what is reserved, refused and given back
    domains,    ///< what each port is to each class
    ports,      ///< links, spanning tree, the protocol's start and end
    kernel,     ///< what of the switch's wishes this machine carries out
    daemon,     ///< itself, and those who ask and change it
};
constexpr auto logTopicNames = std::to_array<State::EnumName<LogTopic>>({{LogTopic::streams, "streams"},
                                                                         {LogTopic::bandwidth, "bandwidth"},
                                                                         {LogTopic::domains, "domains"},
                                                                         {LogTopic::ports, "ports"},
                                                                         {LogTopic::kernel, "kernel"},
                                                                         {LogTopic::daemon, "daemon"}});
constexpr const auto& enumNames(LogTopic) { return logTopicNames; }

/// "log/config"
class LogConfig : public State::Record<LogConfig> {
public:
    static constexpr std::string_view type = "Runtime::LogConfig";

    /// Lines that matter less are left out; `information` for topics without an entry.
    [[nodiscard]] const State::FlatMap<LogTopic, LogLevel>& level() const { return level_; }
    [[nodiscard]] bool tells(LogTopic topic, LogLevel level) const {
        return level <= level_.get(topic, LogLevel::information);
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("level", &LogConfig::level_));
    }

private:
    State::FlatMap<LogTopic, LogLevel> level_;
};

}  // namespace Runtime
