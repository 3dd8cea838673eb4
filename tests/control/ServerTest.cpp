#include "Control/Client.h"
#include "Control/HexOctets.h"
#include "Control/Json.h"
#include "Control/Server.h"
#include "Msrp/types/Config.h"
#include "Runtime/Text.h"
#include "tests/control/SocketLoop.h"
#include "tests/control/TemporaryDirectory.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <vector>

namespace {

using namespace std::chrono_literals;

std::string request(const std::string& op, const std::string& path) {
    return R"({"op":")" + op + R"(","path":")" + path + "\"}";
}
std::string get(const std::string& path) { return request("get", path); }
std::string watch(const std::string& path) { return request("watch", path); }
std::string set(const std::string& path, const std::string& field, const std::string& value) {
    return R"({"op":"set","path":")" + path + R"(","field":")" + field + R"(","value":)" + value + '}';
}
std::string capture(const std::string& port) { return request("capture", port); }
const std::string noPorts = R"({"value":{"intfEnable":{}}})";

/// A peer that speaks in lines and never blocks: the loop turns while it waits.
class Peer {
public:
    Peer(SocketLoop& loop, const std::string& path) : loop_{loop} {
        std::string problem;
        socket_ = Control::connectTo(path, problem);
        EXPECT_EQ(problem, "");
    }
    /// Hands over what the socket takes now; how much that was.
    std::size_t offer(std::string_view octets) {
        const auto count = ::send(socket_.get(), octets.data(), octets.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    void send(std::string_view octets) {
        EXPECT_TRUE(loop_.turnUntil([&] {
            octets.remove_prefix(offer(octets));
            return octets.empty();
        }));
    }
    void finish() { ::shutdown(socket_.get(), SHUT_WR); }
    void close() { socket_.close(); }

    /// Takes what has come; true when that is a line, or the end.
    bool fetch() {
        char piece[65536];
        ssize_t count = 0;
        while ((count = ::recv(socket_.get(), piece, sizeof piece, MSG_DONTWAIT)) > 0)
            in_.append(piece, static_cast<std::size_t>(count));
        if (count == 0) closed_ = true;
        return closed_ || in_.find('\n') != std::string::npos;
    }
    /// The next line without its times; "closed" at the end, "silent" when none comes.
    std::string line() {
        loop_.turnUntil([&] { return fetch(); });
        const std::size_t newline = in_.find('\n');
        if (newline == std::string::npos) return closed_ ? "closed" : "silent";
        auto members = *Control::parseJson(in_.substr(0, newline)).value.object();
        in_.erase(0, newline + 1);
        std::erase_if(members, [](const auto& m) { return m.first == "now" || m.first == "time"; });
        return Control::jsonText(State::Value{std::move(members)});
    }
    std::string ask(const std::string& request) {
        send(request + '\n');
        return line();
    }

private:
    SocketLoop& loop_;
    Runtime::FileDescriptor socket_;
    std::string in_;
    bool closed_ = false;
};

class Server : public ::testing::Test {
protected:
    Server() { EXPECT_EQ(server->start(path), ""); }

    void settle() {
        for (int turns = 0; turns < 6; ++turns) loop.turn();
    }

    TemporaryDirectory directory;
    std::string path = directory.file("new/control");
    SocketLoop loop;
    State::Database database;
    std::shared_ptr<Msrp::Config> ports = database.entityIs<Msrp::Config>("msrp/config");
    std::shared_ptr<Msrp::CliConfig> config = database.entityIs<Msrp::CliConfig>("msrp/cliConfig");
    Control::RecordAccess records{database, {"msrp/cliConfig", "msrp/config"}};
    bool wanted = false;  ///< frames
    Control::FrameSource frames{[](std::string_view port) { return port == "swp1" || port == "swp2"; },
                                [this](bool now) { wanted = now; }};
    Control::Commands commands{{"echo", {[](const State::Value& request, const Control::Peer&) {
                                    return Control::Answer{*request.member("what"), {}};
                                }}}};
    std::unique_ptr<Control::Server> server =
        std::make_unique<Control::Server>(loop, Control::Session::Services{records, frames, commands});
};

TEST_F(Server, AnswersEveryRequestInOneLine) {
    database.entityIs<Msrp::Config>("other");
    Peer peer{loop, path};
    const std::string many(100'000, '/');  // names, one below the other
    const std::string beginning = std::string(64, '/') + "...";
    for (const auto& [request, reply] : std::vector<std::pair<std::string, std::string>>{
             {set("msrp/config", "intfEnable/swp1", "true"), R"({"value":null})"},
             {get("msrp/config"), R"({"value":{"intfEnable":{"swp1":true}}})"},
             {R"({"op":"get","path":"msrp/config/intfEnable/swp1","id":7})", R"({"id":7,"value":true})"},
             {get("msrp/config/intfEnable/swp2"),
              R"({"error":"nothing at \"msrp/config/intfEnable/swp2\""})"},
             {get("msrp"), R"({"error":"no record \"msrp\""})"},
             {get("msrp/configs"), R"({"error":"no record \"msrp/configs\""})"},
             {R"({"op":"echo","what":"ha"})", R"({"value":"ha"})"},
             {R"({"op":"list"})", R"({"value":{"msrp/cliConfig":{"type":"Msrp::CliConfig","writable":true},)"
                                  R"("msrp/config":{"type":"Msrp::Config","writable":true},)"
                                  R"("other":{"type":"Msrp::Config","writable":false}}})"},
             {set("msrp/config/intfEnable", "swp1", "null"), R"({"value":null})"},
             {"\n\n" + get("msrp/config"), noPorts},
             {set("msrp/cliConfig", "colour", "9"),
              R"({"error":"msrp/cliConfig: no field \"colour\" in Msrp::CliConfig"})"},
             {set("other", "intfEnable", R"({"swp1":true})"),
              R"({"error":"other: cannot be written, it is not configuration"})"},
             {"7", R"({"error":"request: a text \"op\" is needed"})"},
             {R"({"op":"fly"})",
              R"({"error":"request: op \"fly\" is none of get, set, watch, capture, list, echo"})"},
             {R"({"op":"get"})", R"({"error":"request: a text \"path\" is needed"})"},
             {R"({"op":"set","path":"msrp/config"})", R"({"error":"request: a \"value\" is needed"})"},
             {get(many), R"({"error":"request: path )" + beginning + R"( is longer than 1024 octets"})"},
             {set("msrp/config", many, "true"),
              R"({"error":"request: field )" + beginning + R"( is longer than 1024 octets"})"},
             {R"({"op":"list","id":")" + std::string(255, '7') + "\"}",
              R"({"error":"request: id \")" + std::string(63, '7') + R"(... is longer than 256 octets"})"},
             {set("msrp/config", "intfEnable", '"' + std::string(100'000, 'x') + '"'),
              R"({"error":"msrp/config/intfEnable: \")" + std::string(4096 - 25, 'x') + R"(..."})"},
         }) {
        EXPECT_EQ(peer.ask(request), reply) << request;
    }
    EXPECT_EQ(peer.ask("{\"op\": [").substr(0, 26), R"({"error":"request, column )");
    // Also when no more will be asked.
    peer.send(get("msrp/config") + '\n');
    peer.finish();
    EXPECT_EQ(peer.line(), noPorts);
    EXPECT_EQ(peer.line(), "closed");
}

TEST_F(Server, TellsAWatcherTheCurrentValueAndThenChangesOncePerTurnAndTheLatestWhenItReads) {
    Peer peer{loop, path};
    EXPECT_EQ(peer.ask(watch("msrp/config/intfEnable")), R"({"watch":"msrp/config/intfEnable","value":{}})");
    ports->intfEnableIs(IntfId{"swp1"}, true);
    ports->intfEnableIs(IntfId{"swp2"}, false);
    EXPECT_EQ(peer.line(), R"({"watch":"msrp/config/intfEnable","value":{"swp1":true,"swp2":false}})");
    ports->intfEnableIs(IntfId{"swp1"}, false);
    ports->intfEnableIs(IntfId{"swp1"}, true);  // nothing to tell in the end
    EXPECT_EQ(peer.line(), "silent");

    // What is not there yet may be watched, what cannot be may not.
    Peer other{loop, path};
    EXPECT_EQ(other.ask(watch("msrp/config/intfEnable/swp3")),
              R"({"watch":"msrp/config/intfEnable/swp3","value":null})");
    ports->intfEnableIs(IntfId{"swp2"}, true);  // another entry
    ports->intfEnableIs(IntfId{"swp3"}, true);
    EXPECT_EQ(other.line(), R"({"watch":"msrp/config/intfEnable/swp3","value":true})");
    EXPECT_EQ(other.ask(watch("msrp/config/colour")), R"({"error":"no field \"colour\" in Msrp::Config"})");

    for (int i = 0; i < 5000; ++i) ports->intfEnableIs(IntfId{"port" + std::to_string(i)}, true);
    Peer slow{loop, path};
    slow.send(watch("msrp/config") + '\n');
    for (int i = 0; i < 100; ++i) {  // each notice is 100 kB, more than a socket holds in the end
        ports->intfEnableIs(IntfId{"swp1"}, i % 2 == 0);
        settle();
    }
    std::vector<std::string> notices;
    for (std::string line = slow.line(); line != "silent"; line = slow.line()) notices.push_back(line);
    EXPECT_LT(notices.size(), 50U);
    EXPECT_NE(notices.back().find("\"swp1\":false"), std::string::npos);
}

TEST_F(Server, TellsTheFramesOfAPortToAllWhoCaptureThem) {
    using enum Control::Direction;
    Peer one{loop, path};
    Peer other{loop, path};
    EXPECT_EQ(one.ask(capture("swp9")), R"({"error":"no port \"swp9\""})");
    EXPECT_FALSE(wanted);
    for (Peer* peer : {&one, &other})
        EXPECT_EQ(peer->ask(capture("swp1")), R"({"capture":"swp1","value":null})");
    EXPECT_EQ(other.ask(capture("swp2")), R"({"capture":"swp2","value":null})");
    EXPECT_TRUE(wanted);

    frames.pass("swp1", received, std::vector<std::uint8_t>{0x01, 0x80, 0xc2, 0xff});
    frames.pass("swp2", sent, std::vector<std::uint8_t>{0x00});
    for (Peer* peer : {&one, &other})
        EXPECT_EQ(peer->line(), R"({"capture":"swp1","direction":"received","frame":"0180c2ff"})");
    EXPECT_EQ(one.line(), "silent");
    EXPECT_EQ(other.line(), R"({"capture":"swp2","direction":"sent","frame":"00"})");

    other.close();
    settle();
    EXPECT_TRUE(wanted);
    frames.pass("swp1", sent, {});
    EXPECT_EQ(one.line(), R"({"capture":"swp1","direction":"sent","frame":""})");
    one.close();
    settle();
    EXPECT_FALSE(wanted);
}

TEST_F(Server, ACaptureThatIsNotReadLosesFramesAndTellsHowManyAndWhere) {
    constexpr std::size_t many = 20'000;
    std::vector<std::uint8_t> frame(1500);
    const auto numbered = [&](std::size_t number) {
        frame[0] = static_cast<std::uint8_t>(number >> 8);
        frame[1] = static_cast<std::uint8_t>(number);
        return frame;
    };
    for (int i = 0; i < 3; ++i) {  // who goes leaves the next one its place
        Peer gone{loop, path};
        EXPECT_EQ(gone.ask(capture("swp1")), R"({"capture":"swp1","value":null})");
        for (int number = 0; number < 4000; ++number) frames.pass("swp1", Control::Direction::sent, frame);
    }
    Peer slow{loop, path};
    EXPECT_EQ(slow.ask(capture("swp1")), R"({"capture":"swp1","value":null})");
    for (std::size_t i = 0; i < many; ++i) {
        frames.pass("swp1", Control::Direction::sent, numbered(i));
        if (i % 100 == 0) settle();
    }
    Peer idle{loop, path};
    EXPECT_EQ(idle.ask(get("msrp/config")), noPorts);

    // What was kept comes without a gap, and the frame after the gap says how wide it was.
    const auto line = [&](std::size_t number, const std::string& dropped = {}) {
        return R"({"capture":"swp1","direction":"sent","frame":")" + Control::hexOctets(numbered(number)) +
               '"' + dropped + '}';
    };
    std::size_t kept = 0;
    for (std::string told = slow.line(); told != "silent"; told = slow.line()) ASSERT_EQ(told, line(kept++));
    EXPECT_GT(kept, Control::Captures::waitingLimit / 2000);
    EXPECT_LT(kept, Control::Captures::waitingLimit / 1500 + 1000);  // and what the sockets hold
    frames.pass("swp1", Control::Direction::sent, numbered(many));
    EXPECT_EQ(slow.line(), line(many, ",\"dropped\":" + std::to_string(many - kept)));
    frames.pass("swp1", Control::Direction::sent, numbered(many + 1));
    EXPECT_EQ(slow.line(), line(many + 1));
}

TEST_F(Server, DoesNotServeAClientThatFetchesNothing) {
    const std::string request = get("msrp/cliConfig") + '\n';
    std::string requests;
    for (int i = 0; i < 200'000; ++i) requests += request;
    Peer greedy{loop, path};
    std::size_t sent = 0;
    for (std::size_t more = greedy.offer(requests); more > 0; more = greedy.offer(requests.substr(sent))) {
        sent += more;
        settle();
    }
    EXPECT_LT(sent, requests.size() / 2);  // the sockets and the session are full
    Peer other{loop, path};
    EXPECT_EQ(other.ask(get("msrp/config")), noPorts);

    std::size_t replies = 0;
    while (greedy.line().starts_with("{\"value")) ++replies;
    EXPECT_EQ(replies, sent / request.size());
}

TEST_F(Server, SurvivesClientsThatGoAtAnyMoment) {
    const std::string talk = watch("msrp/config") + '\n' + get("msrp/config") + '\n';
    for (std::size_t length = 0; length <= talk.size(); ++length) {
        Peer peer{loop, path};
        peer.send(talk.substr(0, length));
        if (length % 2 == 0) settle();
        peer.close();
        ports->intfEnableIs(IntfId{"swp1"}, length % 2 == 0);
    }
    settle();
    EXPECT_EQ(server->sessions(), 0U);
}

TEST_F(Server, ANewcomerGetsInInPlaceOfTheClientThatIsQuietForLongest) {
    std::deque<Peer> peers;
    for (std::size_t i = 0; i < Control::Server::sessionLimit; ++i)
        EXPECT_EQ(peers.emplace_back(loop, path).ask(get("msrp/config")), noPorts);
    EXPECT_EQ(peers[0].ask(get("msrp/config")), noPorts);
    // That one sends much and finishes nothing.
    Peer newcomer{loop, path};
    newcomer.send(std::string(Control::Session::requestLimit + 1, ' '));
    EXPECT_EQ(newcomer.line(), R"({"error":"a request is longer than 1048576 octets"})");
    EXPECT_EQ(newcomer.line(), "closed");
    EXPECT_EQ(peers[1].line(), R"({"error":"too many clients, and this one was quiet for longest"})");
    EXPECT_EQ(peers[1].line(), "closed");
    EXPECT_EQ(peers[0].ask(get("msrp/config")), noPorts);
}

TEST_F(Server, ANewcomerWaitsWhileTheProcessHasNoDescriptorForIt) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors itself";
#endif
    Peer newcomer{loop, path};
    newcomer.send(get("msrp/config") + '\n');
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = ::dup(STDERR_FILENO);
    ::close(next);
    const rlimit none{static_cast<rlim_t>(next), before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    settle();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(newcomer.line(), "silent") << "nor is it tried in every turn";
    loop.sleep(1s);
    EXPECT_EQ(newcomer.line(), noPorts);
}

TEST_F(Server, ClientsThatSendMuchAndFinishNothingKeepNobodyOut) {
    for (const std::size_t each : {Control::Session::requestLimit, std::size_t{70'000}}) {
        std::deque<Peer> hostile;
        for (std::size_t i = 0; i < Control::Server::sessionLimit; ++i)
            hostile.emplace_back(loop, path).send(std::string(each, ' '));
        EXPECT_EQ(hostile.front().line(),
                  R"({"error":"all clients together have sent more than can be kept, )"
                  R"(and this one most of it"})");
        Peer person{loop, path};
        EXPECT_EQ(person.ask(std::string(60'000, ' ') + get("msrp/config")), noPorts);
    }
}

TEST_F(Server, EndsAClientThatNeitherAsksNorWatchesAndOneThatDoesNotFetchWhatItAskedFor) {
    for (int i = 0; i < 20'000; ++i) ports->intfEnableIs(IntfId{"port" + std::to_string(i)}, true);
    Peer quiet{loop, path};
    Peer watcher{loop, path};
    Peer greedy{loop, path};
    EXPECT_EQ(watcher.ask(watch("msrp/cliConfig/srClassAPriority")),
              R"({"watch":"msrp/cliConfig/srClassAPriority","value":3})");
    greedy.send(get("msrp/config") + '\n' + get("msrp/config") + '\n' + get("msrp/config") + '\n');
    settle();
    loop.sleep(Control::Session::readPatience);
    settle();
    EXPECT_EQ(server->sessions(), 2U);
    loop.sleep(Control::Session::askPatience);
    EXPECT_EQ(quiet.line(), R"({"error":"nothing was asked for too long"})");
    EXPECT_EQ(quiet.line(), "closed");
    config->srClassAPriorityIs(5);
    EXPECT_EQ(watcher.line(), R"({"watch":"msrp/cliConfig/srClassAPriority","value":5})");
}

/// Entries that take as long to read as the test says.
struct Long : State::Record<Long> {
    static constexpr std::string_view type = "Test::Long";
    static constexpr std::uint64_t entries = 5000;
    void change() { changed(State::Change{*this, "entry"}); }
    std::function<void()> read;

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::derivedEntries<Long>(
            "entry", [](const Long& r, const State::From& from, std::size_t most) {
                State::Object some;
                std::uint64_t at = from.key ? *State::parseDecimal(*from.key, entries) + !from.included : 0;
                for (; at < entries && some.size() < most; r.read())
                    some.emplace_back(std::to_string(at++), State::Value{std::string(200, 'x')});
                return some;
            }));
    }
};

TEST_F(Server, LongAnswersAreMadeInPiecesAndOnceForAllWhoWatchAndKeepNobodyWaiting) {
    const auto record = database.entityIs<Long>("long");
    std::uint64_t reads = 0;
    record->read = [&] { ++reads, loop.took(10us); };
    std::deque<Peer> watchers;
    for (int i = 0; i < 5; ++i) watchers.emplace_back(loop, path).send(watch("long") + '\n');
    const auto tell = [&] {
        // All of them, and each in every turn.
        loop.turnUntil([&] { return std::ranges::count_if(watchers, &Peer::fetch) == 5; });
        std::set<std::string> told;
        for (Peer& watcher : watchers) told.insert(watcher.line());
        EXPECT_EQ(told.size(), 1U);
        EXPECT_GT(told.begin()->size(), 200 * Long::entries);
        return std::exchange(reads, 0);
    };
    EXPECT_LT(tell(), 2 * Long::entries);
    for (int i = 0; i < 1000; ++i) {
        record->change();
        loop.turn();
    }
    // Once at once, and once a second.
    EXPECT_LT(tell() + tell(), 4 * Long::entries);
    loop.longestTurn = {};
    for (int i = 0; i < 60; ++i) watchers.emplace_back(loop, path).send(get("long") + '\n');
    Peer person{loop, path};
    const Runtime::Time asked = loop.now();
    EXPECT_EQ(person.ask(get("msrp/cliConfig/srClassAPriority")), R"({"value":3})");
    EXPECT_LT(loop.now() - asked, 500ms);
    for (Peer& watcher : watchers) watcher.line();
    EXPECT_LT(loop.longestTurn, 5ms);
}

TEST_F(Server, WhoAsksForLongWorkLetsThoseGoFirstWhoAskForLittle) {
    std::string order;
    const auto command = [&](char letter, Runtime::Duration takes) {
        return Control::Command{[&order, this, letter, takes](auto&, auto&) {
            loop.took(takes);
            if (order.empty() || order.back() != letter) order += letter;
            return Control::Answer{State::Value{true}, {}};
        }};
    };
    commands.emplace("long", command('L', 5ms));
    commands.emplace("short", command('s', 0ms));
    Peer slow{loop, path};
    Peer quick{loop, path};
    for (int i = 0; i < 3; ++i) slow.send("{\"op\":\"long\"}\n");
    for (int i = 0; i < 200; ++i) quick.send("{\"op\":\"short\"}\n");
    for (int i = 0; i < 100; ++i) loop.turn();
    EXPECT_EQ(order, "LsL") << "all that is short between the first of the long ones and the next";
}

TEST_F(Server, LetsGroupsInAndNotesWhoWrites) {
    std::string log;
    records.writtenIs([&](const Control::RecordAccess::Written& written) { log += written.text() + '\n'; });
    commands.emplace("look", Control::Command{[](auto&, auto& who) {
                                                  return Control::Answer{State::Value{who.reads}, {}};
                                              },
                                              true});
    commands.emplace("all", Control::Command{[this](auto&, auto&) {
                                                 Control::Answer answer;
                                                 answer.walk = records.read("msrp/config", answer.error);
                                                 return answer;
                                             },
                                             true});
    Peer reader{loop, path + ".read"};
    Peer writer{loop, path};
    const std::string change = set("msrp/config", "intfEnable/swp1", "true");
    for (const auto& [request, reply] : std::vector<std::pair<std::string, std::string>>{
             {get("msrp/config"), noPorts},
             {watch("msrp/config/intfEnable"), R"({"watch":"msrp/config/intfEnable","value":{}})"},
             {change, R"({"error":"request: op \"set\": this socket is for reading only"})"},
             {R"({"op":"echo"})", R"({"error":"request: op \"echo\": this socket is for reading only"})"},
             {R"({"op":"look"})", R"({"value":true})"},
             {R"({"op":"all"})", noPorts},
         }) {
        EXPECT_EQ(reader.ask(request), reply) << request;
    }
    for (int i = 0; i < 2; ++i) EXPECT_EQ(writer.ask(change), R"({"value":null})");
    EXPECT_EQ(log, Runtime::concat("msrp/config/intfEnable/swp1 is now true, was nothing: user ", ::getuid(),
                                   ", process ", ::getpid(), '\n'));

    // Those who only read cannot take the places of those who do more, but the other way round.
    std::list<Peer> crowd;
    const auto come = [&](std::string_view door, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i, settle()) crowd.emplace_back(loop, path + std::string{door});
    };
    come(".read", 2 * Control::Server::sessionLimit);
    EXPECT_EQ(writer.ask(get("msrp/config/intfEnable")), R"({"value":{"swp1":true}})");
    come("", Control::Server::sessionLimit - 1);
    come(".read", 1);
    EXPECT_EQ(crowd.back().line(), "closed");
    EXPECT_EQ(writer.ask(get("msrp/config/intfEnable")), R"({"value":{"swp1":true}})");

    if (::geteuid() != 0) GTEST_SKIP() << "needs root to give files to groups";
    Control::Server other{loop, {records, frames, commands}};
    const std::string shared = directory.file("shared");
    EXPECT_EQ(other.start(shared, {.all = "daemon", .readers = "nobody of this name"}), "");
    struct stat all {};
    struct stat readers {};
    ASSERT_EQ(::stat(shared.c_str(), &all) + ::stat((shared + ".read").c_str(), &readers), 0);
    EXPECT_EQ((std::tuple{all.st_mode & 0777U, all.st_gid}), (std::tuple{0660U, 1U}));
    EXPECT_EQ((std::tuple{readers.st_mode & 0777U, readers.st_gid}), (std::tuple{0600U, ::getegid()}));
}

TEST_F(Server, ACommandDoesNotWaitForEverForOneThatStandsStill) {
    Control::Client client;
    ASSERT_EQ(client.connect(path), "");  // the loop does not turn
    State::Value reply;
    EXPECT_TRUE(client.receive(reply, 1).ends_with(": no answer within 1 seconds"));
}

TEST_F(Server, ReplacesASocketThatNobodyServesButNoOtherFile) {
    const std::string stale = directory.file("stale");
    const std::string file = directory.write("file", "precious");
    ::close(directory.boundSocket("stale", SOCK_STREAM));  // as a server that was killed leaves it
    Control::Server other{loop, {records, frames, commands}};
    EXPECT_EQ(other.start(file), "socket " + file + ": a file that is no socket is in the way");
    EXPECT_EQ(other.start(std::string(200, 'x')).substr(0, 12), "socket \"xxxx");
    EXPECT_EQ(other.start(directory.file("a/b/c")),
              "socket " + directory.file("a/b/c") + ": No such file or directory");
    EXPECT_EQ(other.start(stale), "");
    std::string problem;
    const Runtime::FileDescriptor patient = Control::connectTo(stale, problem, 7);
    timeval limit{};
    socklen_t length = sizeof limit;
    EXPECT_EQ(::getsockopt(patient.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec, 7) << "also when the other side hangs";
    struct stat status {};
    ASSERT_EQ(::stat(stale.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_EQ(Control::Client{}.connect("/nowhere/control"),
              "socket /nowhere/control: No such file or directory");
    // Nor does it remove one that took the place of its own.
    ASSERT_EQ(::unlink(path.c_str()) + ::unlink((path + ".read").c_str()), 0);
    Control::Server third{loop, {records, frames, commands}};
    EXPECT_EQ(third.start(path), "");
    server.reset();
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
}

}  // namespace
