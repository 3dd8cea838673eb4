/// `msrpctl history`, and what the daemon answers to it.
#pragma once

#include "Control/Commands.h"
#include "History/Recorder.h"
#include "Show/Page.h"
#include "programs/CommandLine.h"

#include <cstdint>
#include <memory>
#include <string>

struct HistoryOptions {
    std::string stream{};
    std::string port{};
    std::string since{};     ///< a time, or the number of an event
    std::uint64_t last = 0;  ///< 0: all
    bool follow = false;
};

/// The words of the command, which reads them into `options`.
void addHistoryWords(Words words, HistoryOptions& options);
/// Tells what has happened, and with `follow` goes on until interrupted.
ExitCode tellHistory(const std::string& socket, bool json, const Show::Page& page,
                     const HistoryOptions& options);

/// The request {"op": "history", ...}: "after", "since", "stream", "port", "last" say what is wanted, each of
/// them if it is there.  The answer has the events by their numbers, and the number of the next one.
Control::Answer answerHistory(const std::shared_ptr<const History::Journal>& journal,
                              const State::Value& request);

/// The directory for what outlives the daemon, as the service manager gives it; empty: it gives none.
std::string stateDirectory();
