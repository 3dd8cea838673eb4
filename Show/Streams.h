/// `msrpctl show stream`: all about one stream.
#pragma once

#include "Show/StreamReport.h"

#include <string>

namespace Show {

std::string streamText(const Snapshot& snapshot, const StreamReport& stream);
/// The stream's part of `streams().value`.
State::Value streamValue(const StreamReport& stream);

}  // namespace Show
