#include "programs/Capture.h"

#include "Control/Client.h"
#include "Control/HexOctets.h"
#include "Runtime/Time.h"
#include "Show/Pcapng.h"
#include "Show/Snapshot.h"
#include "State/Codec.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <span>
#include <system_error>
#include <unistd.h>

namespace {

using State::Value;

/// What the first signal ends.  A handler has no other way to it.
const Control::Client* conversation = nullptr;
volatile std::sig_atomic_t interrupted = 0;

extern "C" void interrupt(int) {
    const int error = errno;
    interrupted = 1;
    conversation->hangUp();
    errno = error;
}

/// From here on a signal ends the conversation and not the process; a second one does, should the file's
/// reader have gone to sleep.
void hangUpOnSignals(const Control::Client& client) {
    conversation = &client;
    struct sigaction action {};
    action.sa_handler = interrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

class OutputFile {
public:
    explicit OutputFile(const std::string& path) : name_{path == "-" ? "standard output" : path} {
        if (path != "-") opened_ = Runtime::FileDescriptor{::open(path.c_str(), flags, mode)};
        fd_ = path == "-" ? STDOUT_FILENO : opened_.get();
        if (fd_ < 0) note();
    }

    void write(std::span<const std::uint8_t> octets) {
        while (problem_.empty() && !octets.empty()) {
            const ssize_t count = ::write(fd_, octets.data(), octets.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) return note();
            octets = octets.subspan(static_cast<std::size_t>(count));
        }
    }
    /// Empty while all is well.
    [[nodiscard]] const std::string& problem() const { return problem_; }

private:
    static constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    static constexpr mode_t mode = 0644;

    void note() { problem_ = name_ + ": " + std::generic_category().message(errno); }

    const std::string name_;
    Runtime::FileDescriptor opened_;
    int fd_ = -1;
    std::string problem_;
};

/// The wall clock beside the daemon's own.
struct Clocks {
    Pcapng::WallTime wall;
    Runtime::Duration daemon{};

    [[nodiscard]] Pcapng::WallTime wallTime(Runtime::Duration when) const { return wall + (when - daemon); }
};

Runtime::Duration timeOf(const Value& reply, std::string_view member) {
    return Runtime::secondsDuration(State::Codec<double>::decode(Show::at(reply, {member})).value_or(0.0));
}

std::string begin(Control::Client& client, const CaptureOptions& options, Clocks& clocks) {
    Value reply;
    std::string problem = client.connect(options.socket);
    if (problem.empty())
        problem = client.ask(State::Object{{"op", "capture"}, {"path", Value{options.port}}}, reply);
    clocks = {std::chrono::system_clock::now(), timeOf(reply, "now")};
    return problem;
}

}  // namespace

std::string capture(const CaptureOptions& options) {
    Control::Client client;
    Clocks clocks;
    if (std::string problem = begin(client, options, clocks); !problem.empty()) return problem;
    hangUpOnSignals(client);

    OutputFile file{options.file};
    Pcapng::Octets head = Pcapng::sectionHeader();
    const Pcapng::Octets interface = Pcapng::interfaceDescription(options.port);
    head.insert(head.end(), interface.begin(), interface.end());
    file.write(head);

    std::uint64_t frames = 0;
    std::uint64_t missing = 0;
    std::string problem = file.problem();
    while (problem.empty() && (options.count == 0 || frames < options.count)) {
        Value told;
        problem = client.receive(told, 0);
        if (!problem.empty()) break;
        const auto frame = Control::parseHexOctets(Show::textOf(Show::at(told, {"frame"})));
        if (!frame) return "the daemon sent a frame that is none";
        const bool sent = Show::textOf(Show::at(told, {"direction"})) == "sent";
        const std::uint64_t dropped = Show::numberOf(Show::at(told, {"dropped"}));
        file.write(Pcapng::enhancedPacket(
            {.time = clocks.wallTime(timeOf(told, "time")),
             .direction = sent ? Pcapng::Direction::outbound : Pcapng::Direction::inbound,
             .dropped = dropped,
             .frame = *frame}));
        problem = file.problem();
        ++frames;
        missing += dropped;
    }
    if (missing > 0) std::cerr << "msrpctl: " << missing << " frames are missing, they came too fast\n";
    // Not a problem but the end that was asked for.
    return interrupted != 0 && file.problem().empty() ? "" : problem;
}
