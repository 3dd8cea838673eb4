/// `msrpctl show stream`: all about one stream.
#pragma once

#include "Show/Page.h"
#include "Show/StreamReport.h"

#include <string>

namespace Show {

std::string streamText(const Snapshot& snapshot, const StreamReport& stream, const Page& page = {});
/// The stream's part of `streams().value`, and what the history has of it: the entries of "history/stages"
/// and "history/gone", null where there is none.
State::Value streamValue(const StreamReport& stream, const State::Value& stages, const State::Value& gone);
/// What that is, when the history's entries are these.
State::Schema streamSchema(const State::Schema& stages, const State::Schema& gone);

}  // namespace Show
