#include "Control/Server.h"

#include <cerrno>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace Control {

namespace {
/// How long newcomers wait when the process has no descriptor left for them.
constexpr std::chrono::seconds pause{1};
constexpr std::string_view tooMany = "{\"error\":\"too many clients\"}\n";
}  // namespace

Server::Server(Runtime::FdLoop& loop, const Session::Services& services)
    : loop_{loop},
      services_{services},
      sweep_{loop, [this] { sessions_.remove_if([](const Session& session) { return session.over(); }); }},
      listenAgain_{loop, [this] { listen(); }} {}

Server::~Server() {
    if (socket_) ::unlink(path_.c_str());
}

std::string Server::start(const std::string& path) {
    std::string problem;
    socket_ = listenOn(path, problem);
    path_ = path;
    if (socket_) listen();
    return problem;
}

void Server::listen() {
    readable_ = loop_.watch(socket_.get(), Runtime::FdLoop::Ready::readable, [this] { accept(); });
}

void Server::accept() {
    Descriptor client{::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    if (!client) {
        // The newcomer stays in the queue and would wake the loop for ever.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            readable_.reset();
            listenAgain_.armIn(pause);
        }
        return;
    }
    if (sessions_.size() >= sessionLimit) {
        [[maybe_unused]] const ssize_t sent =
            ::send(client.get(), tooMany.data(), tooMany.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return;
    }
    sessions_.emplace_back(loop_, services_, std::move(client), [this] { sweep_.armIn({}); });
}

}  // namespace Control
