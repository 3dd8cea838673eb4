/// The protocol's events in the log, for people: what a line is about, how much it matters, and what the
/// numbers in it mean.
#pragma once

#include "Runtime/LogConfig.h"
#include "Runtime/SystemLog.h"

#include <string>
#include <string_view>

struct EventKind {
    Runtime::LogTopic topic;
    Runtime::LogLevel level;
};

/// Of an event of that name.  The events' own severities are all the same.
EventKind kindOf(const Runtime::LogEvent& event);

/// What the numbers of the event's text mean, "class A on swp1: WaitingForPeer -> Core"; empty where there
/// are none that need words.
std::string inWords(const Runtime::LogEvent& event, std::string_view text);
