#include "Monitor/HttpServer.h"

#include "Monitor/HttpRequest.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <cerrno>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace Monitor {

using Ready = Runtime::FdLoop::Ready;

namespace {

constexpr int backlog = 64;
/// Until descriptors may be free again.
constexpr Runtime::Duration pause = std::chrono::milliseconds{100};
/// How long a peer that has its answer may take to hang up.
constexpr Runtime::Duration farewell = std::chrono::seconds{1};

std::string_view reasonOf(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 431:
            return "Request Header Fields Too Large";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Error";
    }
}

std::string headOf(const HttpAnswer& answer) {
    return Runtime::concat(
        "HTTP/1.1 ", answer.status, ' ', reasonOf(answer.status), "\r\nContent-Type: ", answer.contentType,
        "\r\nContent-Length: ", answer.body->size(), answer.status == 405 ? "\r\nAllow: GET, HEAD" : "",
        "\r\nConnection: close\r\n\r\n");
}

/// Of "192.0.2.1:9120" or "[2001:db8::1]:9120".  No names are looked up.
Runtime::FileDescriptor listenAt(const std::string& place, std::string& problem) {
    const std::size_t colon = place.rfind(':');
    std::string host = colon != std::string::npos ? place.substr(0, colon) : "";
    const std::string port = colon != std::string::npos ? place.substr(colon + 1) : "";
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (host.empty() || port.empty() || ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
        problem = place +
                  ": neither ADDRESS:PORT, like 127.0.0.1:9120 or [::1]:9120, nor the path of a Unix socket";
        return {};
    }
    Runtime::FileDescriptor fd{::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool listens =
        fd && ::bind(fd.get(), found->ai_addr, found->ai_addrlen) == 0 && ::listen(fd.get(), backlog) == 0;
    const int error = errno;
    ::freeaddrinfo(found);
    if (listens) return fd;
    problem = place + ": " + std::generic_category().message(error);
    return {};
}

}  // namespace

/// One peer: its request, then the answer, then its hanging up.
class HttpServer::Connection {
public:
    Connection(HttpServer& server, Runtime::FileDescriptor socket)
        : server_{server},
          socket_{std::move(socket)},
          deadline_{server.loop_, [this] { end(); }},
          readable_{server.loop_.watch(socket_.get(), Ready::readable, [this] { read(); })} {
        deadline_.armIn(patience);
    }

    [[nodiscard]] bool over() const { return !socket_; }
    void end() {
        if (over()) return;
        readable_.reset();
        writable_.reset();
        deadline_.cancel();
        socket_.close();
        server_.sweep_.armAt(server_.loop_.now());
    }

private:
    void read() {
        char piece[4096];
        const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (count <= 0) return end();
        if (body_) return;  // what comes behind the request is none of ours
        in_.append(piece, static_cast<std::size_t>(count));
        if (const std::size_t length = headLength(in_, static_cast<std::size_t>(count));
            length != 0 && length <= requestLimit) {
            answer(parseHttpRequest(std::string_view{in_}.substr(0, length)));
        } else if (in_.size() > requestLimit) {
            answer({.problem = 431});
        }
    }

    void answer(const HttpRequest& request) {
        HttpAnswer answer =
            request.problem == 0 ? server_.site_(request.path) : HttpAnswer{.status = request.problem};
        if (!answer.body)
            answer.body = std::make_shared<const std::string>(Runtime::concat(reasonOf(answer.status), '\n'));
        head_ = headOf(answer);
        body_ = request.headOnly ? std::make_shared<const std::string>() : std::move(answer.body);
        // It may have had to wait for the daemon.
        deadline_.armIn(patience);
        write();
    }

    void write() {
        while (sent_ < head_.size() + body_->size()) {
            const std::string_view all =
                sent_ < head_.size() ? std::string_view{head_} : std::string_view{*body_};
            const std::string_view rest = all.substr(sent_ < head_.size() ? sent_ : sent_ - head_.size());
            const ssize_t count =
                ::send(socket_.get(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && errno == EAGAIN) {
                if (!writable_)
                    writable_ = server_.loop_.watch(socket_.get(), Ready::writable, [this] { write(); });
                return;
            }
            if (count < 0) return end();
            sent_ += static_cast<std::size_t>(count);
        }
        // A close with something unread would take back what is on its way; so the peer hangs up first.
        writable_.reset();
        ::shutdown(socket_.get(), SHUT_WR);
        deadline_.armIn(farewell);
    }

    HttpServer& server_;
    Runtime::FileDescriptor socket_;
    Runtime::Timer deadline_;
    std::string in_;
    std::string head_;
    std::shared_ptr<const std::string> body_;  ///< null until there is an answer
    std::size_t sent_ = 0;                     ///< of head and body together
    std::optional<Runtime::FdLoop::Watch> readable_;
    std::optional<Runtime::FdLoop::Watch> writable_;
};

HttpServer::HttpServer(Runtime::FdLoop& loop, Site site)
    : loop_{loop},
      site_{std::move(site)},
      sweep_{loop, [this] { std::erase_if(connections_, [](const auto& c) { return c->over(); }); }},
      acceptAgain_{loop, [this] { listen(); }} {}

HttpServer::~HttpServer() = default;

std::string HttpServer::start(const std::string& place, const std::string& group) {
    std::string problem;
    if (place.starts_with('/')) {
        file_ = Control::ListeningSocket::open(place, group.c_str(), problem, notice_);
    } else {
        socket_ = listenAt(place, problem);
    }
    if (problem.empty()) listen();
    return problem;
}

void HttpServer::listen() {
    readable_ = loop_.watch(descriptor(), Ready::readable, [this] { accept(); });
}

void HttpServer::accept() {
    Runtime::FileDescriptor peer{::accept4(descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    if (!peer) {
        // The newcomer stays in the queue and would wake the loop for ever.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            readable_.reset();
            acceptAgain_.armIn(pause);
        }
        return;
    }
    std::erase_if(connections_, [](const auto& connection) { return connection->over(); });
    if (connections_.size() == connectionLimit) connections_.pop_front();
    connections_.push_back(std::make_unique<Connection>(*this, std::move(peer)));
}

}  // namespace Monitor
