#include "Control/Client.h"

#include "Control/Json.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>

namespace Control {

std::string Client::connect(const std::string& path, unsigned seconds) {
    path_ = path;
    std::string problem;
    socket_ = connectTo(path, problem, seconds);
    return problem;
}

std::string Client::send(const State::Value& request) {
    const std::string line = jsonText(request) + '\n';
    for (std::size_t sent = 0; sent < line.size();) {
        const ssize_t count = ::send(socket_.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return failure(std::generic_category().message(errno));
        sent += static_cast<std::size_t>(count);
    }
    return {};
}

std::string Client::receive(State::Value& reply, unsigned seconds) {
    using namespace std::chrono;
    const auto until = steady_clock::now() + std::chrono::seconds{seconds};
    std::size_t newline = in_.find('\n');
    while (newline == std::string::npos) {
        timeval limit{};
        if (seconds != 0) {
            // For the whole answer, in however many pieces it comes; none would be without end.
            const auto left =
                std::max(duration_cast<microseconds>(until - steady_clock::now()), microseconds{1}).count();
            limit.tv_sec = static_cast<time_t>(left / 1'000'000);
            limit.tv_usec = static_cast<suseconds_t>(left % 1'000'000);
        }
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char piece[65536];
        const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN)
            return failure("no answer within " + std::to_string(seconds) + " seconds");
        if (count < 0) return failure(std::generic_category().message(errno));
        if (count == 0) return failure("the other side has closed it");
        const std::size_t before = in_.size();
        in_.append(piece, static_cast<std::size_t>(count));
        newline = in_.find('\n', before);
        if (newline == std::string::npos && seconds != 0 && steady_clock::now() >= until)
            return failure("no answer within " + std::to_string(seconds) + " seconds");
    }
    auto [value, problem] = parseJson(std::string_view{in_}.substr(0, newline));
    in_.erase(0, newline + 1);
    if (problem) return failure("an answer that is no JSON: " + problem->what);
    reply = std::move(value);
    const State::Value* error = reply.member("error");
    const auto* text = error != nullptr ? std::get_if<std::string>(&error->data) : nullptr;
    return text != nullptr ? *text : std::string{};
}

std::string Client::ask(const State::Value& request, State::Value& reply) {
    std::string problem = send(request);
    return problem.empty() ? receive(reply) : problem;
}

void Client::hangUp() const { ::shutdown(socket_.get(), SHUT_RDWR); }

}  // namespace Control
