#include "Control/Server.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <sys/socket.h>
#include <utility>

namespace Control {

namespace {
/// How long newcomers wait when the process has no descriptor left for them.
constexpr std::chrono::seconds pause{1};
/// Work for clients in one go: so long, and so many pieces of it.
constexpr Runtime::Duration slice = std::chrono::milliseconds{2};
constexpr int pieces = 64;
/// What a piece costs at least, so that everybody has a turn where no time passes.
constexpr Runtime::Duration leastCost = std::chrono::microseconds{10};
}  // namespace

Server::Client::Client(Server& server, Runtime::FileDescriptor socket)
    : session{server.loop_,
              server.services_,
              {server.parts_, server.watches_, server.requests_, server.captures_},
              std::move(socket),
              {.ready = [&server] { server.wake(); },
               .ended = [&server] { server.sweep_.armIn({}); },
               .crowded = [&server] { server.endGreediest(); }}} {}

Server::Server(Runtime::FdLoop& loop, const Session::Services& services)
    : loop_{loop},
      services_{services},
      watches_{loop, services.records, parts_, [this] { wake(); }},
      work_{loop, [this] { serve(); }},
      sweep_{loop,
             [this] { clients_.remove_if([](const Client& client) { return client.session.over(); }); }},
      listenAgain_{loop, [this] { listen(); }} {}

Server::~Server() {
    readable_.reset();
    clients_.clear();
}

std::string Server::start(const std::string& path) {
    std::string problem;
    socket_ = ListeningSocket::open(path, problem);
    if (socket_) listen();
    return problem;
}

void Server::listen() {
    readable_ = loop_.watch(socket_->get(), Runtime::FdLoop::Ready::readable, [this] { accept(); });
}

void Server::accept() {
    Runtime::FileDescriptor client{::accept4(socket_->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    if (!client) {
        // The newcomer stays in the queue and would wake the loop for ever.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            readable_.reset();
            listenAgain_.armIn(pause);
        }
        return;
    }
    makeRoom();
    clients_.emplace_back(*this, std::move(client));
}

void Server::makeRoom() {
    clients_.remove_if([](const Client& client) { return client.session.over(); });
    if (clients_.size() < sessionLimit) return;
    std::map<int, std::size_t> connections;  // by process
    for (const Client& client : clients_) ++connections[client.session.process()];
    const auto leaves = std::ranges::min_element(clients_, [&](const Client& a, const Client& b) {
        const std::size_t ofA = connections[a.session.process()];
        const std::size_t ofB = connections[b.session.process()];
        return ofA != ofB ? ofA > ofB : a.session.lastSign() < b.session.lastSign();
    });
    leaves->session.end("too many clients, and this one was quiet for longest");
    clients_.erase(leaves);
}

void Server::endGreediest() {
    std::ranges::max_element(clients_, {}, [](const Client& client) {
        return client.session.unserved();
    })->session.end("all clients together have sent more than can be kept, and this one most of it");
}

void Server::wake() {
    if (!work_.armed()) work_.armAt(std::max(notBefore_, loop_.now()));
}

Server::Client* Server::next() {
    Client* first = nullptr;
    for (Client& client : clients_) {
        if (!client.session.ready()) continue;
        client.cost = std::max(client.cost, paid_);
        if (first == nullptr ||
            std::pair{client.cost, client.lastServed} < std::pair{first->cost, first->lastServed})
            first = &client;
    }
    return first;
}

void Server::serve() {
    const Runtime::Time begun = loop_.now();
    Runtime::Duration took{};
    Client* client = next();
    for (int done = 0; client != nullptr && done < pieces && took < slice; ++done) {
        paid_ = client->cost;
        client->lastServed = ++served_;
        client->session.turn();
        client->cost += std::max(loop_.now() - begun - took, leastCost);
        took = loop_.now() - begun;
        client = next();
    }
    notBefore_ = begun + took + took;
    work_.cancel();
    if (client != nullptr) wake();
}

}  // namespace Control
