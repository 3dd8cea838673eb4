#include "Control/Session.h"

#include "Control/Json.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace Control {

using Ready = Runtime::FdLoop::Ready;
using State::Value;

namespace {

constexpr std::size_t readOctets = 65536;
/// Served before others have their turn.
constexpr int requestsInTurn = 64;
constexpr int framesInTurn = 64;

const std::string* stringMember(const Value& request, std::string_view name) {
    const Value* member = request.member(name);
    return member != nullptr ? std::get_if<std::string>(&member->data) : nullptr;
}

Answer error(std::string text) { return {{}, std::move(text)}; }

std::string known(const Commands& commands) {
    std::string names = "get, set, watch, capture, list";
    for (const auto& [name, command] : commands) names += ", " + name;
    return names;
}

}  // namespace

Session::Session(Runtime::FdLoop& loop, const Services& services, Descriptor socket,
                 std::function<void()> ended)
    : loop_{loop},
      services_{services},
      socket_{std::move(socket)},
      ended_{std::move(ended)},
      // The frame is on its way: what is to be said of it waits until the protocol has had its turn.
      captures_{loop, services.frames, [this] { nextTurn_.armIn({}); }},
      nextTurn_{loop, [this] { serve(); }} {
    serve();
}

void Session::receive() {
    char piece[readOctets];
    const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count < 0) return end();
    if (count == 0) heardAll_ = true;
    in_.append(piece, static_cast<std::size_t>(count));
    serve();
}

void Session::serve() {
    flush();
    if (over()) return;
    serveRequests();
    serveWatches();
    serveCaptures();
    flush();
    if (over()) return;

    const bool requestWaits = in_.find('\n') != std::string::npos;
    const bool watchWaits = std::ranges::any_of(watches_, [](const auto& watch) { return watch->due; });
    if (heardAll_ && !requestWaits && out_.empty()) return end();
    if ((requestWaits || watchWaits || captures_.waiting()) && out_.empty()) nextTurn_.armIn({});
    // The descriptor stays ready while it is not read, so the loop must not ask for what is not wanted.
    if (heardAll_ || requestWaits || out_.size() >= replyLimit) {
        readable_.reset();
    } else if (!readable_) {
        readable_ = loop_.watch(socket_.get(), Ready::readable, [this] { receive(); });
    }
    if (out_.empty()) {
        writable_.reset();
    } else if (!writable_) {
        writable_ = loop_.watch(socket_.get(), Ready::writable, [this] { serve(); });
    }
}

void Session::serveRequests() {
    std::size_t at = 0;
    for (int served = 0; served < requestsInTurn && out_.size() < replyLimit; ++served) {
        const std::size_t newline = in_.find('\n', at);
        if (newline == std::string::npos) break;
        serveRequest(std::string_view{in_}.substr(at, newline - at));
        at = newline + 1;
    }
    in_.erase(0, at);
    if (in_.size() > requestLimit && in_.find('\n') == std::string::npos) {
        in_.clear();
        heardAll_ = true;  // where the next request would begin, nobody can tell
        send({{"error", "a request is longer than " + std::to_string(requestLimit) + " octets"}});
    }
}

void Session::serveRequest(std::string_view line) {
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) return;
    const auto [request, problem] = parseJson(line);
    State::Object reply;
    if (const Value* id = request.member("id")) reply.emplace_back("id", *id);
    const Answer answer =
        problem ? error("request, column " + std::to_string(problem->column) + ": " + problem->what)
                : execute(request, reply);
    if (answer.error.empty()) {
        reply.emplace_back("value", answer.value);
    } else {
        reply.emplace_back("error", answer.error);
    }
    send(std::move(reply));
}

Answer Session::execute(const Value& request, State::Object& reply) {
    const std::string* op = stringMember(request, "op");
    if (op == nullptr) return error("request: a text \"op\" is needed");
    if (*op == "list") return services_.records.list();
    if (const auto command = services_.commands.find(*op); command != services_.commands.end())
        return command->second(request);

    const std::string* path = stringMember(request, "path");
    if (*op != "get" && *op != "set" && *op != "watch" && *op != "capture")
        return error("request: op \"" + *op + "\" is none of " + known(services_.commands));
    if (path == nullptr) return error("request: a text \"path\" is needed");
    if (*op == "get") return services_.records.get(*path);
    if (*op == "watch") return watch(*path, reply);
    if (*op == "capture") return capture(*path, reply);

    const Value* value = request.member("value");
    if (value == nullptr) return error("request: a \"value\" is needed");
    const std::string* field = stringMember(request, "field");
    return services_.records.set(field != nullptr && !field->empty() ? *path + '/' + *field : *path, *value);
}

Answer Session::watch(const std::string& path, State::Object& reply) {
    if (watches_.size() == watchLimit) return error("a client has at most 32 watches");
    std::string problem;
    const auto record = services_.records.watchable(path, problem);
    if (!record) return error(std::move(problem));

    Answer current{services_.records.get(path).value, {}};
    auto watch = std::make_unique<Watch>();
    watch->path = path;
    watch->lastHash = std::hash<std::string>{}(jsonText(current.value));
    watch->feed = std::make_unique<State::ChangeFeed>(
        *record, [this](std::function<void()> task) { loop_.post(std::move(task)); },
        [this, watched = watch.get()] {
            watched->due = true;
            serve();
        });
    watches_.push_back(std::move(watch));
    reply.emplace_back("watch", path);
    return current;
}

Answer Session::capture(const std::string& port, State::Object& reply) {
    if (std::string problem = captures_.add(port); !problem.empty()) return error(std::move(problem));
    reply.emplace_back("capture", port);
    return {};
}

void Session::serveWatches() {
    for (const auto& watch : watches_) {
        // Read only when it can go out at once: what changes meanwhile is in it too.
        if (!watch->due || !out_.empty()) continue;
        watch->due = false;
        Value value = services_.records.get(watch->path).value;
        const std::size_t hash = std::hash<std::string>{}(jsonText(value));
        if (std::exchange(watch->lastHash, hash) == hash) continue;  // something else in the record changed
        send({{"watch", Value{watch->path}}, {"value", std::move(value)}});
        flush();
        if (over()) return;
    }
}

void Session::serveCaptures() {
    if (!out_.empty()) return;
    for (int told = 0; told < framesInTurn && captures_.waiting(); ++told) send(captures_.next());
}

void Session::send(State::Object reply) {
    reply.insert(reply.begin(), {"now", Value{Runtime::seconds(loop_.now())}});
    out_ += jsonText(Value{std::move(reply)});
    out_ += '\n';
}

void Session::flush() {
    if (over()) return;
    std::size_t sent = 0;
    while (sent < out_.size()) {
        const ssize_t count =
            ::send(socket_.get(), out_.data() + sent, out_.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) break;
        if (count < 0) return end();
        sent += static_cast<std::size_t>(count);
    }
    out_.erase(0, sent);
}

void Session::end() {
    if (over()) return;
    readable_.reset();
    writable_.reset();
    nextTurn_.cancel();
    captures_.clear();
    socket_.close();
    ended_();
}

}  // namespace Control
