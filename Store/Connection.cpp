#include "Store/Connection.h"

#include "Runtime/Assert.h"
#include "Runtime/Text.h"
#include "Store/Files.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Store {

using Runtime::concat;
using Ready = Runtime::FdLoop::Ready;

namespace {

/// Replies that one turn of the loop may hand out.
constexpr int repliesPerTurn = 500;
/// With none, signs of life would be asked for all the time.
constexpr Runtime::Duration shortestPatience = std::chrono::milliseconds{10};

bool isSubscription(const std::string& word) {
    static constexpr std::array<std::string_view, 4> commands{"SUBSCRIBE", "PSUBSCRIBE", "UNSUBSCRIBE",
                                                              "PUNSUBSCRIBE"};
    std::string upper = word;
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return std::find(commands.begin(), commands.end(), upper) != commands.end();
}

}  // namespace

Connection::Connection(Runtime::FdLoop& loop, Handlers handlers, Runtime::Duration patience, Limits limits)
    : loop_{loop},
      handlers_{std::make_shared<const Handlers>(std::move(handlers))},
      patience_{std::max(patience, shortestPatience)},
      limits_{limits},
      patienceOver_{loop, [this] { look(); }},
      moreReplies_{loop, [this] { later([this] { takeReplies(); }); }} {
    Runtime::require(handlers_->opened && handlers_->lost && handlers_->pushed, "handlers for everything");
}

Connection::~Connection() { close(); }

void Connection::close() {
    life_.reset();
    stage_ = Stage::closed;
    readable_ = {};
    writable_ = {};
    watchesWritable_ = false;
    transport_.reset();
    patienceOver_.cancel();
    moreReplies_.cancel();
    flushSoon_ = false;
    subscribed_ = false;
    out_ = {};
    greeting_ = {};
    reader_.reset();
    // Last: what the answers hold may end with them, and do something here.
    const std::deque<Question> dropped = std::exchange(questions_, {});
}

void Connection::open(const Address& to, const Access& access) {
    close();
    life_ = std::make_shared<char>();
    address_ = to.text();
    begun_ = asked_ = loop_.now();
    nobodyThere_ = false;
    if (const NotConnected why = begin(to, access); !why.problem.empty()) fail(why.problem, why.nobodyThere);
}

NotConnected Connection::begin(const Address& to, const Access& access) {
    if (!access.user.empty() && access.passwordFile.empty())
        return {.problem = concat("user \"", inOneLine(access.user), "\" needs a password file")};
    if (!access.passwordFile.empty()) {
        greeting_ = {"AUTH"};
        if (!access.user.empty()) greeting_.push_back(access.user);
        if (std::string problem = readPassword(access.passwordFile, greeting_.emplace_back());
            !problem.empty())
            return {.problem = problem};
    }
    NotConnected why;
    transport_ = Transport::open(to, access.tls, tls_, why);
    if (!transport_) return why;
    stage_ = Stage::connecting;
    reader_.emplace(limits_.answer);
    patienceOver_.armIn(patience_);
    watchWritable();
    return {};
}

void Connection::fail(const std::string& what, bool nobodyThere) {
    const std::string reason = concat(address_, ": ", what);
    close();
    nobodyThere_ = nobodyThere;
    life_ = std::make_shared<char>();
    later([this, reason] {
        const auto handlers = handlers_;
        life_.reset();
        handlers->lost(reason);
    });
}

void Connection::later(std::function<void()> task) {
    loop_.post([life = std::weak_ptr{life_}, task = std::move(task)] {
        if (!life.expired()) task();
    });
}

void Connection::ask(const std::vector<std::string>& words, Answer answer) {
    Runtime::require(!words.empty(), "a command has a word");
    if (stage_ == Stage::open) put(words, std::move(answer));
}

void Connection::put(const std::vector<std::string>& words, Answer answer) {
    std::size_t octets = unsent();
    for (const std::string& word : words) octets += word.size();
    if (octets > limits_.unsent)
        return fail(concat("more than ", limits_.unsent, " octets are not sent yet"));
    if (questions_.size() >= limits_.unanswered)
        return fail(concat("more than ", limits_.unanswered, " questions have no answer yet"));
    out_ += commandText(words);
    asked_ = loop_.now();
    // Until then it was only to be asked for a sign of life.
    if (stage_ == Stage::open && questions_.empty()) patienceOver_.armAt(asked_ + patience_);
    const bool subscription = isSubscription(words.front());
    const std::size_t replies = subscription ? std::max<std::size_t>(words.size() - 1, 1) : 1;
    questions_.push_back({std::move(answer), subscription, replies, asked_});
    if (std::exchange(flushSoon_, true)) return;
    later([this] {
        flushSoon_ = false;
        flush();
    });
}

void Connection::watchWritable() {
    const bool wanted = stage_ == Stage::connecting || unsent() > 0;
    if (wanted == watchesWritable_) return;
    watchesWritable_ = wanted;
    writable_ = {};
    if (wanted) writable_ = loop_.watch(transport_->get(), Ready::writable, [this] { whenWritable(); });
}

void Connection::whenWritable() {
    if (stage_ != Stage::connecting) return flush();
    if (const NotConnected why = transport_->connected(); !why.problem.empty())
        return fail(why.problem, why.nobodyThere);
    stage_ = Stage::greeting;
    readable_ = loop_.watch(transport_->get(), Ready::readable, [this] { whenReadable(); });
    if (!transport_->ready()) return flush();
    greet();
}

void Connection::flush() {
    if (const std::string problem = transport_->send(out_); !problem.empty()) return fail(problem);
    // By TLS a server can make us answer without a question.
    if (unsent() > 2 * limits_.unsent) return fail("the server does not take what TLS has to say");
    watchWritable();
}

void Connection::greet() {
    if (greeting_.empty()) return becomeOpen();
    put(std::exchange(greeting_, {}), [this](const Reply& reply) {
        if (reply.isText("OK")) return becomeOpen();
        fail(concat("not let in: ", inOneLine(reply)));
    });
}

void Connection::becomeOpen() {
    stage_ = Stage::open;
    asked_ = loop_.now();
    patienceOver_.armAt(asked_ + patience_);
    watchWritable();
    const auto handlers = handlers_;
    handlers->opened();
}

void Connection::whenReadable() {
    // First what is there: nobody can make more be kept than one reading brings.
    if (moreReplies_.armed()) return;
    std::string plain;
    const bool wasReady = transport_->ready();
    const std::string problem = transport_->receive(plain);
    const std::weak_ptr life{life_};
    if (!plain.empty()) {
        reader_->feed(plain);
        takeReplies();
        if (life.expired()) return;
    }
    if (!problem.empty()) return fail(problem);
    if (!wasReady && transport_->ready()) {
        greet();
        if (life.expired()) return;
    }
    flush();
}

void Connection::takeReplies() {
    const std::weak_ptr life{life_};
    for (int count = 0; count < repliesPerTurn; ++count) {
        auto reply = reader_->next();
        if (!reader_->problem().empty()) return fail(reader_->problem());
        if (!reply) return;
        take(*reply);
        if (life.expired()) return;
    }
    moreReplies_.armIn({});
}

bool Connection::takePush(const Reply& reply) {
    const auto& list = reply.list;
    if (!subscribed_ || list.empty()) return false;
    const bool plain = list.size() == 3 && list[0].isText("message");
    const bool byPattern = list.size() == 4 && list[0].isText("pmessage");
    if (!plain && !byPattern) return false;
    const auto handlers = handlers_;
    handlers->pushed(list[list.size() - 2].text, list.back().text);
    return true;
}

void Connection::take(const Reply& reply) {
    if (takePush(reply)) return;
    if (questions_.empty()) return fail(concat("said without being asked: ", inOneLine(reply)));
    Question& first = questions_.front();
    // [ "subscribe", the channel, of how many in all ]
    if (first.subscription && reply.list.size() == 3) subscribed_ = reply.list[2].number > 0;
    if (reply.kind != Reply::Kind::error && --first.replies > 0) return;
    const Answer answer = std::move(first.answer);
    questions_.pop_front();
    if (answer) answer(reply);
}

void Connection::look() {
    // The oldest thing that is waited for.
    const Runtime::Time since = stage_ != Stage::open ? begun_
                                : questions_.empty()  ? asked_
                                                      : questions_.front().asked;
    if (loop_.now() - since < patience_) return patienceOver_.armAt(since + patience_);
    if (stage_ == Stage::open && questions_.empty()) return put({"PING"}, {});
    const char* const what = stage_ == Stage::connecting ? "not connected"
                             : stage_ == Stage::greeting ? "not let in"
                                                         : "no answer";
    fail(concat(what, " within ", std::chrono::ceil<std::chrono::milliseconds>(patience_).count(), " ms"));
}

}  // namespace Store
