/// An agent that goes on with records in a store in which somebody has written something else.
#include "Runtime/VirtualLoop.h"
#include "Sim/MrpPeer.h"
#include "Store/Follower.h"
#include "Store/Mirror.h"
#include "tests/scenarios/Scenario.h"
#include "tests/store/MemoryStore.h"

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Random = std::mt19937_64;

const std::vector<std::string> liedAbout{"msrp/status", "msrp/waiting", "bridging/input/config/msrp",
                                         "qos/input/config/msrp"};
const std::vector<std::string> lies{"0",
                                    "1",
                                    "-1",
                                    "5000",
                                    "65535",
                                    "18446744073709551615",
                                    "1e300",
                                    "null",
                                    "true",
                                    "{}",
                                    "\"\"",
                                    "\"p9\"",
                                    "\"SrClassB\"",
                                    "\"7\"",
                                    "{\"p9\":1}",
                                    "\"Core\"",
                                    "\"p1\"",
                                    "\"0x7\"",
                                    "{\"p2\":true}",
                                    "{\"p3\":\"Failed\"}",
                                    "[",
                                    "\"02:00:00:00:00:01\"",
                                    "\"ff:ff:ff:ff:ff:ff\"",
                                    "{\"p9\":\"Ready\"}",
                                    "{\"p1\":\"Ready\"}"};

template <class Container>
auto anyOf(Container& all, Random& random) {
    return std::next(all.begin(), static_cast<std::ptrdiff_t>(random() % all.size()));
}

/// A few fields, records and names that are not as they were.
void lie(MemoryStore& store, Random& random) {
    for (auto left = 1 + random() % 8; left > 0; --left) {
        auto record = anyOf(store.records, random);
        const auto& other = anyOf(store.records, random)->second;
        if (record->second.empty()) continue;
        auto field = anyOf(record->second, random);
        switch (random() % 5) {
            case 0:
                if (const auto same = other.find(field->first); same != other.end())
                    field->second = same->second;
                break;
            case 1:
                if (!other.empty()) field->second = anyOf(other, random)->second;
                break;
            case 2:
                record->second.erase(field);
                break;
            case 3: {
                std::string path = record->first;
                path.back() = "0179abp"[random() % 7];
                store.records[path] = record->second;
                break;
            }
            default:
                field->second = *anyOf(lies, random);
        }
    }
}

void live(std::uint64_t seed) {
    Random random{seed};
    Runtime::VirtualLoop time;
    Sim::Bridge left{time, {"p1", "p2", "p3"}};
    Sim::Bridge right{time, {"p1", "p2", "p3"}, 1, &left.ports()};
    Sim::MrpPeer talker{time, left, "p1", 1};
    Sim::MrpPeer near{time, left, "p2", 2};
    Sim::MrpPeer far{time, left, "p3", 3};
    const auto role = right.database().entityIs<Redundancy::RedundancyStatus>("redundancy/status");
    role->eventIs("CriticalServices", true);
    role->modeIs(Redundancy::Mode::standby);
    for (Sim::Bridge* bridge : {&left, &right}) {
        bridge->speedIs("p3", Interface::Speed::speed100Mbps);
        bridge->start();
    }
    for (Sim::MrpPeer* peer : {&talker, &near, &far}) {
        for (const Sim::Say& say : Sim::domains()) peer->declare(say);
    }
    for (std::uint64_t id = 1; id <= 12; ++id) {
        talker.declare(Sim::advertise({.id = id, .macDa = 0x91e0f0000000 + id}));
        near.declare(Sim::listener(id, Msrp::ListenerState::Ready));
        far.declare(Sim::listener(id + 2, Msrp::ListenerState::Ready));
    }
    time.runFor(5s);
    left.activeStops();

    MemoryStore store;
    Store::Mirror mirror{left.database(), liedAbout, {}, [] {}};
    while (mirror.waiting()) store.take(mirror.take(65'536).words);
    lie(store, random);
    std::vector<std::pair<Store::Reply, std::function<void(const Store::Reply&)>>> answers;
    Store::Follower follower{
        right.database(),
        Store::Names{"switch"},
        Store::Follower::Writer::agent,
        {liedAbout.begin(), liedAbout.end()},
        0.0,
        [&](const auto& words, auto answer) { answers.emplace_back(store.answer(words), std::move(answer)); },
        [](const std::string&) {}};
    bool whole = false;
    follower.read([&whole] { whole = true; });
    while (!answers.empty()) {
        for (const auto& [reply, take] : std::exchange(answers, {})) take(reply);
    }
    EXPECT_TRUE(whole);

    role->modeIs(Redundancy::Mode::active);
    time.runFor(20s);
    for (std::uint64_t id = 1; id <= 12; ++id) {
        talker.withdraw(Sim::advertise({.id = id, .macDa = 0x91e0f0000000 + id}));
        near.withdraw(Sim::listener(id, Msrp::ListenerState::Ready));
        far.withdraw(Sim::listener(id + 2, Msrp::ListenerState::Ready));
    }
    time.runFor(30s);
    // Nothing of it is left that would be in another stream's way.
    for (std::uint64_t id = 30; id < 40; ++id) {
        talker.declare(Sim::advertise({.id = id, .macDa = 0x91e0f0000000 + id}));
        near.declare(Sim::listener(id, Msrp::ListenerState::Ready));
    }
    time.runFor(5s);
    for (std::uint64_t id = 30; id < 40; ++id)
        EXPECT_NE(right.stream(id).find("p1 -> p2"), std::string::npos) << right.streams();
}

TEST(Liar, IsSurvivedAndForgotten) {
    const char* const wish = std::getenv("LIARS");
    const std::uint64_t liars = wish != nullptr ? std::strtoull(wish, nullptr, 10) : 60;
    for (std::uint64_t seed = 1; seed <= liars; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        live(seed);
        if (testing::Test::HasFailure()) break;
    }
}

}  // namespace
