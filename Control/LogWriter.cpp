#include "Control/LogWriter.h"

#include "Control/SystemProblem.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <utility>

namespace Control {

namespace {

/// Between two tries while the reader has to catch up, and while there is an error.
constexpr Runtime::Duration readerPause = std::chrono::milliseconds{50};
constexpr Runtime::Duration errorPause = std::chrono::seconds{1};
/// Written in one go.
constexpr std::size_t octetsInTurn = 65536;

/// Whether standard error leads into the system's journal, as sd-journal(3) tells.
bool isJournal() {
    const char* told = ::secure_getenv("JOURNAL_STREAM");
    struct stat status {};
    if (told == nullptr || ::fstat(STDERR_FILENO, &status) != 0) return false;
    return Runtime::concat(status.st_dev, ':', status.st_ino) == told;
}

/// "2026-11-21T22:56:42.123Z "
std::string timeOfDay(Runtime::WallTime now) {
    using namespace std::chrono;
    const auto since = duration_cast<milliseconds>(now.time_since_epoch());
    const std::time_t second = floor<seconds>(since).count();
    std::tm utc{};
    ::gmtime_r(&second, &utc);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    const std::string thousandths = std::to_string(1000 + (since % 1000).count());
    return Runtime::concat(text.data(), '.', thousandths.substr(1), "Z ");
}

class StandardError : public LogOutlet {
public:
    explicit StandardError(const Runtime::Loop* loop) : loop_{loop} { StandardError::reopen(); }

    [[nodiscard]] std::string head(int severity) const override {
        if (journal_) return Runtime::concat('<', severity, '>');
        return loop_ != nullptr ? timeOfDay(loop_->wallNow()) : std::string{};
    }

    ssize_t write(const std::string& line, std::size_t offset) override {
        // In one piece with its end: others may write to the same place.
        std::array<iovec, 2> pieces{
            {{const_cast<char*>(line.data()) + offset, line.size() - offset}, {const_cast<char*>("\n"), 1}}};
        ssize_t count = 0;
        if (kind_ == Kind::socket) {
            msghdr message{};
            message.msg_iov = pieces.data();
            message.msg_iovlen = pieces.size();
            count = ::sendmsg(STDERR_FILENO, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        } else if (kind_ == Kind::own) {
            count = ::writev(own_.get(), pieces.data(), pieces.size());
        } else {
            if (kind_ == Kind::shared) {
                // A pipe that is ready takes so much at once.
                pollfd ready{STDERR_FILENO, POLLOUT, 0};
                if (::poll(&ready, 1, 0) != 1) return -EAGAIN;
                pieces[0].iov_len = std::min<std::size_t>(pieces[0].iov_len, PIPE_BUF - 1);
                if (pieces[0].iov_len < line.size() - offset) pieces[1].iov_len = 0;
            }
            count = ::writev(STDERR_FILENO, pieces.data(), pieces.size());
        }
        return count < 0 ? -errno : count;
    }

    void reopen() override {
        own_.close();
        struct stat status {};
        if (::fstat(STDERR_FILENO, &status) != 0 || S_ISREG(status.st_mode)) {
            kind_ = Kind::file;
        } else if (S_ISSOCK(status.st_mode)) {
            kind_ = Kind::socket;
        } else {
            own_ = Runtime::FileDescriptor{
                ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
            kind_ = own_ ? Kind::own : Kind::shared;
        }
    }

private:
    enum class Kind {
        file,    ///< never makes anybody wait
        socket,  ///< can be asked not to, call by call
        own,     ///< opened a second time
        shared,  ///< could not be
    };
    const Runtime::Loop* const loop_;
    const bool journal_ = isJournal();
    Kind kind_ = Kind::file;
    Runtime::FileDescriptor own_;
};

class SystemLogSocket : public LogOutlet {
public:
    SystemLogSocket(const Runtime::Loop& loop, std::string program, std::string path)
        : loop_{loop}, program_{std::move(program)}, path_{std::move(path)} {}

    ssize_t write(const std::string& line, std::size_t) override {
        // Once more over a fresh connection: the log's own program may have been started anew.
        for (const bool fresh : {false, true}) {
            if (fresh) socket_.close();
            if (!socket_ && !connect()) return -errno;
            if (::send(socket_.get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
                return static_cast<ssize_t>(line.size() + 1);
            if (errno == EAGAIN || errno == ENOBUFS) return -EAGAIN;
        }
        return -errno;
    }
    void reopen() override { socket_.close(); }

private:
    bool connect() {
        sockaddr_un to{};
        to.sun_family = AF_UNIX;
        path_.copy(to.sun_path, sizeof to.sun_path - 1);
        socket_ = Runtime::FileDescriptor{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
        if (socket_ && ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0)
            return true;
        const int error = errno;
        socket_.close();
        errno = error;
        return false;
    }
    /// "<30>Nov 21 22:56:42 msrpd[1234]: " (RFC 3164; facility daemon)
    [[nodiscard]] std::string head(int severity) const override {
        constexpr int daemon = 3;
        const std::time_t now = std::chrono::system_clock::to_time_t(
            std::chrono::time_point_cast<std::chrono::system_clock::duration>(loop_.wallNow()));
        std::tm local{};
        ::localtime_r(&now, &local);
        std::array<char, 32> time{};
        std::strftime(time.data(), time.size(), "%b %e %H:%M:%S ", &local);
        return '<' + std::to_string(daemon * 8 + severity) + '>' + time.data() + program_ + '[' +
               std::to_string(::getpid()) + "]: ";
    }

    const Runtime::Loop& loop_;
    const std::string program_;
    const std::string path_;
    Runtime::FileDescriptor socket_;
};

}  // namespace

std::string oneLine(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = ' ';
    }
    return text;
}

std::unique_ptr<LogOutlet> standardError(const Runtime::Loop& loop) {
    return std::make_unique<StandardError>(&loop);
}

std::unique_ptr<LogOutlet> systemLogSocket(const Runtime::Loop& loop, std::string program, std::string path) {
    return std::make_unique<SystemLogSocket>(loop, std::move(program), std::move(path));
}

LogWriter::LogWriter(Runtime::Loop& loop, std::unique_ptr<LogOutlet> outlet,
                     std::function<void(const std::string& line)> trouble)
    : loop_{loop},
      outlet_{std::move(outlet)},
      trouble_{std::move(trouble)},
      timer_{loop, [this] {
                 if (std::exchange(letOthersPass_, false)) return timer_.armIn({});
                 flush();
             }} {}

void LogWriter::line(int severity, const std::string& text) {
    if (octets_ + text.size() > capacity) {
        ++dropped_;
        return lost("nobody reads them");
    }
    enqueue(severity, text);
    if (timer_.armed()) return;
    letOthersPass_ = true;
    timer_.armIn({});
}

void LogWriter::enqueue(int severity, const std::string& text) {
    queue_.push_back(outlet_->head(severity).append(oneLine(text)));
    octets_ += queue_.back().size();
}

void LogWriter::lost(const std::string& reason) {
    if (!reason_.empty()) return;
    reason_ = reason;
    trouble_("lines of the log are not written: " + reason);
}

bool LogWriter::flush() {
    timer_.cancel();
    for (std::size_t written = 0; !queue_.empty();) {
        if (written >= octetsInTurn) {
            timer_.armIn({});
            return false;
        }
        const std::string& first = queue_.front();
        const ssize_t count = outlet_->write(first, offset_);
        if (count == -EINTR) continue;
        if (count == -EMSGSIZE) {
            // No later try will take it.
            ++dropped_;
            lost(systemProblem(EMSGSIZE));
            written += first.size() + 1;
        } else if (count < 0) {
            if (count != -EAGAIN) lost(systemProblem(static_cast<int>(-count)));
            timer_.armIn(count == -EAGAIN ? readerPause : errorPause);
            return false;
        } else {
            written += static_cast<std::size_t>(count);
            offset_ += static_cast<std::size_t>(count);
            if (offset_ <= first.size()) continue;  // its end is still to be written
        }
        octets_ -= first.size();
        offset_ = 0;
        queue_.pop_front();
        if (queue_.empty() && dropped_ > 0) {
            constexpr int warning = 4;
            enqueue(warning,
                    std::to_string(std::exchange(dropped_, 0)) + " lines were not written: " + reason_);
        }
    }
    reason_.clear();
    return true;
}

void LogWriter::reopen() {
    outlet_->reopen();
    flush();
}

void LogWriter::finish(Runtime::Duration span) {
    const Runtime::Time until = loop_.now() + span;
    while (!flush() && loop_.now() < until) ::poll(nullptr, 0, 10);
}

void lastWords(const std::string& line) {
    constexpr int pause = 10;  // ms
    int tries = 50;
    StandardError outlet{nullptr};
    constexpr int error = 3;
    const std::string whole = outlet.head(error) + oneLine(line);
    for (std::size_t offset = 0; offset <= whole.size() && tries > 0;) {
        const ssize_t count = outlet.write(whole, offset);
        if (count > 0) {
            offset += static_cast<std::size_t>(count);
        } else if (count != -EAGAIN && count != -EINTR) {
            return;
        } else {
            ::poll(nullptr, 0, pause);
            --tries;
        }
    }
}

}  // namespace Control
