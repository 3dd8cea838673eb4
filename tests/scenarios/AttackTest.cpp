/// What hostile peers, and changes of the whole switch, may cost everybody else: nothing that they notice.
/// How long something takes is counted here, not measured: on this clock every line of the agent's trace
/// takes its time, as what it tells of does on a slow machine.
#include "Sim/Invariants.h"
#include "Sim/MrpPeer.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace Sim {
namespace {

using Msrp::ListenerState;
using Msrp::SrClassId;
using Runtime::Duration;
using Runtime::Time;
using namespace std::chrono_literals;

/// Takes turns as the loop of the daemon does, and knows the longest.
class WorkLoop : public Runtime::Loop {
public:
    [[nodiscard]] Time now() const override { return now_; }
    [[nodiscard]] Runtime::WallTime wallNow() const override {
        return Runtime::WallTime{now_.time_since_epoch()};
    }
    void work(Duration span) { now_ += span; }
    /// Asks the condition after each turn.
    bool runUntil(const std::function<bool()>& condition, Duration atMost) {
        const Time end = now_ + atMost;
        while (!condition()) {
            if (now_ >= end) return false;
            const Time begun = now_;
            const bool posted = runPosted();
            fireDue(now_, 3ms);
            longest = std::max(longest, now_ - begun);
            if (posted || now_ != begun || (timerArmed() && nextDue() <= now_)) continue;
            now_ = timerArmed() ? std::min(nextDue(), end) : end;
        }
        return true;
    }
    void runFor(Duration span) {
        runUntil([] { return false; }, span);
    }
    Duration longest{};

private:
    Time now_{1000s};
};

Talker stream(std::uint64_t id, std::uint16_t frameSize = 20) {
    return {.id = id, .macDa = 0x91e0f0000000 + id, .maxFrameSize = frameSize};
}

/// An attacker behind p1 and p2; ten streams of others from p3 to p4.
class Attack {
public:
    static constexpr std::uint64_t streams = 400;  ///< of the attacker, from 1
    static constexpr std::uint64_t others = 9000;  ///< theirs, from here

    Attack() {
        bridge.traceIs(Runtime::TraceLevel::handler, [this](std::string_view) { loop.work(5us); });
        bridge.start();
        bridge.standbyStart();
        for (MrpPeer* peer : {&p1, &p2, &p3, &p4}) {
            for (const Say& say : domains()) peer->declare(say);
        }
        for (std::uint64_t id = others; id < others + 10; ++id) ask(id);
        loop.runFor(3s);
        EXPECT_TRUE(othersServed());
    }
    void ask(std::uint64_t id) {
        p3.declare(advertise(stream(id)));
        p4.declare(listener(id, ListenerState::Ready));
    }
    [[nodiscard]] bool served(std::uint64_t id) const {
        const auto answer = p3.registered().find({Msrp::typeListener, id});
        return answer != p3.registered().end() && answer->second.ends_with(" Ready") &&
               p4.registered().contains({Msrp::typeTalkerAdvertise, id});
    }
    [[nodiscard]] bool othersServed() const {
        bool all = true;
        for (std::uint64_t id = others; id < others + 10; ++id) all = all && served(id);
        return all;
    }
    void linkIs(const std::string& port, MrpPeer& peer, bool up) {
        bridge.linkIs(port, up);
        peer.linkIs(up);
    }
    void send(const std::string& port, const std::vector<Say>& events) {
        for (const Pdu& pdu : pdusOf(events)) bridge.ports().deliver(IntfId{port}, pdu);
    }
    /// All of the attacker's streams from p1 to p2, which cannot carry half of them.
    void fillP2(std::uint16_t frameSize = 20) {
        for (std::uint64_t id = 1; id <= streams; ++id) {
            p1.declare(advertise(stream(id, id == 1 ? 20 : frameSize)));
            p2.declare(listener(id, ListenerState::Ready));
        }
        loop.runFor(3s);
        EXPECT_GT(bridge.waiting->bandwidthFailedIntf(IntfId{"p2"})->size(), streams / 2);
    }
    /// While that happens and for three seconds thereafter no turn of the loop takes more than 20 ms,
    /// others get what they ask for within a second, and they lose nothing.
    void expectUnnoticed(const std::function<void()>& attack) {
        const std::uint64_t asked = fresh_++;
        bridge.logClear();
        loop.longest = {};
        loop.post(attack);
        loop.post([&] { ask(asked); });
        EXPECT_TRUE(loop.runUntil([&] { return !othersServed() || served(asked); }, 1s));
        EXPECT_FALSE(loop.runUntil([&] { return !othersServed(); }, 3s));
        EXPECT_LE(loop.longest / 1us, 20'000);
        EXPECT_EQ(forwardingFault(bridge), "");
    }
    /// No more than one refusal for each stream.
    void expectFewTexts() {
        EXPECT_LE(bridge.logged("insufficient"), streams);
        EXPECT_LE(bridge.log().size(), 16 * streams);
    }
    [[nodiscard]] std::uint64_t allocated() const { return bridge.allocated("p2", SrClassId::SrClassA); }

    WorkLoop loop;
    Bridge bridge{loop, {"p1", "p2", "p3", "p4"}};
    MrpPeer p1{loop, bridge, "p1", 1};
    MrpPeer p2{loop, bridge, "p2", 2};
    MrpPeer p3{loop, bridge, "p3", 3};
    MrpPeer p4{loop, bridge, "p4", 4};

private:
    std::uint64_t fresh_ = others + 10;
};

TEST(Attack, WaitersAreNotAllTriedForEachStreamThatIsFreed) {
    using Case = std::pair<const char*, void (*)(Attack&)>;
    const Case cases[] = {
        {"the talkers' cable is pulled", [](Attack& a) { a.linkIs("p1", a.p1, false); }},
        {"the class ends on their port", [](Attack& a) { a.p1.withdraw(domain(SrClassId::SrClassA, 3)); }},
        {"the class ends on the listeners' port",
         [](Attack& a) { a.p2.withdraw(domain(SrClassId::SrClassA, 3)); }},
        {"all talkers leave",
         [](Attack& a) {
             for (std::uint64_t id = 1; id <= a.streams; ++id) a.p1.withdraw(advertise(stream(id)));
         }},
        {"all listeners leave",
         [](Attack& a) {
             for (std::uint64_t id = 1; id <= a.streams; ++id)
                 a.p2.withdraw(listener(id, ListenerState::Ready));
         }},
    };
    for (const auto& [name, end] : cases) {
        SCOPED_TRACE(name);
        Attack a;
        a.fillP2();
        a.expectUnnoticed([&, act = end] { act(a); });
        a.expectFewTexts();
        EXPECT_EQ(a.allocated(), 0U);
    }
    Attack stopped;
    stopped.fillP2();
    stopped.bridge.logClear();
    stopped.bridge.stop();
    stopped.loop.runFor(1s);
    stopped.expectFewTexts();
}

TEST(Attack, AListenerThatTogglesWakesTheWaitersOnce) {
    Attack a;
    a.fillP2(100);  // none of which fits in where one of 20 was
    const auto full = a.allocated();
    std::vector<Say> toggles;
    for (int i = 0; i < 50; ++i) {
        toggles.push_back(listener(1, ListenerState::AskingFailed));
        toggles.push_back(listener(1, ListenerState::Ready));
    }
    a.expectUnnoticed([&] { a.send("p2", toggles); });
    a.expectFewTexts();
    EXPECT_EQ(a.allocated(), full);
}

TEST(Attack, WhatIsReleasedGoesToTheOldestWithoutAWordAboutOthers) {
    Attack a;
    a.fillP2(100);
    const auto full = a.allocated();
    const auto& queue = *a.bridge.waiting->bandwidthFailedIntf(IntfId{"p2"});
    const std::uint64_t oldest = queue.stream(*queue.head());
    a.expectUnnoticed([&] {
        for (std::uint64_t id = 2; id <= 4; ++id) a.p2.withdraw(listener(id, ListenerState::Ready));
    });
    EXPECT_LE(a.bridge.logged("insufficient"), 1U);
    EXPECT_TRUE(a.bridge.stream(oldest).ends_with("-> p2")) << a.bridge.stream(oldest);
    EXPECT_EQ(a.allocated(), full);
}

TEST(Attack, OfSeveralDomainValuesInATurnTheLastOneCounts) {
    const auto alternating = [](int count, int last) {
        std::vector<Say> out;
        for (int i = 1; i <= count; ++i)
            out.push_back(
                domain(SrClassId::SrClassA, static_cast<std::uint8_t>(3 + (last + 1 + count - i) % 2)));
        return out;
    };
    Attack a;
    a.fillP2();
    for (const int last : {3, 4}) {
        a.expectUnnoticed([&] {
            a.send("p2", alternating(200, last));
            a.p2.declare(domain(SrClassId::SrClassA, static_cast<std::uint8_t>(last)));
        });
        EXPECT_EQ(a.bridge.classes("p2"), last == 3 ? "p2 Core Core" : "p2 Boundary Core");
        EXPECT_LE(a.bridge.logged("Join transmitted on p2"), 2 * (a.streams + 12));
        EXPECT_LE(a.bridge.log().size(), 16 * a.streams);
    }
    // The least frames, fifty a second.
    int frames = 0;
    Runtime::Timer next{a.loop, [&] {
                            a.send("p2", alternating(5, frames));
                            if (++frames < 100) next.armIn(20ms);
                        }};
    a.expectUnnoticed([&] { next.armIn({}); });
}

TEST(Attack, TalkersOfOneAddressDoNotTakeItInTurnAsTheyGo) {
    const auto shared = [](std::uint64_t id) {
        return advertise({.id = id, .macDa = stream(1).macDa, .maxFrameSize = 20});
    };
    for (const bool pulled : {true, false}) {
        SCOPED_TRACE(pulled);
        Attack a;
        for (std::uint64_t id = 1; id <= a.streams; ++id) a.p1.declare(shared(id));
        a.loop.runFor(3s);
        a.expectUnnoticed([&] { a.p1.withdraw(shared(1)); });
        EXPECT_EQ(a.bridge.stream(2), "0x2 SrClassA 3968 p1 -> p1");
        EXPECT_LE(a.bridge.logged("in use"), 2U) << "who waits behind it is not tried";
        a.expectUnnoticed([&] {
            if (pulled) return a.linkIs("p1", a.p1, false);
            for (std::uint64_t id = 2; id <= a.streams; ++id) a.p1.withdraw(shared(id));
        });
        EXPECT_LE(a.bridge.logged("Join transmitted"), a.streams / 4);
        EXPECT_TRUE(a.bridge.waiting->macDaBlocked().empty());
    }
}

/// Every stream of the attacker's number from p1 to all others, on links that carry them.
class LargeSwitch : public Attack {
public:
    static constexpr std::uint64_t streams = 1000;

    LargeSwitch() {
        for (const char* port : {"p1", "p2", "p3", "p4"})
            bridge.speedIs(port, Interface::Speed::speed100Gbps);
        for (std::uint64_t id = 1; id <= streams; ++id) {
            p1.declare(advertise(stream(id)));
            for (MrpPeer* peer : {&p2, &p3, &p4}) peer->declare(listener(id, ListenerState::Ready));
        }
        loop.runFor(3s);
        EXPECT_EQ(allocated(), streams * 3968);
    }
    [[nodiscard]] std::string picture() {
        std::string out = bridge.streams() + bridge.groups();
        for (const MrpPeer* peer : {&p1, &p2, &p3, &p4}) {
            for (const auto& [name, text] : peer->registered()) out += text + '\n';
        }
        return out;
    }
};

TEST(Attack, ATakeOverThatTakesLongLosesNothing) {
    for (const std::uint32_t leaveTime : {600U, 250U}) {
        LargeSwitch a;
        a.bridge.mrpConfig->leaveTimeIs(leaveTime);
        const std::string before = a.picture();
        a.bridge.logClear();
        a.loop.post([&] {
            a.bridge.activeStops();
            a.bridge.standbyTakesOver();
            a.loop.work(700ms);  // the processor was busy with something else
        });
        a.loop.runFor(5s);
        EXPECT_EQ(a.bridge.logged("_LV"), 0U) << leaveTime;
        EXPECT_EQ(a.picture(), before) << leaveTime;
    }
}

TEST(Attack, WhatConcernsAllStreamsGoesOnInPieces) {
    struct Change {
        const char* name;
        std::chrono::milliseconds longest;
        void (*make)(LargeSwitch&, bool back);
    };
    using Interface::Speed;
    const Change changes[] = {
        {"class", 50ms, [](auto& a, bool back) { a.bridge.cliConfig->srClassASupportedIs(back); }},
        {"priority", 50ms, [](auto& a, bool back) { a.bridge.cliConfig->srClassAPriorityIs(back ? 3 : 4); }},
        {"talkers' port", 20ms,
         [](auto& a, bool back) { a.bridge.config->intfEnableIs(IntfId{"p1"}, back); }},
        {"talkers' link", 20ms, [](auto& a, bool back) { a.linkIs("p1", a.p1, back); }},
        {"listeners' link", 20ms, [](auto& a, bool back) { a.linkIs("p2", a.p2, back); }},
        {"speed", 20ms,
         [](auto& a, bool back) { a.bridge.speedIs("p2", back ? Speed::speed100Gbps : Speed::speed40Gbps); }},
        {"VLAN", 20ms,
         [](auto& a, bool back) { back ? a.bridge.vlanIs(2, "p2", true) : a.bridge.vlanDel(2, "p2"); }},
    };
    LargeSwitch a;
    const std::string before = a.picture();
    for (const Change& change : changes) {
        SCOPED_TRACE(change.name);
        for (const bool back : {false, true}) {
            a.loop.longest = {};
            a.loop.post([&] { change.make(a, back); });
            a.loop.runFor(5s);
            EXPECT_LE(a.loop.longest / 1us, change.longest / 1us) << back;
            EXPECT_EQ(forwardingFault(a.bridge), "") << back;
        }
        EXPECT_EQ(a.picture(), before);
    }
}

}  // namespace
}  // namespace Sim
