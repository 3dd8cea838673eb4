/// What has happened, for people: the events of the journal, streams that are gone, and how long reservations
/// take.
#pragma once

#include "Show/Views.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Show {

/// A table of the answer to a request for events, with a line wherever some are kept no longer.
std::string historyText(const State::Value& answer, const Page& page = {});
/// One event as it is told while it happens, on a line of its own.
std::string eventLine(const std::string& sequence, const State::Value& event);
/// The same for programs: the event with its number.
State::Value eventValue(const std::string& sequence, const State::Value& event);
/// What that is, when an event is this.
State::Schema eventSchema(State::Schema event);

/// How long each stage of reservations took.
const View& times();

/// A stream that is not there any more, out of an entry of "history/gone".
std::string goneText(std::uint64_t stream, const State::Value& gone, const Page& page = {});
/// Under the heads of `msrpctl show stream`: how long the stream's stages took on each port, out of an entry
/// of "history/stages"; nothing where there are none.
std::string stagesText(const State::Value& stages, const Page& page = {});

/// Seconds since 1970 of "2026-11-22T17:05:30" or a beginning of it down to the day (UTC), or of "90s",
/// "10m", "2h" or "3d" before `now`.
std::optional<double> parseTime(const std::string& text, double now);

}  // namespace Show
