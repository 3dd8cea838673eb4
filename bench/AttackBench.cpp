/// What an attack behind one port costs everybody else, in real time on a switch with 8 ports: how long a new
/// reservation between two others takes (reserveMs), what of theirs is lost (lost), the longest stretch of
/// the loop (stretchMs, of the processor's time; stretchWallMs beside it), the growth of memory and what goes
/// to the system log.  And the same for changes of the whole switch, and for a take-over.
#include "Msrp/types/Attributes.h"
#include "bench/LiveSwitch.h"

#include <fstream>
#include <malloc.h>
#include <optional>
#include <unordered_map>
#include <unordered_set>

namespace {

using namespace Bench;
using Interface::Speed;
using Mrp::Event;
using Msrp::ListenerState;
using Msrp::SrClassId;
using Msrp::typeListener;
using Msrp::typeTalkerAdvertise;

const IntfId attackTalker{"p1"};
const IntfId attackListener{"p2"};
const IntfId attackIdle{"p3"};
const IntfId talker{"p7"};
const IntfId listener{"p8"};

/// From /proc/self/status, in MB.
double memoryMb(const std::string& line) {
    std::ifstream in{"/proc/self/status"};
    for (std::string word; in >> word;) {
        double value = 0;
        if (word == line && in >> value) return value / 1024;
    }
    return 0;
}
void peakBeginsNow() {
    malloc_trim(0);
    std::ofstream{"/proc/self/clear_refs"} << 5;
}

struct Setup {
    std::size_t attackers = 4000;       ///< talkers behind p1
    std::size_t lastListenerPort = 1;   ///< listeners for all of them from p2 to that port
    std::size_t others = 12'000;        ///< streams from p7 to p8
    Speed speed = Speed::speed400Gbps;  ///< of p2
};
/// 2,764 of the attacker's streams fit on p2, 4,000 are refused.
constexpr Setup refused{6764, 2, 9236, Speed::speed25Gbps};
constexpr Setup everywhere{15'900, 6, 100};

class Attacked : public LiveSwitch {
public:
    explicit Attacked(const Setup& setup) : LiveSwitch{8, 20'000}, attackers{many(setup.attackers)} {
        bridge.speedIs("p2", setup.speed);
        ports.declare(attackListener, Sim::pdusOf(Sim::domains()));
        settle();
        const std::size_t others = many(setup.others);
        ports.declare(talker, join(typeTalkerAdvertise, attackers, others, Spacing::scattered));
        ports.declare(listener, join(typeListener, attackers, others, Spacing::scattered));
        settle();
        if (attackers != 0 && setup.lastListenerPort > 0) reserve(attackers, setup.lastListenerPort);
        for (std::size_t i = 0; i < others; ++i) others_.insert(streamId(attackers + i, Spacing::scattered));
        next_ = attackers + others;
        bridge.mrpConfig->leaveAllTimeIs(4000);  // so that there are some rounds of each port
        onLeave = [this](const std::string& text) {
            for (const IntfId intf : {talker, listener}) {
                if (text.find("received on " + intf.name()) != std::string::npos) ++lost_;
            }
        };
        ports.listenerIs(talker, [this](auto pdu) { heard(pdu, true); });
        ports.listenerIs(listener, [this](auto pdu) { heard(pdu, false); });
        settle();
    }
    ~Attacked() {
        // The switch outlives this part of it, and still talks while it ends.
        onLeave = {};
        for (const IntfId intf : {talker, listener}) ports.listenerIs(intf, {});
    }
    Attacked(const Attacked&) = delete;
    Attacked& operator=(const Attacked&) = delete;

    /// Lets that happen on the loop, goes on for so long, and shows what it cost.
    void run(benchmark::State& state, const std::function<void()>& attack, Runtime::Duration lasts) {
        logLines = logOctets = 0;
        lost_ = 0;
        peakBeginsNow();
        const double before = memoryMb("VmRSS:");
        Heartbeat heartbeat{loop};
        // When a LeaveAll has just gone out, whoever is held up now loses what it does not hear in time.
        ports.answers = 0;
        for (const IntfId intf : {talker, listener})
            bridge.agent().mrpSm()->periodicSm().transmitAllLeaveAll(intf);
        loop.runUntil([this] { return ports.answers >= 2; }, 1s);
        const Runtime::Time begun = loop.now();
        std::optional<Runtime::Time> end;
        // By the clock of those who ask: a loop that is held up makes none of them ask later.
        Runtime::Time due = begun;
        Runtime::Timer request{loop, [&] {
                                   ask(due);
                                   due += 250ms;
                                   if (due < *end) request.armAt(due);
                               }};
        loop.post([&] {
            attack();
            end = loop.now() + lasts;
            request.armAt(due);
        });
        loop.runUntil([&] { return end && loop.now() >= *end && asked_.empty(); }, lasts + 30s);
        request.cancel();  // one that is asked for now would have no time
        wait(5ms);
        const double minutes = milliseconds(loop.now() - begun) / 60'000;
        for (const auto& [id, since] : asked_) longest_ = std::max(longest_, loop.now() - since);
        for (const std::uint64_t id : others_) {
            const auto stream = bridge.agent().msrpSm()->streamList(id);
            if (!stream || !stream->ethGroup() || !stream->ethGroup()->intf(listener)) ++lost_;
        }
        if (!asked_.empty()) state.SkipWithError("a reservation of others was never made");
        state.counters["reserveMs"] = milliseconds(longest_);
        state.counters["lost"] = static_cast<double>(lost_);
        state.counters["stretchMs"] = milliseconds(heartbeat.longestWork);
        state.counters["stretchWallMs"] = milliseconds(heartbeat.longestWait);
        state.counters["memoryMB"] = memoryMb("VmHWM:") - before;
        state.counters["logLines/min"] = static_cast<double>(logLines) / minutes;
        state.counters["logMB/min"] = static_cast<double>(logOctets) / 1e6 / minutes;
    }
    /// Runs `act` so often, evenly spread.
    void every(Runtime::Duration span, std::size_t times, std::function<void(std::size_t)> act) {
        const std::size_t mine = timers_.size();
        timers_.emplace_back(loop,
                             [this, span, times, mine, act = std::move(act), n = std::size_t{0}]() mutable {
                                 act(n);
                                 if (++n < times) timers_[mine].armIn(span);
                             });
        timers_[mine].armIn({});
    }
    void linkIs(const char* port, bool up) {
        if (!up) ports.forget(IntfId{port});
        bridge.linkIs(port, up);
    }
    void say(IntfId intf, const std::vector<Sim::Say>& what, bool leaveAll = false) {
        ports.say(intf, Sim::pdusOf(what, leaveAll));
    }

    const std::size_t attackers;

private:
    void ask(Runtime::Time when) {
        asked_[streamId(next_, Spacing::scattered)] = when;
        ports.declare(talker, join(typeTalkerAdvertise, next_, 1, Spacing::scattered));
        ports.declare(listener, join(typeListener, next_, 1, Spacing::scattered));
        ++next_;
    }
    void heard(std::span<const std::uint8_t> pdu, bool atTalker) {
        Mrp::decode(pdu, Msrp::application(), decoded_);
        for (const Mrp::DecodedEvent& event : decoded_.events) {
            const Mrp::AttributeType& type = Msrp::application().types[event.typeIndex];
            if (type.type == Msrp::typeDomain) continue;
            const std::uint64_t id = type.key(std::span{event.value.octets}.first(type.valueLength));
            const bool good = Mrp::declares(event.event) &&
                              (type.type == typeTalkerAdvertise ||
                               event.value.declaration == static_cast<std::uint8_t>(ListenerState::Ready));
            const bool bad = event.event == Event::Lv || (Mrp::declares(event.event) && !good);
            if (bad && others_.contains(id)) ++lost_;
            const auto asked = asked_.find(id);
            if (!good || !atTalker || asked == asked_.end()) continue;
            longest_ = std::max(longest_, loop.now() - asked->second);
            asked_.erase(asked);
        }
    }

    std::unordered_set<std::uint64_t> others_;
    std::unordered_map<std::uint64_t, Runtime::Time> asked_;  ///< and not served yet
    std::size_t next_ = 0;
    std::size_t lost_ = 0;
    Runtime::Duration longest_{};
    Mrp::DecodedPdu decoded_;
    std::deque<Runtime::Timer> timers_;
};

/// Class A's priority turns between 3 and 4 so often, and ends with 3 or 4.
std::vector<Sim::Say> priorities(int count, std::size_t last) {
    std::vector<Sim::Say> out;
    for (int i = 0; i < count; ++i)
        out.push_back(Sim::domain(SrClassId::SrClassA,
                                  static_cast<std::uint8_t>(3 + (last + static_cast<std::size_t>(i)) % 2)));
    return out;
}
/// Frames with 40 talkers each, of which none is like another; with a priority of no class they are refused.
const std::vector<Sim::Pdu>& talkers(std::uint8_t priority, Event event) {
    static std::map<std::pair<std::uint8_t, Event>, std::vector<Sim::Pdu>> made;
    auto& frames = made[{priority, event}];
    if (!frames.empty()) return frames;
    std::vector<Sim::Say> out;
    for (std::uint64_t i = 0; i < 40'000; ++i)
        out.push_back(Sim::advertise(
            {.id = 0x77'0000'0000 + i * 2, .macDa = 0x91e0f0800000 + i, .priority = priority}, event));
    return frames = Sim::pdusOf(std::move(out));
}
Sim::Say ofOneAddress(std::uint64_t id) {
    return Sim::advertise({.id = 0x66'0000'0000 + 2 * id, .macDa = 0x91e0f0900000});
}

void attack(benchmark::State& state, const Setup& setup, std::chrono::seconds lasts,
            void (*prepare)(Attacked&), void (*act)(Attacked&)) {
    for ([[maybe_unused]] auto turn : state) {
        Attacked device{setup};
        if (prepare != nullptr) prepare(device);
        device.settle();
        device.run(
            state, [&] { act(device); }, lasting(lasts));
    }
}

void stop(benchmark::State& state) {
    for ([[maybe_unused]] auto turn : state) {
        Attacked device{refused};
        device.logLines = device.logOctets = 0;
        peakBeginsNow();
        const double before = memoryMb("VmRSS:");
        Heartbeat heartbeat{device.loop};
        device.wait(5ms);
        device.bridge.stop();
        device.wait(5ms);
        state.counters["stretchMs"] = milliseconds(heartbeat.longestWork);
        state.counters["stretchWallMs"] = milliseconds(heartbeat.longestWait);
        state.counters["memoryMB"] = memoryMb("VmHWM:") - before;
        state.counters["logLines"] = static_cast<double>(device.logLines);
        state.counters["logMB"] = static_cast<double>(device.logOctets) / 1e6;
    }
}

/// Of 16,000 streams that are wanted behind every port.
void takeOver(benchmark::State& state) {
    const auto portCount = static_cast<std::size_t>(state.range(0));
    for ([[maybe_unused]] auto turn : state) {
        LiveSwitch device{portCount};
        device.bridge.standbyStart();
        device.reserve(many(16'000), portCount);
        device.wait(2s);  // until all is published
        device.bridge.mrpConfig->leaveTimeIs(static_cast<std::uint32_t>(state.range(1)));
        const std::string before = device.bridge.streams();
        device.leaves = 0;
        device.bridge.activeStops();  // which elsewhere is another process
        Heartbeat heartbeat{device.loop};
        device.wait(5ms);
        device.loop.post([&] { device.bridge.standbyTakesOver(); });
        device.wait(lasting(10s));
        device.settle();
        state.counters["left"] = static_cast<double>(device.leaves);
        state.counters["sameStreams"] = device.bridge.streams() == before ? 1 : 0;
        state.counters["stretchMs"] = milliseconds(heartbeat.longestWork);
        state.counters["stretchWallMs"] = milliseconds(heartbeat.longestWait);
    }
}

struct Case {
    const char* name;
    Setup setup;
    std::chrono::seconds lasts;
    void (*prepare)(Attacked&);
    void (*act)(Attacked&);
};

/// Off, and on again half a second later; then the peers say again what they said.
template <class Change>
void offAndOn(Attacked& a, Change change) {
    a.every(500ms, 3, [&a, change](std::size_t step) {
        if (step < 2) return change(a, step == 1);
        for (const std::string& port : a.names) a.ports.repeat(IntfId{port});
    });
}

constexpr Case cases[] = {
    {"none", {0, 0, 16'000}, 8s, nullptr, [](Attacked&) {}},
    {"retry/cablePulled", refused, 5s, nullptr, [](Attacked& a) { a.linkIs("p1", false); }},
    {"retry/listenersLeave", refused, 5s, nullptr,
     [](Attacked& a) {
         a.ports.forget(attackListener);
         a.ports.say(attackListener, events(typeListener, Event::Lv, 0, a.attackers, Spacing::scattered));
     }},
    {"retry/classEnds", refused, 5s, nullptr,
     [](Attacked& a) {
         a.ports.forget(attackTalker);
         a.say(attackTalker, {Sim::domain(SrClassId::SrClassA, 3, Event::Lv)});
     }},
    {"retry/toggle",
     {4000, 0, 12'000, Speed::speed25Gbps},
     5s,
     [](Attacked& a) {
         // A small one that fits in beside the large ones, none of which fits in where it was.
         a.ports.declare(attackTalker, Sim::pdusOf({Sim::advertise({.id = 1, .maxFrameSize = 0})}));
         a.ports.declare(attackListener, Sim::pdusOf({Sim::listener(1, ListenerState::Ready)}));
         a.settle();
         a.reserve(a.attackers, 2);
     },
     [](Attacked& a) {
         std::vector<Sim::Say> toggles;
         for (int i = 0; i < 50; ++i) {
             toggles.push_back(Sim::listener(1, ListenerState::AskingFailed));
             toggles.push_back(Sim::listener(1, ListenerState::Ready));
         }
         a.every(20ms, 250, [&a, toggles](std::size_t) { a.say(attackListener, toggles); });
     }},
    {"domain/200inAFrame/16000",
     {0, 0, 16'000},
     5s,
     nullptr,
     [](Attacked& a) { a.say(attackIdle, priorities(200, 0)); }},
    {"domain/50framesASecond/4000",
     {0, 0, 4000},
     5s,
     nullptr,
     [](Attacked& a) { a.every(20ms, 250, [&a](std::size_t n) { a.say(attackIdle, priorities(5, n)); }); }},
    {"domain/50framesASecond/16000",
     {0, 0, 16'000},
     5s,
     nullptr,
     [](Attacked& a) { a.every(20ms, 250, [&a](std::size_t n) { a.say(attackIdle, priorities(5, n)); }); }},
    {"address/cablePulled",
     {0, 0, 12'000},
     5s,
     [](Attacked& a) {
         std::vector<Sim::Say> all;
         for (std::uint64_t id = 0; id < 4000; ++id) all.push_back(ofOneAddress(id));
         a.ports.declare(attackTalker, Sim::pdusOf(all));
     },
     [](Attacked& a) { a.linkIs("p1", false); }},
    {"address/holderLeaves",
     {0, 0, 12'000},
     5s,
     [](Attacked& a) {
         std::vector<Sim::Say> all;
         for (std::uint64_t id = 0; id < 4000; ++id) all.push_back(ofOneAddress(id));
         a.ports.declare(attackTalker, Sim::pdusOf(all));
     },
     [](Attacked& a) {
         auto leave = ofOneAddress(0);
         leave.event = Event::Lv;
         a.say(attackTalker, {leave});
     }},
    {"flood/refusedTalkers",
     {0, 0, 16'000},
     8s,
     [](Attacked&) { (void)talkers(5, Event::JoinMt); },
     [](Attacked& a) {
         a.every(1ms, 5000, [&a](std::size_t n) {
             const auto& frames = talkers(5, Event::JoinMt);
             for (std::size_t i = 0; i < 4; ++i)
                 a.ports.say(attackIdle, {frames[(4 * n + i) % frames.size()]});
         });
     }},
    {"flood/joinsAndLeaves",
     {0, 0, 16'000},
     8s,
     [](Attacked&) {
         (void)talkers(3, Event::JoinMt);
         (void)talkers(3, Event::Lv);
     },
     [](Attacked& a) {
         a.every(1ms, 5000, [&a](std::size_t n) {
             for (const Event event : {Event::JoinMt, Event::Lv}) {
                 const auto& frames = talkers(3, event);
                 a.ports.say(attackIdle,
                             {frames[2 * n % frames.size()], frames[(2 * n + 1) % frames.size()]});
             }
         });
     }},
    {"flood/leaveAllInEveryFrame",
     {8000, 2, 8000},
     8s,
     nullptr,
     [](Attacked& a) { a.every(1ms, 5000, [&a](std::size_t) { a.say(attackTalker, {}, true); }); }},
    {"change/class", everywhere, 6s, nullptr,
     [](Attacked& a) {
         offAndOn(a, [](Attacked& b, bool on) { b.bridge.cliConfig->srClassASupportedIs(on); });
     }},
    {"change/classPriority", everywhere, 6s, nullptr,
     [](Attacked& a) {
         offAndOn(a, [](Attacked& b, bool on) { b.bridge.cliConfig->srClassAPriorityIs(on ? 3 : 4); });
     }},
    {"change/talkersPort", everywhere, 6s, nullptr,
     [](Attacked& a) {
         offAndOn(a, [](Attacked& b, bool on) { b.bridge.config->intfEnableIs(attackTalker, on); });
     }},
    {"change/listenersPort", everywhere, 6s, nullptr,
     [](Attacked& a) {
         offAndOn(a, [](Attacked& b, bool on) { b.bridge.config->intfEnableIs(attackListener, on); });
     }},
    {"change/linkFlap", everywhere, 6s, nullptr,
     [](Attacked& a) { offAndOn(a, [](Attacked& b, bool on) { b.bridge.linkIs("p1", on); }); }},
    {"change/speed", everywhere, 6s, nullptr,
     [](Attacked& a) {
         offAndOn(a, [](Attacked& b, bool on) {
             b.bridge.speedIs("p2", on ? Speed::speed400Gbps : Speed::speed200Gbps);
         });
     }},
    {"change/vlan", everywhere, 6s, nullptr,
     [](Attacked& a) {
         offAndOn(a, [](Attacked& b, bool on) {
             on ? b.bridge.vlanIs(2, "p2", true) : b.bridge.vlanDel(2, "p2");
         });
     }},
};

const bool attackBenches = [] {
    const auto once = [](benchmark::internal::Benchmark* bench) {
        return bench->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    };
    for (const Case& c : cases) {
        once(benchmark::RegisterBenchmark(
            (std::string{"Attack/"} + c.name).c_str(),
            [&c](benchmark::State& state) { attack(state, c.setup, c.lasts, c.prepare, c.act); }));
    }
    once(benchmark::RegisterBenchmark("Attack/retry/stop", stop));
    once(benchmark::RegisterBenchmark("Attack/takeOver", takeOver))
        ->Args({8, 600})
        ->Args({8, 250})
        ->Args({48, 600})
        ->Args({48, 250});
    return true;
}();

}  // namespace
