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

Server::Client::Client(Server& server, Runtime::FileDescriptor socket, const Peer& peer)
    : session{server.loop_,
              server.services_,
              {server.parts_, server.watches_, server.requests_, server.captures_},
              std::move(socket),
              peer,
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
    doors_.clear();
    clients_.clear();
}

std::string Server::start(const std::string& path, const Groups& groups) {
    for (const bool reads : {false, true}) {
        std::string problem;
        std::string notice;
        auto socket = reads ? ListeningSocket::open(path + ".read", groups.readers, problem, notice)
                            : ListeningSocket::open(path, groups.all, problem, notice);
        if (!socket) return problem;
        if (!notice.empty()) notices_.push_back(std::move(notice));
        doors_.push_back({std::move(socket), reads});
    }
    listen();
    return {};
}

void Server::listen() {
    for (Door& door : doors_) {
        door.readable = loop_.watch(door.socket->get(), Runtime::FdLoop::Ready::readable,
                                    [this, &door] { accept(door); });
    }
}

void Server::accept(Door& door) {
    Runtime::FileDescriptor client{
        ::accept4(door.socket->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    if (!client) {
        // The newcomer stays in the queue and would wake the loop for ever.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            for (Door& each : doors_) each.readable.reset();
            listenAgain_.armIn(pause);
        }
        return;
    }
    Peer peer = Peer::at(client);
    peer.reads = door.reads;
    if (makeRoom(peer)) clients_.emplace_back(*this, std::move(client), peer);
}

bool Server::makeRoom(const Peer& newcomer) {
    clients_.remove_if([](const Client& client) { return client.session.over(); });
    if (clients_.size() < sessionLimit) return true;
    std::map<int, std::size_t> connections;  // by process
    for (const Client& client : clients_) ++connections[client.session.peer().process];
    const auto leaves = std::ranges::min_element(clients_, [&](const Client& a, const Client& b) {
        const Peer& byA = a.session.peer();
        const Peer& byB = b.session.peer();
        if (byA.reads != byB.reads) return byA.reads;
        const std::size_t ofA = connections[byA.process];
        const std::size_t ofB = connections[byB.process];
        return ofA != ofB ? ofA > ofB : a.session.lastSign() < b.session.lastSign();
    });
    if (newcomer.reads && !leaves->session.peer().reads) return false;
    leaves->session.end("too many clients, and this one was quiet for longest");
    clients_.erase(leaves);
    return true;
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
