/// One connection to a Redis server, for programs that have a loop: it asks many things at once and goes on
/// meanwhile.
#pragma once

#include "Runtime/Loop.h"
#include "Store/Address.h"
#include "Store/Protocol.h"
#include "Store/Reply.h"
#include "Store/Tls.h"
#include "Store/Transport.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Store {

/// What a connection may fill at most; one that would is lost.
struct Limits {
    std::size_t answer = std::size_t{1} << 20;  ///< octets of one answer
    std::size_t unsent = std::size_t{4} << 20;  ///< octets of questions that the server has not taken yet
    std::size_t unanswered = 65536;             ///< questions
};

/// How to be let in.
struct Access {
    std::string user{};          ///< empty: the server's default user
    std::string passwordFile{};  ///< read for each connection; empty: no password is given
    TlsFiles tls{};
};

class Connection {
public:
    using Answer = std::function<void(const Reply& reply)>;

    /// All are called by the loop, never by a call of the owner's.  In any of them, and in the answers, the
    /// owner may destroy, close or open the connection.  None may be empty.
    struct Handlers {
        /// Questions may be asked now.
        std::function<void()> opened;
        /// Once for each `open`, if it ends otherwise than by `close`: one line that begins with the address.
        std::function<void(const std::string& reason)> lost;
        /// A message of a channel that this connection has subscribed to, also by a pattern.
        std::function<void(const std::string& channel, const std::string& payload)> pushed;
    };

    /// Within `patience` (at least 10 ms), a connection must be opened, and each question be answered.  One
    /// that has nothing to answer for so long is asked for a sign of life.  The loop must outlive this.
    Connection(Runtime::FdLoop& loop, Handlers handlers, Runtime::Duration patience = std::chrono::seconds{2},
               Limits limits = {});
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    /// Connects anew, after the end of what was before; what is wrong is told by `lost`.
    void open(const Address& to, const Access& access);
    /// Ends it without `lost`.  No question that has no answer yet will get one.
    void close();
    [[nodiscard]] bool isOpen() const { return stage_ == Stage::open; }
    /// In `lost`: when the attempt had begun that found no program listening at the address; else empty.
    [[nodiscard]] std::optional<Runtime::Time> absentAt() const {
        return nobodyThere_ ? std::optional{begun_} : std::nullopt;
    }

    /// Asks: one command, with at least one word.  `answer` (may be empty) gets the reply; those of several
    /// questions come in the order of the questions.  While the connection is not open, and when it is lost
    /// before the reply comes, `answer` is dropped.
    /// SUBSCRIBE and the like have as many replies as channels, of which `answer` gets the last, or the first
    /// error; UNSUBSCRIBE and PUNSUBSCRIBE only with the channels named.  Commands that change what the
    /// server says unasked otherwise (MONITOR, HELLO 3, CLIENT REPLY, SYNC, SSUBSCRIBE) are not to be asked.
    void ask(const std::vector<std::string>& words, Answer answer);
    [[nodiscard]] std::size_t unanswered() const { return questions_.size(); }
    /// Octets, for those who can wait with more.
    [[nodiscard]] std::size_t unsent() const { return out_.size() + (transport_ ? transport_->unsent() : 0); }

private:
    enum class Stage { closed, connecting, greeting, open };
    struct Question {
        Answer answer;
        bool subscription;
        std::size_t replies;  ///< how many are still to come
        Runtime::Time asked;
    };

    NotConnected begin(const Address& to, const Access& access);
    void put(const std::vector<std::string>& words, Answer answer);
    void becomeReady();
    void greet();
    void becomeOpen();
    void whenWritable();
    void whenReadable();
    void flush();
    void watchWritable();
    void takeReplies();
    void take(const Reply& reply);
    bool takePush(const Reply& reply);
    void look();
    void fail(const std::string& what, bool nobodyThere = false);
    /// Runs `task` in the loop, unless the connection has been closed, opened anew or destroyed by then.
    void later(std::function<void()> task);

    Runtime::FdLoop& loop_;
    const std::shared_ptr<const Handlers> handlers_;
    const Runtime::Duration patience_;
    const Limits limits_;

    Stage stage_ = Stage::closed;
    /// Made anew with each `open` and `close`: who finds it expired must not touch anything here.
    std::shared_ptr<char> life_;
    std::string address_;
    std::vector<std::string> greeting_;  ///< AUTH; empty: none
    TlsContext tls_;
    std::unique_ptr<Transport> transport_;
    Runtime::FdLoop::Watch readable_;
    Runtime::FdLoop::Watch writable_;
    bool watchesWritable_ = false;
    bool flushSoon_ = false;
    std::string out_;
    std::optional<ReplyReader> reader_;
    std::deque<Question> questions_;
    bool subscribed_ = false;
    Runtime::Time begun_{};
    bool nobodyThere_ = false;
    Runtime::Time asked_{};  ///< when anything was asked last
    Runtime::Timer patienceOver_;
    Runtime::Timer moreReplies_;  ///< armed while complete replies may have been left for the next turn
};

}  // namespace Store
