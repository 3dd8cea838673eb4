#include "Linux/kernel/EpollLoop.h"
#include "Store/Connection.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/store/RedisProcess.h"
#include "tests/store/ScriptedServer.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Store::Reply;
using Texts = std::vector<std::string>;

/// Far more than anything here takes.
constexpr Runtime::Duration deadline = 20s;

struct ConnectionTest : testing::Test {
    /// A connection whose events are written down.
    void open(const std::string& text, const Store::Access& access = {}, Runtime::Duration patience = 10s,
              const Store::Limits& limits = {}) {
        std::string problem;
        const auto address = Store::Address::parse(text, problem);
        ASSERT_EQ(problem, "");
        prefix = text + ": ";
        connection = std::make_unique<Store::Connection>(
            loop,
            Store::Connection::Handlers{
                .opened = [this] { happens("opened"); },
                .lost = [this](const std::string& reason) { happens("lost " + withoutPrefix(reason)); },
                .pushed = [this](const std::string& channel,
                                 const std::string& payload) { happens(channel + "=" + payload); }},
            patience, limits);
        events = {};
        connection->open(*address, access);
        EXPECT_EQ(events, Texts{}) << "told by the call of the owner";
    }
    void ask(std::vector<std::string> words) {
        connection->ask(std::move(words), [this](const Reply& reply) {
            happens((reply.kind == Reply::Kind::error ? "!" : "") + inOneLine(reply));
        });
    }
    void happens(const std::string& event) {
        events.push_back(event);
        if (then && event.starts_with(when)) std::exchange(then, nullptr)();
    }
    /// All that has happened, once that is so much.
    Texts after(std::size_t count) {
        EXPECT_TRUE(loop.runUntil([&] { return events.size() >= count; }, deadline));
        return std::exchange(events, {});
    }
    /// In a connection of its own.
    Texts asked(const Store::Access& access, const Texts& words, const std::string& place) {
        open(place, access);
        if (const Texts first = after(1); first != Texts{"opened"}) return first;
        ask(words);
        return after(1);
    }
    [[nodiscard]] std::string withoutPrefix(const std::string& reason) const {
        EXPECT_TRUE(reason.starts_with(prefix)) << reason;
        return reason.substr(std::min(prefix.size(), reason.size()));
    }

    Linux::EpollLoop loop;
    TemporaryDirectory directory;
    const std::string at = "unix:" + directory.file("redis");
    std::unique_ptr<Store::Connection> connection;
    Texts events;
    std::string prefix;
    std::string when;  ///< the beginning of the event after which `then` is to be done once
    std::function<void()> then;
};

/// With a real server at `at`.
struct RealConnection : ConnectionTest {
    RedisProcess server{redisServer(directory, {"--port", "0", "--unixsocket", directory.file("redis")})};
};

TEST_F(RealConnection, AnswersInTheOrderOfTheQuestions) {
    open(at);
    ASSERT_EQ(after(1), Texts{"opened"});
    Texts expected;
    for (int i = 1; i <= 5000; ++i) {
        ask({"INCR", "n"});
        expected.push_back(std::to_string(i));
    }
    EXPECT_EQ(connection->unanswered(), 5000U);
    EXPECT_EQ(after(5000), expected);

    // Octets of any kind, and more than one reading takes.
    const std::string big = std::string("\0\r\n$5\xff", 7) + std::string(500'000, 'x');
    ask({"SET", "big", big});
    Reply back;
    connection->ask({"GET", "big"}, [&](const Reply& reply) { back = reply; });
    ask({"GET", "missing"});
    ask({"NONSENSE"});
    EXPECT_EQ(after(3),
              (Texts{"OK", "nothing", "!ERR unknown command 'NONSENSE', with args beginning with: "}));
    EXPECT_TRUE(back.isText(big));
    EXPECT_EQ(connection->unsent(), 0U);
}

TEST_F(RealConnection, HandsOutWhatChannelsSay) {
    open(at);
    ASSERT_EQ(after(1), Texts{"opened"});
    // Looks like a message, but nothing is subscribed to, whatever that looks like.
    ask({"EVAL", "return {'subscribe', 'a', 1}", "0"});
    ask({"EVAL", "return {'message', 'a', 'b'}", "0"});
    ask({"subscribe", "a", "b"});
    ask({"PSUBSCRIBE", "c*"});
    EXPECT_EQ(after(4), Texts(4, "a list"));
    const auto talking = std::exchange(connection, nullptr);
    open(at);
    ASSERT_EQ(after(1), Texts{"opened"});
    for (const char* channel : {"a", "b", "c1", "d"}) ask({"PUBLISH", channel, "hello"});
    Texts all = after(7);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, (Texts{"0", "1", "1", "1", "a=hello", "b=hello", "c1=hello"}));
    connection = nullptr;
    talking->ask({"UNSUBSCRIBE", "a", "b"}, {});
    talking->ask({"PUNSUBSCRIBE", "c*"}, {});
    talking->ask({"EVAL", "return {'message', 'a', 'b'}", "0"},
                 [this](const Reply& reply) { happens(inOneLine(reply)); });
    EXPECT_EQ(after(1), Texts{"a list"});
}

TEST_F(RealConnection, GivesThePassword) {
    open(at);
    ASSERT_EQ(after(1), Texts{"opened"});
    ask({"ACL", "SETUSER", "switch", "on", ">sesame two", "+@all", "~*"});
    ask({"CONFIG", "SET", "requirepass", "open"});
    ASSERT_EQ(after(2), (Texts{"OK", "OK"}));
    const std::string wrong =
        "lost not let in: WRONGPASS invalid username-password pair or user is disabled.";
    const std::string right = directory.write("right", "open\n");
    const std::string users = directory.write("users", "sesame two\r\n\n");
    const std::string empty = directory.write("empty", "\n");
    const struct {
        std::string user, file, outcome;
    } table[] = {
        {"", "", "!NOAUTH Authentication required."},
        {"", right, "default"},
        {"", users, wrong},
        {"switch", users, "switch"},
        {"switch", right, wrong},
        {"switch", "", "lost user \"switch\" needs a password file"},
        {"", "/nowhere", "lost file /nowhere: No such file or directory"},
        {"", empty, "lost file " + empty + ": no password is in it"},
        {"", directory.file(""), "lost file " + directory.file("") + ": not a plain file"},
        {"", directory.write("long", std::string(5000, 'x')),
         "lost file " + directory.file("long") + ": a password of more than 4096 octets"},
    };
    for (const auto& [user, file, outcome] : table)
        EXPECT_EQ(asked({user, file}, {"ACL", "WHOAMI"}, at), Texts{outcome}) << user << ' ' << file;
}

TEST_F(RealConnection, IsLostWithItsServer) {
    const auto ends = [this](const std::string& reason, const std::function<void()>& how, bool asking) {
        open(at, {}, 300ms, {.unsent = 1 << 20});
        ASSERT_EQ(after(1), Texts{"opened"});
        how();
        for (int i = 0; i < 3 && asking; ++i) ask({"GET", "x"});
        EXPECT_EQ(after(1), Texts{"lost " + reason});
        EXPECT_EQ(connection->unanswered(), 0U);
        ask({"GET", "x"});
    };
    const auto stop = [this] { server.signal(SIGSTOP); };
    ends("no answer within 300 ms", stop, true);
    server.signal(SIGCONT);
    // Nobody asks anything.
    ends("no answer within 300 ms", stop, false);
    server.signal(SIGCONT);
    ends(
        "more than 1048576 octets are not sent yet",
        [&] {
            stop();
            for (int i = 0; i < 30; ++i) ask({"SET", "x", std::string(100'000, 'x')});
            EXPECT_EQ(events, Texts{}) << "lost by the call of the owner";
        },
        false);
    server.signal(SIGCONT);
    ends(
        "the server has closed the connection", [this] { server.kill(); }, false);
    open(at);
    EXPECT_EQ(after(1), Texts{"lost Connection refused"});
    open("unix:/nowhere/redis");
    EXPECT_EQ(after(1), Texts{"lost No such file or directory"});
    open("127.0.0.1:" + freePort());
    EXPECT_EQ(after(1), Texts{"lost Connection refused"});
    EXPECT_FALSE(loop.runUntil([this] { return !events.empty(); }, 20ms)) << "answered, or lost again";
}

TEST_F(RealConnection, MayEndInEachCallback) {
    open(at);
    ASSERT_EQ(after(1), Texts{"opened"});
    const auto other = std::exchange(connection, nullptr);
    std::string problem;
    const auto address = Store::Address::parse(at, problem);
    for (const bool reopens : {false, true}) {
        for (const std::string event : {"opened", "2", "a list", "hello", "lost"}) {
            open(at);
            when = event;
            then = [&, this] { reopens ? connection->open(*address, {}) : connection.reset(); };
            loop.runUntil([this] { return !events.empty(); }, deadline);
            if (connection) {
                ask({"DEL", "n"});
                // Those behind it have no answer any more.
                for (int i = 0; i < 9; ++i) ask({"INCR", "n"});
                ask({"SUBSCRIBE", "hello"});
                connection->ask({"PING"}, [this, event](const Reply&) { happens("subscribed"); });
            }
            loop.runUntil([this] { return !then || events.back() == "subscribed"; }, deadline);
            if (event == "hello") other->ask({"PUBLISH", "hello", "x"}, {});
            if (event == "lost") other->ask({"CLIENT", "KILL", "TYPE", "pubsub"}, {});
            EXPECT_TRUE(loop.runUntil([this] { return !then; }, deadline)) << event;
            EXPECT_TRUE(events.back().starts_with(event)) << events.back();
            EXPECT_TRUE(loop.runUntil([&] { return !reopens || connection->isOpen(); }, deadline)) << event;
            const auto before = events.size() + (reopens ? 1 : 0);
            EXPECT_FALSE(loop.runUntil([&] { return events.size() > before; }, 5ms)) << events.back();
        }
    }
}

TEST_F(ConnectionTest, TrustsOnlyTheRightServer) {
    const std::string make =
        "cd " + directory.file("") +
        R"( && exec >openssl.log 2>&1 && key() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "$@"; }
        for ca in ca other; do key -x509 -keyout $ca.key -out $ca.pem -subj /CN=$ca || exit 1; done
        printf 'subjectAltName=IP:127.0.0.1,DNS:redis.test' >names
        for name in server client; do
            key -keyout $name.key -out $name.req -subj /CN=$name &&
            openssl x509 -req -in $name.req -CA ca.pem -CAkey ca.key -CAcreateserial -extfile names -out $name.pem || exit 1
        done)";
    ASSERT_EQ(std::system(make.c_str()), 0);
    const auto in = [this](const char* name) { return directory.file(name); };
    const std::string port = freePort();
    const RedisProcess server{redisServer(
        directory,
        {"--port", "0", "--tls-port", port, "--bind", "127.0.0.1", "--tls-cert-file", in("server.pem"),
         "--tls-key-file", in("server.key"), "--tls-ca-cert-file", in("ca.pem")})};
    const auto tls = [&](const char* ca, const std::string& name, const char* certificate, const char* key) {
        return Store::TlsFiles{true, in(ca), *certificate != '\0' ? in(certificate) : "",
                               *key != '\0' ? in(key) : "", name};
    };
    const std::string refused = "lost TLS: the server's certificate is not accepted: ";
    const struct {
        Store::TlsFiles files;
        std::string outcome;
    } table[] = {
        {tls("ca.pem", "", "client.pem", "client.key"), "PONG"},
        {tls("ca.pem", "redis.test", "client.pem", "client.key"), "PONG"},
        {tls("other.pem", "", "client.pem", "client.key"),
         refused + "self-signed certificate in certificate chain"},
        {tls("ca.pem", "other.test", "client.pem", "client.key"), refused + "hostname mismatch"},
        {tls("ca.pem", "127.0.0.2", "client.pem", "client.key"), refused + "IP address mismatch"},
        {tls("ca.pem", "", "", ""), "lost TLS: tlsv13 alert certificate required"},
        {tls("ca.pem", "", "client.pem", ""), "lost TLS: a certificate needs a key, and a key a certificate"},
        {tls("ca.pem", "", "client.pem", "server.key"),
         "lost file " + in("server.key") + ": no usable key to the certificate (key values mismatch)"},
        {tls("names", "", "", ""),
         "lost file " + in("names") + ": no usable certificates (no certificate or crl found)"},
        {tls("none", "", "", ""), "lost file " + in("none") + ": No such file or directory"},
    };
    for (const auto& [files, outcome] : table) {
        // A server may find out that it does not like us when all is agreed already.
        EXPECT_EQ(asked({.tls = files}, {"PING"}, "127.0.0.1:" + port), Texts{outcome});
    }

    open("127.0.0.1:" + port, {.tls = table[0].files});
    ASSERT_EQ(after(1), Texts{"opened"});
    const std::string big(900'000, 'x');
    ask({"SET", "big", big});
    Reply back;
    connection->ask({"GET", "big"}, [&](const Reply& reply) { back = reply; });
    ask({"CLIENT", "KILL", "SKIPME", "no"});
    EXPECT_EQ(after(3), (Texts{"OK", "1", "lost the server has closed the connection"}));
    EXPECT_TRUE(back.isText(big));
    // Kept between connections, and read anew when it has changed.
    std::string problem;
    const auto address = Store::Address::parse("127.0.0.1:" + port, problem);
    connection->open(*address, {.tls = table[0].files});
    EXPECT_EQ(after(1), Texts{"opened"});
    std::filesystem::rename(in("other.pem"), in("ca.pem"));
    connection->open(*address, {.tls = table[0].files});
    EXPECT_EQ(after(1), Texts{refused + "self-signed certificate in certificate chain"});
}

TEST_F(ConnectionTest, LimitsWhatAServerCanDo) {
    const std::string odd = "lost no answer of a Redis server: ";
    std::string flood;
    for (int i = 0; i < 1300; ++i) flood += "+OK\r\n";
    const Store::TlsFiles tls{.on = true, .server = "redis.test"};
    const struct {
        Script script;
        Texts events;
        Store::Access access{};
    } table[] = {
        {{.answers = {"+OK\r\n"}}, {"opened", "OK", "OK"}},
        {{.answers = {"-LOADING Redis is loading\r\n", ":1\r\n"}},
         {"opened", "!LOADING Redis is loading", "1"}},
        {{.answers = {"HTTP/1.1 400\r\n"}}, {"opened", odd + "Protocol error, got \"H\" as reply type byte"}},
        {{.answers = {"$200000\r\n" + std::string(150'000, 'x')}},
         {"opened", "lost an answer of more than 100000 octets"}},
        {{.answers = {"+" + std::string(150'000, 'x')}},
         {"opened", "lost an answer of more than 100000 octets"}},
        {{.answers = {"+OK\r\n+more\r\n"}}, {"opened", "OK", "lost said without being asked: more"}},
        {{.answers = {flood}}, {"opened", "OK", "lost said without being asked: OK"}},
        {{.greeting = "-ERR max number of clients\x1b\r\n", .closes = true},
         {"opened", "!ERR max number of clients?", "lost the server has closed the connection"}},
        {{.answers = {"+OK\r\n", "$5\r\nab"}, .closes = true},
         {"opened", "OK", "lost the server has closed the connection"}},
        {{}, {"opened", "lost no answer within 200 ms"}},
        {{.answers = {":5\r\n"}},
         {"lost not let in: 5"},
         {.passwordFile = directory.write("password", "open")}},
        {{}, {"lost not let in within 200 ms"}, {.passwordFile = directory.file("password")}},
        {{}, {"lost TLS is not used over Unix sockets"}, {.tls = tls}},
    };
    int number = 0;
    for (const auto& [script, expected, access] : table) {
        const ScriptedServer server{loop, directory, "s" + std::to_string(++number), script};
        open(server.address, access, 200ms, {.answer = 100'000, .unanswered = 10});
        when = "opened";
        then = [this] { ask({"FIRST"}); };
        loop.runUntil([this] { return events.size() >= 2 || events == Texts{"lost"}; }, 50ms);
        if (connection->isOpen()) ask({"SECOND"});
        EXPECT_EQ(after(expected.size()), expected);
        then = nullptr;
    }

    // Many answers at once come in parts, so that others have their turns meanwhile.
    const ScriptedServer server{loop, directory, "many", {.answers = {flood, ""}}};
    open(server.address, {}, 10s, {.unanswered = 1300});
    ASSERT_EQ(after(1), Texts{"opened"});
    std::size_t before = 0;
    when = "OK";
    then = [&] { loop.post([&] { before = events.size(); }); };
    for (int i = 0; i < 1300; ++i) ask({"X"});
    EXPECT_EQ(after(1300), Texts(1300, "OK"));
    EXPECT_EQ(before, 500U);
    for (int i = 0; i < 1301; ++i) ask({"X"});
    EXPECT_EQ(after(1), Texts{"lost more than 1300 questions have no answer yet"});

    // A server that does not understand what TLS says, and waits for more.
    const std::string port = freePort();
    const RedisProcess plain{redisServer(directory, {"--port", port, "--bind", "127.0.0.1"})};
    open("127.0.0.1:" + port, {.tls = tls}, 300ms);
    EXPECT_EQ(after(1), Texts{"lost not let in within 300 ms"});
}

}  // namespace
