#include "Linux/kernel/EpollLoop.h"
#include "Store/Finder.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/store/RedisProcess.h"
#include "tests/store/ScriptedServer.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

struct FinderTest : testing::Test {
    /// A finder whose events are written down, those of its log with + (good) or - before them.
    std::string start(Store::Options options, Runtime::Duration patience = 10s) {
        options.patience = patience;
        finder = std::make_unique<Store::Finder>(
            loop, std::move(options), 1,
            Store::Finder::Handlers{
                .opened = [this](Store::Connection&) { happens("opened"); },
                .lost = [this](const std::string& reason) { happens("lost " + reason); },
                .said = [this](bool good, const std::string& line) { happens((good ? "+" : "-") + line); },
                .pushed = [this](const std::string& channel, const std::string&) { happens(channel); }});
        return finder->start();
    }
    void happens(const std::string& event) {
        events.push_back(event);
        if (then && event.starts_with(when)) std::exchange(then, nullptr)();
    }
    /// All that has happened up to one that begins so.
    Lines until(const std::string& event) {
        EXPECT_TRUE(loop.runUntil(
            [&] {
                return std::any_of(events.begin(), events.end(),
                                   [&](auto& e) { return e.starts_with(event); });
            },
            20s))
            << event;
        return std::exchange(events, {});
    }

    Linux::EpollLoop loop;
    TemporaryDirectory directory;
    const std::string path = directory.file("redis");
    const std::string at = "unix:" + path;
    std::unique_ptr<Store::Finder> finder;
    Lines events;
    std::string when;
    std::function<void()> then;

    [[nodiscard]] RedisProcess server() const {
        return RedisProcess{redisServer(directory, {"--port", "0", "--unixsocket", path})};
    }
};

TEST_F(FinderTest, RefusesWhatItCannotUse) {
    EXPECT_EQ(start({}), "no address of a server is given");
    EXPECT_EQ(start({.addresses = {"127.0.0.1:1", "127.0.0.1:2"}}),
              "several addresses are those of Sentinels, and need the name of their master");
    EXPECT_EQ(start({.addresses = {"127.0.0.1:1", "redis:2"}, .master = "m"}),
              "address \"redis:2\": \"redis\" is no address in figures, and names are not looked up");
}

TEST_F(FinderTest, ComesBackToAServerAndSaysEachTroubleOnce) {
    EXPECT_EQ(start({.addresses = {at}}), "");
    const std::string missing = at + ": No such file or directory";
    EXPECT_EQ(until("-"), Lines{"-" + missing});
    EXPECT_EQ(finder->server(), nullptr);
    {
        const RedisProcess first = server();
        EXPECT_EQ(until("opened"), Lines{"opened"});
        ASSERT_NE(finder->server(), nullptr);
        EXPECT_EQ(until("+"), Lines{"+connected to the Redis server " + at});
    }
    const std::string closed = at + ": the server has closed the connection";
    const std::string refused = "-" + at + ": Connection refused";
    EXPECT_EQ(until(refused), (Lines{"-" + closed, "lost " + closed, refused}));
    const RedisProcess second = server();
    EXPECT_EQ(until("opened"), Lines{"opened"});
    finder->leave("READONLY");
    finder->leave("READONLY");
    EXPECT_EQ(events, Lines{}) << "told by the call of the owner";
    EXPECT_EQ(until("opened"), (Lines{"-" + at + ": READONLY", "lost " + at + ": READONLY", "opened"}));
}

TEST_F(FinderTest, DoesNotHurryToAServerThatHangsUp) {
    const ScriptedServer rude{loop, directory, "redis", {.closes = true}};
    const auto begun = loop.now();
    EXPECT_EQ(start({.addresses = {at}}), "");
    EXPECT_TRUE(loop.runUntil([&] { return rude.accepted == 6; }, 20s));
    // 0, 50, 100, 200 and 400 ms, each up to a quarter less.
    EXPECT_GE(loop.now() - begun, 550ms);
    std::erase_if(events, [](const auto& e) { return e == "opened" || e.starts_with("lost"); });
    EXPECT_EQ(events, (Lines{"+connected to the Redis server " + at,
                             "-" + at + ": the server has closed the connection"}));
}

TEST_F(FinderTest, BelievesAServerNotASentinel) {
    const auto list = [](const std::string& host, const std::string& port) {
        return "*2\r\n$" + std::to_string(host.size()) + "\r\n" + host + "\r\n$" +
               std::to_string(port.size()) + "\r\n" + port + "\r\n";
    };
    const std::string port = freePort();
    const RedisProcess replica{
        redisServer(directory, {"--port", port, "--bind", "127.0.0.1", "--replicaof", "127.0.0.1 1"})};
    const std::string place = "127.0.0.1:" + port;
    const struct {
        std::string answer, line;
    } table[] = {
        {"*-1\r\n", "knows no master \"main\""},
        {"-IDONTKNOW No quorum\r\n", "does not tell where the master is: IDONTKNOW No quorum"},
        {list("redis.example", "1"),
         "names a master at address \"redis.example:1\": \"redis.example\" is no address "
         "in figures, and names are not looked up"},
        {list("127.0.0.1", port), place + ": no master, as Sentinel % says, but slave"},
        {"", "no answer within 300 ms"},
    };
    int number = 0;
    for (const auto& [answer, line] : table) {
        const ScriptedServer sentinel{loop, directory, "s" + std::to_string(++number), {.answers = {answer}}};
        start({.addresses = {at, sentinel.address}, .master = "main"}, 300ms);
        const std::size_t hole = line.find('%');
        std::string expected = "-Sentinel " + sentinel.address + ": " + line;
        if (hole != std::string::npos)
            expected = '-' + line.substr(0, hole) + sentinel.address + line.substr(hole + 1);
        EXPECT_EQ(until(expected), (Lines{"-Sentinel " + at + ": No such file or directory", expected}));
        // Again and again, but nothing more is said.
        EXPECT_TRUE(loop.runUntil([&] { return sentinel.accepted >= 3; }, 20s));
        EXPECT_EQ(events, Lines{});
    }
}

TEST_F(FinderTest, FollowsTheMaster) {
    const std::string first = freePort();
    const std::string second = freePort();
    const std::string sentinelPort = freePort();
    RedisProcess master{
        redisServer(directory, {"--port", first, "--bind", "127.0.0.1", "--repl-diskless-sync-delay", "0"})};
    RedisProcess replica{redisServer(
        directory, {"--port", second, "--bind", "127.0.0.1", "--replicaof", "127.0.0.1 " + first})};
    master.await("Synchronization with replica 127.0.0.1:" + second + " succeeded");
    const std::string config =
        directory.write("sentinel.conf", "port " + sentinelPort + "\nbind 127.0.0.1\ndir " +
                                             directory.file("") + "\nsentinel monitor main 127.0.0.1 " +
                                             first + " 1\nsentinel down-after-milliseconds main 500\n" +
                                             "sentinel failover-timeout main 3000\n");
    RedisProcess sentinel{{"redis-sentinel", config}, "+slave slave"};
    start({.addresses = {"127.0.0.1:" + freePort(), "127.0.0.1:" + sentinelPort}, .master = "main"}, 1s);
    until("opened");
    Store::Reply reply;
    finder->server()->ask({"SET", "kept", "yes"}, [](const Store::Reply&) {});
    const std::function<void()> wait = [&] {
        // A replica that is still at its first copy answers nothing.
        finder->server()->ask({"WAIT", "1", "500"}, [&](const Store::Reply& r) {
            reply = r;
            if (r.number == 0) wait();
        });
    };
    wait();
    EXPECT_TRUE(loop.runUntil([&] { return reply.number == 1; }, 20s));
    EXPECT_EQ(until("+"), Lines{"+connected to the Redis server 127.0.0.1:" + first});
    // Silent, not gone.
    master.signal(SIGSTOP);
    until("lost");
    Lines since = until("opened");
    finder->server()->ask({"GET", "kept"}, [&](const Store::Reply& r) { reply = r; });
    EXPECT_TRUE(loop.runUntil([&] { return reply.isText("yes"); }, 20s)) << inOneLine(reply);
    for (const std::string& line : until("+")) since.push_back(line);
    EXPECT_EQ(since.back(), "+connected to the Redis server 127.0.0.1:" + second);
    std::sort(since.begin(), since.end());
    EXPECT_EQ(std::adjacent_find(since.begin(), since.end()), since.end()) << "said twice";
}

TEST_F(FinderTest, MayBeDestroyedInEachCallback) {
    for (const std::string& event : Lines{"-", "opened", "hello", "-" + at + ": the server", "lost", "+"}) {
        start({.addresses = {at}});
        until("-");
        when = event;
        then = [this] { finder = nullptr; };
        if (event == "-") start({.addresses = {at}});
        if (event != "-") {
            RedisProcess real = server();
            until("opened");
            if (finder) finder->server()->ask({"SUBSCRIBE", "hello"}, {});
            if (event == "hello") {
                Store::Connection other{loop, {[] {}, [](const std::string&) {}, [](auto&, auto&) {}}};
                std::string problem;
                other.open(*Store::Address::parse(at, problem), {});
                EXPECT_TRUE(loop.runUntil([&] { return other.isOpen(); }, 20s));
                other.ask({"PUBLISH", "hello", "x"}, {});
                until("hello");
            }
            if (event == "+") until("+");
        }
        EXPECT_TRUE(loop.runUntil([this] { return !finder; }, 20s)) << event;
        events = {};
        EXPECT_FALSE(loop.runUntil([this] { return !events.empty(); }, 5ms)) << events.back();
        ::unlink(path.c_str());
    }
}

}  // namespace
