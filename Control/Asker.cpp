#include "Control/Asker.h"

#include "Control/Json.h"
#include "Control/Socket.h"

#include <cerrno>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace Control {

std::string Asker::connect(const std::string& path) {
    path_ = path;
    in_.clear();
    std::string problem;
    socket_ = connectTo(path, problem, 1);
    if (!socket_) return problem;
    readable_ = loop_.watch(socket_.get(), Runtime::FdLoop::Ready::readable, [this] { receive(); });
    return {};
}

void Asker::ask(const std::vector<State::Value>& requests, Answered answered) {
    for (const State::Value& request : requests) out_ += jsonText(request) + '\n';
    wanted_ = requests.size();
    lastSign_ = loop_.now();
    answered_ = std::move(answered);
    // The end of the connection, if that is what sending finds, is told by the loop.
    loop_.post([this] { send(); });
}

void Asker::send() {
    while (socket_ && !out_.empty()) {
        const ssize_t count = ::send(socket_.get(), out_.data(), out_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) {
            writable_ = {};
            writable_ = loop_.watch(socket_.get(), Runtime::FdLoop::Ready::writable, [this] { send(); });
            return;
        }
        if (count < 0) return end(std::generic_category().message(errno));
        out_.erase(0, static_cast<std::size_t>(count));
    }
    writable_ = {};
}

void Asker::receive() {
    char piece[65536];
    const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, MSG_DONTWAIT);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count < 0) return end(std::generic_category().message(errno));
    if (count == 0) return end("the other side has closed it");
    lastSign_ = loop_.now();
    std::size_t newline = in_.size();
    in_.append(piece, static_cast<std::size_t>(count));
    std::size_t begin = 0;
    while (socket_ && (newline = in_.find('\n', newline)) != std::string::npos) {
        take(std::string_view{in_}.substr(begin, newline - begin));
        begin = ++newline;
    }
    in_.erase(0, begin);
    if (wanted_ != 0 && replies_.size() == wanted_) {
        wanted_ = 0;
        // What it does may ask anew.
        std::exchange(answered_, nullptr)(std::exchange(replies_, {}));
    }
}

void Asker::take(std::string_view line) {
    auto [reply, problem] = parseJson(line);
    if (problem) return end("an answer that is no JSON: " + problem->what);
    if (replies_.size() < wanted_) replies_.push_back(std::move(reply));
}

void Asker::end(const std::string& why) {
    readable_ = {};
    writable_ = {};
    socket_.close();
    out_.clear();
    replies_.clear();
    wanted_ = 0;
    answered_ = nullptr;
    lost_("socket " + path_ + ": " + why);
}

}  // namespace Control
