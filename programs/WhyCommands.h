/// `msrpctl explain` and `msrpctl what-if`: their words, and where what they are answered with comes from.
#pragma once

#include "Show/Page.h"
#include "Show/Snapshot.h"
#include "programs/CommandLine.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class WhyCommands {
public:
    /// Reads records of the daemon: those of the first list, and of what `more` then names those that are
    /// there.
    using Read = std::function<Show::Snapshot(
        const std::vector<std::string>& records,
        const std::function<std::vector<std::string>(const Show::Snapshot&)>& more)>;
    /// Shows people the text, or programs the value.
    using Write = std::function<void(const State::Value& value,
                                     const std::function<std::string(const Show::Page& page)>& text)>;

    WhyCommands(Read read, Write write) : read_{std::move(read)}, write_{std::move(write)} {}
    WhyCommands(const WhyCommands&) = delete;
    WhyCommands& operator=(const WhyCommands&) = delete;

    /// The program's words are read into this object, which must outlive it.
    void addTo(Program& program);

private:
    ExitCode explain();
    ExitCode whatIf();

    Read read_;
    Write write_;
    std::string names_;
    std::string stream_;
    std::string port_;
    std::string class_{"A"};
    std::uint64_t frameSize_ = 0;
    std::uint64_t frames_ = 1;
    std::string format_;
    std::uint64_t channels_ = 0;
    std::uint64_t rate_ = 48'000;
    std::uint64_t samples_ = 0;
    std::uint64_t timestamps_ = 1;
    std::uint64_t kbps_ = 0;
    std::uint64_t vlan_ = 0;
    std::string from_;
    std::vector<std::string> to_;
    std::vector<std::string> shares_;
    std::vector<std::string> speeds_;
    std::vector<std::string> members_;
};
