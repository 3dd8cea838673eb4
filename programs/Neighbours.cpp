#include "programs/Neighbours.h"

#include "Control/Json.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

/// A process that is gone, one way or the other, when this is.
class LldpChild {
public:
    explicit LldpChild(pid_t pid) : pid_{pid} {}
    LldpChild(const LldpChild&) = delete;
    LldpChild& operator=(const LldpChild&) = delete;
    ~LldpChild() {
        if (pid_ == 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    /// Whether it has ended well by then.
    bool endedWell(Clock::time_point until) {
        int status = 0;
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() >= until) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds{5});
        }
        pid_ = 0;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    pid_t pid_;
};

/// Starts it with nothing but the pipe to write to; 0 when it cannot be.
pid_t start(const std::vector<std::string>& command, int output) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int error = ::posix_spawnp(&pid, words.front(), &actions, nullptr, words.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : 0;
}

/// All that comes until the other end is closed; nothing when that is too late or too much.
std::optional<std::string> readAll(int from, Clock::time_point until, std::size_t octets) {
    std::string all;
    for (std::array<char, 4096> piece;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        pollfd waits{.fd = from, .events = POLLIN, .revents = 0};
        if (left.count() <= 0 || ::poll(&waits, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
        const ssize_t got = ::read(from, piece.data(), piece.size());
        if (got < 0) return std::nullopt;
        if (got == 0) return all;
        all.append(piece.data(), static_cast<std::size_t>(got));
        if (all.size() > octets) return std::nullopt;
    }
}

}  // namespace

std::optional<std::string> outputOf(const std::vector<std::string>& command, std::chrono::milliseconds atMost,
                                    std::size_t octets) {
    const Clock::time_point until = Clock::now() + atMost;
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
    const pid_t pid = start(command, ends[1]);
    ::close(ends[1]);
    std::optional<std::string> output;
    if (pid != 0) {
        LldpChild child{pid};
        output = readAll(ends[0], until, octets);
        if (output && !child.endedWell(until)) output.reset();
    }
    ::close(ends[0]);
    return output;
}

State::Value lldpNeighbours() {
    using namespace std::chrono_literals;
    constexpr std::size_t most = 4'000'000;
    const auto said = outputOf({"lldpctl", "-f", "json"}, 2s, most);
    if (!said) return {};
    return Control::parseJson(*said, Control::JsonComments::refused, Control::JsonArrays::numbered).value;
}
