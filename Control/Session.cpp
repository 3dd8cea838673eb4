#include "Control/Session.h"

#include "Control/Json.h"
#include "Runtime/Text.h"

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
constexpr Runtime::Duration turnSpan = std::chrono::milliseconds{1};

const std::string* stringMember(const Value& request, std::string_view name) {
    const Value* member = request.member(name);
    return member != nullptr ? std::get_if<std::string>(&member->data) : nullptr;
}

Answer error(std::string text) { return {{}, std::move(text)}; }

std::string cut(std::string_view text, std::size_t most) {
    return text.size() <= most ? std::string{text} : std::string{text.substr(0, most)} + "...";
}

/// Of a request's member, in an error.
constexpr std::size_t shownOctets = 64;

/// Empty when the text is no longer than that.
std::string tooLong(std::string_view member, std::string_view text, std::size_t most) {
    if (text.size() <= most) return {};
    return Runtime::concat("request: ", member, ' ', cut(text, shownOctets), " is longer than ", most,
                           " octets");
}

std::string readsOnly(std::string_view op) {
    return Runtime::concat("request: op \"", op, "\": this socket is for reading only");
}

std::string known(const Commands& commands) {
    std::string names = "get, set, watch, capture, list";
    for (const auto& [name, command] : commands) names += ", " + name;
    return names;
}

}  // namespace

Session::Session(Runtime::FdLoop& loop, const Services& services, const Shared& shared,
                 Runtime::FileDescriptor socket, const Peer& peer, Notices notices)
    : loop_{loop},
      services_{services},
      shared_{shared},
      socket_{std::move(socket)},
      notices_{std::move(notices)},
      peer_{peer},
      // The frame is on its way: what is to be said of it waits until the protocol has had its turn.
      captures_{loop, services.frames, shared.captures, [this] { notices_.ready(); }},
      lastSign_{loop.now()},
      patience_{loop, [this] { end("nothing was asked for too long"); }} {
    settle();
}

void Session::receive() {
    char piece[readOctets];
    const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count < 0) return end();
    if (count == 0) heardAll_ = true;
    while (!shared_.requests.take(static_cast<std::size_t>(count))) {
        notices_.crowded();
        if (over()) return;
    }
    const std::size_t before = in_.size();
    in_.append(piece, static_cast<std::size_t>(count));
    if (!requestWaits()) newline_ = in_.find('\n', before);
    settle();
}

bool Session::ready() {
    if (over() || !out_.empty()) return false;
    return text_ || requestWaits() || heardAll_ || in_.size() > requestLimit || captures_.waiting() ||
           dueWatch() != watches_.end();
}

void Session::turn() {
    if (!ready()) return;
    waitsSince_ = loop_.now();
    if (text_) {
        append(shared_.parts.after(*text_));
    } else if (requestWaits() || in_.size() > requestLimit) {
        serveRequests();
    } else if (heardAll_) {
        return end();
    } else if (const auto due = dueWatch(); due != watches_.end()) {
        if (auto text = due->take()) send({{{"watch", Value{due->topic->path()}}}, {}, std::move(text)});
    } else {
        serveCaptures();
    }
    flush();
    settle();
}

void Session::settle() {
    if (over()) return;
    // The descriptor stays ready while it is not read, so the loop must not ask for what is not wanted.
    if (heardAll_ || requestWaits() || in_.size() > requestLimit) {
        readable_.reset();
    } else if (!readable_) {
        readable_ = loop_.watch(socket_.get(), Ready::readable, [this] { receive(); });
    }
    if (out_.empty()) {
        writable_.reset();
    } else if (!writable_) {
        writable_ = loop_.watch(socket_.get(), Ready::writable, [this] {
            flush();
            settle();
        });
    }
    if (!out_.empty()) {
        patience_.armAt(waitsSince_ + readPatience);
    } else if (watches_.empty() && !captures_.any()) {
        patience_.armAt(lastSign_ + askPatience);
    } else {
        patience_.cancel();
    }
    if (ready()) notices_.ready();
}

void Session::serveRequests() {
    const Runtime::Time begun = loop_.now();
    std::size_t at = 0;
    for (int served = 0; served < requestsInTurn && requestWaits(); ++served) {
        serveRequest(std::string_view{in_}.substr(at, newline_ - at));
        at = newline_ + 1;
        newline_ = in_.find('\n', at);
        if (text_ || out_.size() >= replyLimit || loop_.now() - begun >= turnSpan) break;
    }
    in_.erase(0, at);
    if (in_.empty()) in_.shrink_to_fit();  // what the budget gets back must be there
    if (requestWaits()) newline_ -= at;
    shared_.requests.giveBack(at);
    if (in_.size() > requestLimit && !requestWaits()) {
        shared_.requests.giveBack(in_.size());
        in_.clear();
        heardAll_ = true;  // where the next request would begin, nobody can tell
        send({{}, error("a request is longer than " + std::to_string(requestLimit) + " octets")});
    }
    lastSign_ = loop_.now();
}

void Session::serveRequest(std::string_view line) {
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) return;
    const auto [request, problem] = parseJson(line);
    Reply reply;
    const Value* id = request.member("id");
    std::string idProblem = id != nullptr ? tooLong("id", jsonText(*id), idLimit) : std::string{};
    if (id != nullptr && idProblem.empty()) reply.members.emplace_back("id", *id);
    if (!idProblem.empty()) {
        reply.answer = error(std::move(idProblem));
    } else if (problem) {
        reply.answer = error("request, column " + std::to_string(problem->column) + ": " + problem->what);
    } else {
        execute(request, reply);
    }
    send(std::move(reply));
}

void Session::execute(const Value& request, Reply& reply) {
    const auto fail = [&reply](std::string text) { reply.answer = error(std::move(text)); };
    const std::string* op = stringMember(request, "op");
    if (op == nullptr) return fail("request: a text \"op\" is needed");
    if (*op == "list") {
        reply.answer = services_.records.list();
        return;
    }
    if (const auto command = services_.commands.find(*op); command != services_.commands.end()) {
        if (peer_.reads && !command->second.reads) return fail(readsOnly(*op));
        reply.answer = command->second.run(request, peer_);
        if (reply.answer.walk) reply.text = shared_.parts.first(RecordText{std::move(*reply.answer.walk)});
        return;
    }
    const std::string* path = stringMember(request, "path");
    if (*op != "get" && *op != "set" && *op != "watch" && *op != "capture")
        return fail("request: op \"" + cut(*op, shownOctets) + "\" is none of " + known(services_.commands));
    if (path == nullptr) return fail("request: a text \"path\" is needed");
    const std::string* field = stringMember(request, "field");
    if (std::string problem = tooLong("path", *path, pathLimit); !problem.empty())
        return fail(std::move(problem));
    if (std::string problem = field != nullptr ? tooLong("field", *field, pathLimit) : std::string{};
        !problem.empty())
        return fail(std::move(problem));
    if (*op == "get") return get(*path, reply);
    if (*op == "watch") return watch(*path, reply);
    if (*op == "capture") return capture(*path, reply);

    const Value* value = request.member("value");
    if (value == nullptr) return fail("request: a \"value\" is needed");
    if (peer_.reads) return fail(readsOnly(*op));
    reply.answer = services_.records.set(field != nullptr && !field->empty() ? *path + '/' + *field : *path,
                                         *value, peer_.text());
}

void Session::get(const std::string& path, Reply& reply) {
    if (auto walk = services_.records.read(path, reply.answer.error))
        reply.text = shared_.parts.first(RecordText{std::move(*walk)});
}

void Session::watch(const std::string& path, Reply& reply) {
    if (watches_.size() == watchLimit) {
        reply.answer = error("a client has at most 32 watches");
    } else if (auto topic = shared_.watches.topic(path, reply.answer.error)) {
        watches_.push_back({std::move(topic)});
        reply.members.emplace_back("watch", path);
        reply.text = watches_.back().take();
    }
}

void Session::capture(const std::string& port, Reply& reply) {
    reply.answer.error = captures_.add(port);
    if (reply.answer.error.empty()) reply.members.emplace_back("capture", port);
}

std::vector<Session::Watch>::iterator Session::dueWatch() {
    return std::ranges::find_if(watches_,
                                [](const Watch& watch) { return watch.told != watch.topic->version(); });
}

std::shared_ptr<TextPart> Session::Watch::take() {
    auto text = topic->text(told == 0);
    told = topic->version();
    const auto before = lastHash;
    lastHash = text->last ? std::optional{std::hash<std::string>{}(text->text)} : std::nullopt;
    // Something else in the record changed.
    if (lastHash && lastHash == before) return nullptr;
    return text;
}

void Session::serveCaptures() {
    for (int told = 0; told < framesInTurn && captures_.waiting(); ++told) {
        State::Object frame = captures_.next();
        frame.insert(frame.begin(), {"now", Value{Runtime::seconds(loop_.now())}});
        appendJson(out_, Value{std::move(frame)});
        out_ += '\n';
    }
}

void Session::send(Reply reply) {
    State::Object& members = reply.members;
    members.insert(members.begin(), {"now", Value{Runtime::seconds(loop_.now())}});
    if (reply.text) {
        appendJson(out_, Value{std::move(members)});
        out_.back() = ',';
        out_ += "\"value\":";
        return append(std::move(reply.text));
    }
    if (reply.answer.error.empty()) {
        members.emplace_back("value", std::move(reply.answer.value));
    } else {
        members.emplace_back("error", cut(reply.answer.error, errorLimit));
    }
    appendJson(out_, Value{std::move(members)});
    out_ += '\n';
}

void Session::append(std::shared_ptr<TextPart> part) {
    out_ += part->text;
    if (part->last) out_ += "}\n";
    text_ = part->last ? nullptr : std::move(part);
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
    if (sent > 0) lastSign_ = waitsSince_ = loop_.now();
    out_.erase(0, sent);
}

void Session::end(const std::string& reason) {
    if (over()) return;
    if (!reason.empty() && out_.empty() && !text_) {
        send({{}, error(reason)});
        [[maybe_unused]] const ssize_t sent =
            ::send(socket_.get(), out_.data(), out_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    readable_.reset();
    writable_.reset();
    patience_.cancel();
    captures_.clear();
    watches_.clear();
    text_.reset();
    shared_.requests.giveBack(in_.size());
    in_.clear();
    newline_ = std::string::npos;
    out_.clear();
    socket_.close();
    notices_.ended();
}

}  // namespace Control
