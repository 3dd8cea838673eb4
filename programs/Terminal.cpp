#include "programs/Terminal.h"

#include "State/Codec.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t leastWidth = 20;
constexpr std::size_t mostWidth = 10'000;

// The other screen that terminals have for whole programs, without a cursor; and back.
constexpr std::string_view enterCode = "\x1b[?1049h\x1b[?25l";
constexpr std::string_view leaveCode = "\x1b[0m\x1b[?25h\x1b[?1049l";

const char* environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool hasColours(const std::string& choice) {
    if (choice == "always" || choice == "never") return choice == "always";
    const std::string_view terminal = environment("TERM");
    return ::isatty(STDOUT_FILENO) != 0 && !terminal.empty() && terminal != "dumb" &&
           *environment("NO_COLOR") == '\0';
}

/// What a signal that ends the process at once must put right.
termios terminalBefore{};

void giveBack() {
    [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, leaveCode.data(), leaveCode.size());
    ::tcsetattr(STDIN_FILENO, TCSANOW, &terminalBefore);
}

void endAtOnce(int signal) {
    giveBack();
    ::raise(signal);  // which now does what it does to others
}

constexpr int fatal[]{SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

}  // namespace

void addPageWords(Words& words, PageOptions& options) {
    words.text("--color", "Colours: auto (on a terminal), always or never", options.colour)
        .number("--width", "Folds tables at so many columns (default: those of the terminal)", options.width,
                {leastWidth, mostWidth});
}

std::optional<TerminalSize> terminalSize() {
    winsize size{};
    if (::isatty(STDOUT_FILENO) == 0 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return std::nullopt;
    if (size.ws_col == 0 || size.ws_row == 0) return std::nullopt;
    return TerminalSize{size.ws_col, size.ws_row};
}

Show::Page pageOf(const PageOptions& options) {
    if (options.colour != "auto" && options.colour != "always" && options.colour != "never")
        throw Failure{"--color \"" + options.colour + "\": expected auto, always or never", usage};
    Show::Page page{.width = options.width, .colours = hasColours(options.colour)};
    if (page.width != 0 || ::isatty(STDOUT_FILENO) == 0) return page;
    const auto said = State::parseDecimal(environment("COLUMNS"), mostWidth);
    const auto size = terminalSize();
    page.width = said.value_or(size ? size->columns : 0);
    if (page.width != 0) page.width = std::max(page.width, leastWidth);
    return page;
}

Screen::Screen(Runtime::FdLoop& loop, std::function<void(std::string_view)> typed)
    : loop_{loop},
      typed_{std::move(typed)},
      own_{::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)},
      out_{own_ ? own_.get() : STDOUT_FILENO} {
    ::tcgetattr(STDIN_FILENO, &before_);
    terminalBefore = before_;
    struct sigaction action {};
    action.sa_handler = endAtOnce;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int signal : fatal) ::sigaction(signal, &action, nullptr);
    enter();
    readable_ = loop_.watch(STDIN_FILENO, Runtime::FdLoop::Ready::readable, [this] {
        char octets[256];
        const ssize_t count = ::read(STDIN_FILENO, octets, sizeof octets);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
        typed_({octets, count > 0 ? static_cast<std::size_t>(count) : 0});
    });
}

Screen::~Screen() {
    leave();
    for (const int signal : fatal) ::signal(signal, SIG_DFL);
}

void Screen::enter() {
    // Signals from the keyboard stay signals.
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    pending_ = enterCode;
    flush();
}

void Screen::leave() {
    pending_.clear();
    next_.clear();
    writable_ = {};
    giveBack();
}

void Screen::paint(const std::string& lines) {
    std::string all = "\x1b[H";
    for (std::size_t at = 0; at < lines.size();) {
        const std::size_t end = std::min(lines.find('\n', at), lines.size());
        if (at > 0) all += "\n";
        all.append(lines, at, end - at).append("\x1b[K");
        at = end + 1;
    }
    next_ = all + "\x1b[J";
    flush();
}

void Screen::stop() {
    leave();
    ::raise(SIGSTOP);
    enter();
}

void Screen::flush() {
    while (true) {
        if (pending_.empty()) pending_ = std::exchange(next_, {});
        if (pending_.empty()) break;
        const ssize_t count = ::write(out_, pending_.data(), pending_.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) {
            writable_ = {};
            writable_ = loop_.watch(out_, Runtime::FdLoop::Ready::writable, [this] { flush(); });
            return;
        }
        if (count < 0) return typed_({});  // the terminal is gone
        pending_.erase(0, static_cast<std::size_t>(count));
    }
    writable_ = {};
}
