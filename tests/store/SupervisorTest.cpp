/// Two agents of one switch, each with a loop and records of its own, over a real server: the ports and the
/// peers are simulated.  Time for the agents is virtual; time for the store is real, and a process that
/// stands still is a loop that is not run.
#include "Control/Json.h"
#include "Linux/kernel/EpollLoop.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/MrpPeer.h"
#include "Store/Scripts.h"
#include "Store/Supervisor.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/scenarios/Scenario.h"
#include "tests/store/RedisProcess.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Msrp::ListenerState;
using Sim::advertise;
using Sim::listener;
using Lines = std::vector<std::string>;

const Store::Supervisor::Paths outputs{"msrp/status", "msrp/waiting", "bridging/input/config/msrp",
                                       "qos/input/config/msrp"};
const std::string interfaces = "interface/status/eth/phy/all";

/// One supervisor of the switch.
struct Side {
    Side(Runtime::Loop& time, const std::string& id, Sim::Ports* ports)
        : name{id}, bridge{time, {"p1", "p2", "p3"}, 1, ports} {
        redundancy = bridge.database().entityIs<Redundancy::RedundancyStatus>("redundancy/status");
        redundancy->eventIs("CriticalServices", true);
        redundancy->modeIs(Redundancy::Mode::standby);
        bridge.start();
    }
    /// `master`: the address is that of a Sentinel.
    void join(const std::string& address, Runtime::Duration lease, const std::string& master = "") {
        Store::Supervisor::Options options{
            .store = {.addresses = {address}, .master = master, .patience = 5s},
            .name = "switch",
            .id = name + std::to_string(++lives),
            .who = name,
            .lease = lease,
            .outputs = outputs,
            .lazy = {"Msrp::IntfStatus/rxCounters"}};
        options.inputs = inputs;
        status = std::make_shared<Store::Status>();
        supervisor.emplace(loop, bridge.database(), options, redundancy, status,
                           Store::Supervisor::Calls{[this] { return refusal; }, [] {},
                                                    [this](Store::Supervisor::Tone, const std::string& line) {
                                                        lines.push_back(line);
                                                    }});
        loop.firstIs([this] {
            if (supervisor) supervisor->check();
        });
        ASSERT_EQ(supervisor->start(), "");
    }
    /// As by kill -9.
    void die() {
        supervisor.reset();
        bridge.activeStops();
    }
    [[nodiscard]] bool acts() const { return supervisor && supervisor->mayAct(); }
    /// The record without its times.
    [[nodiscard]] std::string shown(const std::string& path) {
        return Sim::shown(bridge.database().entity(path)->value());
    }
    [[nodiscard]] std::size_t said(const std::string& words) const {
        return static_cast<std::size_t>(std::ranges::count_if(
            lines, [&](const std::string& line) { return line.find(words) != std::string::npos; }));
    }

    const std::string name;
    Linux::EpollLoop loop;
    Sim::Bridge bridge;
    std::shared_ptr<Redundancy::RedundancyStatus> redundancy;
    std::shared_ptr<Store::Status> status;
    std::string refusal;
    Store::Supervisor::Paths inputs;
    Lines lines;
    int lives = 0;
    std::optional<Store::Supervisor> supervisor;
};

struct SupervisorTest : testing::Test {
    void SetUp() override { serve(); }
    void serve(const Lines& more = {}) {
        Lines options{"--port", "0", "--unixsocket", path};
        options.insert(options.end(), more.begin(), more.end());
        server = std::make_unique<RedisProcess>(redisServer(directory, options));
    }
    void both(Runtime::Duration lease = 1s) {
        left.join(at, lease);
        becomes([&] { return left.acts() && left.status->complete(); });
        right.join(at, lease);
        becomes([&] { return right.status->complete(); });
    }
    /// Runs those until it is so; never do two act.
    void becomes(const std::function<bool()>& condition, std::vector<Side*> running = {},
                 Runtime::Duration span = 20s) {
        if (running.empty()) running = {&left, &right};
        const Runtime::Time end = left.loop.now() + span;
        bool good = false;
        while (!good && left.loop.now() < end) {
            for (Side* side : running) {
                good = side->loop.runUntil(condition, 2ms) || good;
                ASSERT_FALSE(left.acts() && right.acts());
            }
        }
        EXPECT_TRUE(good || span < 20s)
            << testing::PrintToString(left.lines) << testing::PrintToString(right.lines);
    }
    void runFor(Runtime::Duration span, std::vector<Side*> running = {}) {
        becomes([] { return false; }, std::move(running), span);
    }
    /// What the server answers to a program of another kind.
    Store::Reply asked(const Lines& words) {
        Linux::EpollLoop loop;
        Store::Connection other{loop, {[] {}, [](const std::string&) {}, [](auto&, auto&) {}}};
        std::string problem;
        other.open(*Store::Address::parse(at, problem), {});
        EXPECT_TRUE(loop.runUntil([&] { return other.isOpen(); }, 20s));
        std::optional<Store::Reply> reply;
        other.ask(words, [&](const Store::Reply& r) { reply = r; });
        EXPECT_TRUE(loop.runUntil([&] { return reply.has_value(); }, 20s));
        return reply.value_or(Store::Reply{});
    }
    [[nodiscard]] std::string stored(const std::string& path_, const std::string& field) {
        return asked({"HGET", record + path_, field}).text;
    }
    /// Peers at all ports; a stream for each number, to p2 and every third to p3 as well; p3 is slow, so that
    /// some wait for bandwidth.
    void reserve(std::uint64_t streams) {
        left.bridge.speedIs("p3", Interface::Speed::speed100Mbps);
        right.bridge.speedIs("p3", Interface::Speed::speed100Mbps);
        for (Sim::MrpPeer* peer : {&talker, &near, &far}) {
            for (const Sim::Say& say : Sim::domains()) peer->declare(say);
        }
        for (std::uint64_t id = 1; id <= streams; ++id) {
            talker.declare(advertise({.id = id, .macDa = 0x91e0f0000000 + id}));
            near.declare(listener(id, ListenerState::Ready));
            if (id % 3 == 0) far.declare(listener(id, ListenerState::Ready));
        }
        talker.declare(Sim::failed({.id = 5000, .macDa = 0x91e0f0005000}, 9));
        far.declare(listener(6000, ListenerState::Ready));  // of no talker
        time.runFor(5s);
    }
    [[nodiscard]] std::size_t leaves() const { return talker.leaves() + near.leaves() + far.leaves(); }
    void expectSame() {
        becomes([this] {
            return std::ranges::all_of(
                outputs, [this](const std::string& one) { return left.shown(one) == right.shown(one); });
        });
        for (const std::string& one : outputs) {
            const std::string a = left.shown(one);
            const std::string b = right.shown(one);
            const auto differ = std::ranges::mismatch(a, b).in1 - a.begin();
            const auto from = static_cast<std::size_t>(std::max<std::ptrdiff_t>(differ - 50, 0));
            EXPECT_TRUE(a == b) << one << ": ..." << a.substr(from, 150) << "... and ..."
                                << (from < b.size() ? b.substr(from, 150) : "");
        }
    }

    TemporaryDirectory directory;
    const std::string path = directory.file("redis");
    std::string at = "unix:" + path;
    const std::string record = "msrp:{switch}:record:";
    const std::string meta = "msrp:{switch}:meta";
    std::unique_ptr<RedisProcess> server;
    Runtime::VirtualLoop time;
    Side left{time, "left", nullptr};
    Side right{time, "right", &left.bridge.ports()};
    Sim::MrpPeer talker{time, left.bridge, "p1", 1};
    Sim::MrpPeer near{time, left.bridge, "p2", 2};
    Sim::MrpPeer far{time, left.bridge, "p3", 3};
};

TEST_F(SupervisorTest, TheOtherGoesOnWithAllThatTheFirstHad) {
    both();
    reserve(100);
    ASSERT_TRUE(left.shown("msrp/waiting").find("stream") != std::string::npos) << "nobody waits";
    expectSame();
    EXPECT_EQ(right.said("store:"), 0U) << "something is refused";
    const std::string before = left.bridge.streams();
    const std::string groups = left.bridge.groups();
    const auto near0 = near.registered();
    const std::size_t leaves0 = leaves();
    const double since = left.bridge.status->registeredStreams(1)->statusTime(IntfId{"p2"});
    // It goes while the last change is on its way; what changes then, the other hears of itself.
    far.withdraw(listener(3, ListenerState::Ready));
    left.die();
    becomes([&] { return right.acts(); }, {&right});
    time.runFor(100ms);
    EXPECT_EQ(right.bridge.streams(), before);
    EXPECT_EQ(right.bridge.groups(), groups);
    EXPECT_NEAR(right.bridge.status->registeredStreams(1)->statusTime(IntfId{"p2"}), since, 0.001);
    time.runFor(30s);
    EXPECT_EQ(leaves(), leaves0) << "somebody heard of it";
    EXPECT_EQ(near.registered(), near0);
    EXPECT_EQ(right.status->holder(), "right");
    // It comes again, empty, and has all of it back when the other hands over.
    Side& again = left;
    again.join(at, 1s);
    becomes([&] { return left.status->complete() && right.status->agent().size() == 1; });
    expectSame();
    becomes([&] { return right.supervisor->handOver().empty(); });
    becomes([&] { return left.acts(); });
    EXPECT_EQ(left.said("active, by change of role number 3"), 1U);
    time.runFor(30s);
    EXPECT_EQ(left.bridge.streams(), right.bridge.streams());
    EXPECT_EQ(leaves(), leaves0);
}

TEST_F(SupervisorTest, WhoStandsStillDoesNotActWhenItRunsAgain) {
    both();
    // Its loop does not run, so nothing tells it.
    becomes([&] { return right.acts(); }, {&right});
    EXPECT_FALSE(left.acts());
    left.loop.runUntil([&] { return left.said("not active") > 0; }, 10ms);
    EXPECT_EQ(left.said("not active any more: the lease could not be kept"), 1U);
    EXPECT_EQ(left.redundancy->mode(), Redundancy::Mode::standby);
    becomes([&] { return left.status->complete() && left.status->holder() == "right"; });
    // Its batches of that time are not taken.
    EXPECT_EQ(asked({"EVAL", std::string{Store::writeScript}, "2", meta, "msrp:{switch}:records", "1", record,
                     "c", "0", "1"})
                  .text.substr(0, 8),
              "FENCED 2");
    // Whoever cannot do the work leaves it to the other.
    left.refusal = "no bridge";
    becomes([&] { return right.supervisor->handOver().empty(); });
    becomes([&] { return left.said("cannot act: no bridge") > 0 && right.acts(); });
    EXPECT_FALSE(left.acts());
}

TEST_F(SupervisorTest, AStoreThatGoesOrForgetsCostsNobodyTheRole) {
    both();
    reserve(20);
    const auto sound = [&] {
        becomes([&] { return left.status->complete() && left.status->problem().empty(); });
        EXPECT_TRUE(left.acts());
        EXPECT_EQ(left.said("not active"), 0U);
        becomes([&] { return right.status->complete() && right.status->problem().empty(); });
        expectSame();
    };
    sound();
    asked({"FLUSHALL"});
    becomes([&] { return left.said("active") == 1 && stored("msrp/status", "msrpEnabled") == "true"; });
    sound();
    // Gone for three leases, and empty when it is back.
    server->kill();
    runFor(3s);
    EXPECT_TRUE(left.acts());
    EXPECT_EQ(left.status->problem(), at + ": the server has closed the connection");
    serve();
    sound();
    // It would be a second for each answer: whoever dies in that time is not missed for long after it.
    asked({"CONFIG", "SET", "maxmemory", "1"});
    near.withdraw(listener(1, ListenerState::Ready));
    time.runFor(2s);
    becomes([&] { return left.status->problem().starts_with("the store takes nothing in: OOM"); });
    runFor(1500ms);
    EXPECT_EQ(left.said("OOM"), 1U);
    EXPECT_TRUE(left.acts());
    asked({"CONFIG", "SET", "maxmemory", "0"});
    sound();
    // Somebody makes other things of what is ours.
    asked({"SET", record + "msrp/status", "nonsense"});
    asked({"DEL", record + "msrp/status/registeredStreams/0x2"});
    left.bridge.status->msrpEnabledIs(false);
    left.bridge.status->msrpEnabledIs(true);
    becomes([&] { return stored("msrp/status", "msrpEnabled") == "true"; });
    // A form that this version does not know is not touched.
    asked({"HSET", meta, "schema", "2"});
    becomes([&] { return left.said("form 2, of a later version; this one knows form 1") == 2; });
    EXPECT_FALSE(left.acts() || right.acts());
    EXPECT_EQ(asked({"HGET", meta, "schema"}).text, "2");
}

TEST_F(SupervisorTest, AStoreThatDoesNotAnswerInTimeEndsTheRole) {
    both();
    server->signal(SIGSTOP);
    becomes([&] { return left.said("not active any more: the lease could not be kept") == 1; });
    EXPECT_FALSE(left.acts() || right.acts());
    server->signal(SIGCONT);
    becomes([&] { return left.acts() || right.acts(); });
    // A second for each answer: with a lease of that length nobody can be sure.
    Side* active = left.acts() ? &left : &right;
    for (int i = 0; i < 2; ++i) {
        server->signal(SIGSTOP);
        runFor(1s);
        server->signal(SIGCONT);
        runFor(1ms);
    }
    EXPECT_GE(active->said("not active any more"), active == &left ? 2U : 1U);
    becomes([&] { return left.acts() || right.acts(); });
    // With one of four seconds, nothing happens.
    left.die();
    right.die();
    left.lines.clear();
    left.join(at, 4s);
    becomes([&] { return left.acts(); }, {&left});
    for (int i = 0; i < 3; ++i) {
        server->signal(SIGSTOP);
        runFor(1s, {&left});
        server->signal(SIGCONT);
        runFor(20ms, {&left});
        EXPECT_TRUE(left.acts());
    }
    EXPECT_EQ(left.said("not active any more"), 0U);
}

TEST_F(SupervisorTest, ReplicasAndNewMasters) {
    // A replica takes nothing in, and says so.
    const std::string port = freePort();
    const RedisProcess replica{
        redisServer(directory, {"--port", port, "--bind", "127.0.0.1", "--replicaof", path + " 1"})};
    left.join("127.0.0.1:" + port, 1s);
    becomes([&] { return left.said("the store refuses the lease: READONLY") == 1; }, {&left});
    runFor(1s, {&left});
    EXPECT_EQ(left.said("refuses the lease: READONLY"), 1U) << "once, however often it comes back to it";
    EXPECT_FALSE(left.acts());
    left.die();
    // With too few replicas behind it, a master gives no role that its heir might not know of.
    both();
    asked({"CONFIG", "SET", "min-replicas-to-write", "1"});
    becomes([&] { return left.said("the store refuses the lease: NOREPLICAS") == 1; });
    becomes([&] { return !left.acts(); });
    asked({"CONFIG", "SET", "min-replicas-to-write", "0"});
    becomes([&] { return left.acts() || right.acts(); });
    // A store that is behind, as after a fail-over: older numbers do not make two.
    (left.acts() ? left : right).die();
    becomes([&] { return left.acts() || right.acts(); });
    asked({"HSET", meta, "fence", "1", "holder", "left2", "until", "0"});
    runFor(2s);
    becomes([&] { return left.acts() || right.acts(); });
    EXPECT_GE(std::stoi(asked({"HGET", meta, "fence"}).text), 3);
}

TEST_F(SupervisorTest, ANewMasterIsWrittenAnew) {
    const std::string first = freePort();
    const std::string second = freePort();
    const std::string third = freePort();
    server = nullptr;
    RedisProcess master{redisServer(directory, {"--port", first, "--bind", "127.0.0.1",
                                                "--repl-diskless-sync-delay", "0", "--unixsocket", path})};
    RedisProcess replica{
        redisServer(directory, {"--port", second, "--bind", "127.0.0.1", "--replicaof", "127.0.0.1 " + first,
                                "--unixsocket", directory.file("replica")})};
    master.await("Synchronization with replica 127.0.0.1:" + second + " succeeded");
    RedisProcess sentinel{
        {"redis-sentinel",
         directory.write("sentinel.conf", "port " + third + "\nbind 127.0.0.1\ndir " + directory.file("") +
                                              "\nsentinel monitor main 127.0.0.1 " + first +
                                              " 1\nsentinel down-after-milliseconds main 500\n"
                                              "sentinel failover-timeout main 3000\n")},
        "+slave slave"};
    for (Side* side : {&left, &right}) {
        side->join("127.0.0.1:" + third, 1s, "main");
        becomes([&] { return left.acts() && side->status->complete(); }, {&left, side});
    }
    reserve(20);
    becomes([&] { return left.status->complete(); });
    asked({"WAIT", "1", "1000"});
    runFor(100ms);
    // Nobody may act on for a master that is gone: another could be made, and give the role away.
    master.kill();
    at = "unix:" + directory.file("replica");
    becomes([&] { return !left.acts(); });
    becomes([&] { return left.acts() || right.acts(); });
    Side& active = left.acts() ? left : right;
    becomes([&] { return active.status->complete() && active.status->server() == "127.0.0.1:" + second; });
    EXPECT_EQ(stored("msrp/status/registeredStreams/0x3", "vlanId"), "2");
    EXPECT_EQ(asked({"HGET", meta, "whole"}).text, "1");
}

TEST_F(SupervisorTest, WhatIsWrongInTheStoreIsRefusedFieldByField) {
    left.inputs = {interfaces};
    left.join(at, 1s);
    becomes([&] { return left.acts() && left.status->complete(); }, {&left});
    reserve(10);
    becomes([&] { return stored("msrp/status/registeredStreams/0x3", "vlanId") == "2"; }, {&left});
    // Before the other one reads it for the first time.
    const std::string stream = "msrp/status/registeredStreams/0x3";
    asked({"HSET", record + stream, "vlanId", "70000", "maxFrameSize", "\"x\"", "dataFramePriority", "{",
           "no", "1", "talkerState", "{\"p1\": \"Sad\"}", "statusTime", "7"});
    asked({"HSET", record + "msrp/waiting/bandwidthFailed/intf/p3/failedStream", "x", "1", "7", "2"});
    asked({"SET", record + "msrp/status/registeredStreams/0x4", "text"});
    for (const char* wrong :
         {"msrp/status/registeredStreams/0xZ", "msrp/status/none/1", "msrp/status/intfStatus",
          "msrp/status/intfStatus/no port/deep", "none/of/ours", ""})
        asked({"SADD", "msrp:{switch}:records", wrong});
    right.join(at, 1s);
    becomes([&] { return right.status->complete(); });
    for (const char* said :
         {"vlanId", "maxFrameSize", "dataFramePriority", ": no:", "talkerState", "statusTime", "0x4", "0xZ",
          "msrp/status/none/1", "msrp/status/intfStatus/no port"})
        EXPECT_GE(right.said(said), 1U) << said;
    const std::size_t lines = right.lines.size();
    // The others are there, and it is not said again.
    EXPECT_EQ(Sim::shown(right.bridge.status->registeredStreams(2)->value()),
              Sim::shown(left.bridge.status->registeredStreams(2)->value()));
    asked({"PUBLISH", "msrp:{switch}:changes", "garbage"});
    asked({"PUBLISH", "msrp:{switch}:changes", "99999\nnone\n\n"});
    asked({"PUBLISH", "msrp:{switch}:roles", "nobody"});
    becomes([&] { return right.status->complete(); });
    runFor(300ms);
    EXPECT_EQ(right.lines.size(), lines);
    EXPECT_TRUE(left.acts());

    // What other programs have to say: the link of a port.
    const std::string port = interfaces + "/intfStatus/p2";
    const auto tell = [&](const Lines& fields) {
        Lines words{"HSET", record + port};
        words.insert(words.end(), fields.begin(), fields.end());
        asked(words);
        asked({"SADD", "msrp:{switch}:records", port, interfaces});
        asked({"PUBLISH", "msrp:{switch}:inputs", port});
    };
    tell({"linkStatus", "\"down\"", "speedEnum", "\"12G\"", "more", "[]"});
    becomes([&] {
        return left.bridge.phy->intfStatus(IntfId{"p2"})->linkStatus() == Interface::LinkStatus::linkDown;
    });
    EXPECT_EQ(left.said(port + ": speedEnum"), 1U) << testing::PrintToString(left.lines);
    EXPECT_EQ(left.said(port + ": more"), 1U);
    EXPECT_EQ(left.bridge.phy->intfStatus(IntfId{"p2"})->speedEnum(), Interface::Speed::speed1Gbps);
    time.runFor(1s);
    EXPECT_EQ(left.bridge.stream(3).find("p2"), std::string::npos);
    // An empty store takes no port away.
    asked({"FLUSHALL"});
    becomes([&] { return stored("msrp/status", "msrpEnabled") == "true" && left.status->complete(); });
    EXPECT_NE(left.bridge.phy->intfStatus(IntfId{"p1"}), nullptr);
}

TEST_F(SupervisorTest, DataOfAnEarlierLifeLastsAsLongAsNobodyDeniesIt) {
    left.join(at, 1s);
    becomes([&] { return left.acts(); }, {&left});
    reserve(10);
    becomes(
        [&] {
            return left.status->complete() &&
                   stored("msrp/status/registeredStreams/0xA", "listenerState").find("Ready") !=
                       std::string::npos;
        },
        {&left});
    left.die();
    far.linkIs(false);
    near.withdraw(listener(1, ListenerState::Ready));
    for (std::uint64_t id = 6; id <= 10; ++id)
        talker.withdraw(advertise({.id = id, .macDa = 0x91e0f0000000 + id}));
    time.runFor(1min);
    // Half of it was being written anew when the agent died: what is missing there is not taken as gone.
    right.join(at, 1s);
    becomes([&] { return right.acts(); }, {&right});
    time.runFor(0s);
    EXPECT_EQ(std::ranges::count(right.bridge.streams(), '\n'), 12);
    time.runFor(30s);
    for (std::uint64_t id = 1; id <= 10; ++id)
        EXPECT_EQ(right.bridge.stream(id).find("no talker") != std::string::npos, id > 5) << id;
    EXPECT_EQ(right.bridge.stream(1).find("p2"), std::string::npos);
}

TEST_F(SupervisorTest, AloneItActsWhateverTheStoreDoes) {
    asked({"ACL", "SETUSER", "default", "-subscribe"});
    left.redundancy = nullptr;
    left.join(at, 0s);
    becomes([&] { return left.said("the store does not tell of changes: NOPERM") == 1; });
    right.redundancy = nullptr;
    right.join(at, 0s);
    becomes([&] { return left.status->complete() || right.status->complete(); });
    Side& first = left.status->complete() ? left : right;
    Side& second = &first == &left ? right : left;
    becomes(
        [&] { return second.said("another program writes under the name \"switch\": " + first.name) == 1; });
    EXPECT_EQ(second.status->role(), Store::Role::active);
    EXPECT_FALSE(second.status->complete());
    server->signal(SIGSTOP);
    runFor(500ms);
    EXPECT_EQ(first.status->role(), Store::Role::active);
    server->signal(SIGCONT);
}

}  // namespace
