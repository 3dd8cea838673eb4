/// What an attribute costs the engine on one port beside N others: joined, repeated, left, declared, and in a
/// LeaveAll round; and how many frames N declarations take.  Times are of the processor, for one attribute.
#include "Mrp/MrpSm.h"
#include "Mrp/PduWriter.h"
#include "Msrp/types/Attributes.h"
#include "Runtime/VirtualLoop.h"
#include "bench/Processor.h"
#include "bench/Streams.h"

#include <memory>

namespace {

using Bench::secondsOf;
using Bench::Spacing;
using namespace std::chrono_literals;

/// A wire that nobody reads.
class Sink : public Mrp::PacketPortProvider {
public:
    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override {
        receivers[intf] = std::move(receiver);
        return std::make_unique<Port>(*this);
    }
    std::map<IntfId, Receiver> receivers;
    std::size_t frames = 0;

private:
    struct Port : Mrp::PacketPort {
        explicit Port(Sink& owner) : sink{owner} {}
        bool send(std::span<const std::uint8_t>) override {
            ++sink.frames;
            return true;
        }
        Sink& sink;
    };
};

/// An engine with one port, and an application that accepts everything.
class Engine : private Mrp::MrpLib {
public:
    Engine() : MrpLib{Msrp::application()} {
        config_->maxAttributesPerTypeIs(1'000'000);
        config_->leaveAllTimeIs(600'000);
        mrpInterfaceEnable(intf_);
    }
    void hear(const std::vector<Sim::Pdu>& pdus) {
        // As they come from a socket: some, and then the loop has its turn.
        constexpr std::size_t framesAtOnce = 16;
        for (std::size_t i = 0; i < pdus.size(); ++i) {
            sink_.receivers.at(intf_)(pdus[i]);
            if (i % framesAtOnce == framesAtOnce - 1) loop.settle();
        }
        loop.settle();
    }
    void declare(std::uint8_t type, std::size_t count, Spacing spacing) {
        for (std::size_t number = 0; number < count; ++number) {
            const Mrp::AttributeValue value = Bench::value(type, number, spacing);
            outgoing(type) = {.value = value.octets, .declaration = value.declaration};
            mrpOutIntfQueueEnq(intf_);
            mrpSendAttribute({.intf = intf_, .attributeType = type, .request = Mrp::requestDeclare});
        }
    }
    void leaveAll() { periodicSm()->transmitAllLeaveAll(intf_); }
    [[nodiscard]] std::size_t frames() const { return sink_.frames; }

    Runtime::VirtualLoop loop;
    std::size_t joins = 0;
    std::size_t leaves = 0;

private:
    [[nodiscard]] const std::type_info& fwkType() const override { return typeid(Engine); }
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters&) override {
        ++joins;
        return 0;
    }
    void mrpLeaveIndication(const Mrp::MrpParameters&) override { ++leaves; }

    const IntfId intf_{"p1"};
    Sink sink_;
    Runtime::Trace trace_;
    std::shared_ptr<Mrp::MrpConfig> config_ = std::make_shared<Mrp::MrpConfig>();
    Mrp::MrpSm engine_{Mrp::Inputs{.brConfig = nullptr,
                                   .application = *this,
                                   .mrpConfig = config_,
                                   .mrpStatus = nullptr,
                                   .attributes = nullptr,
                                   .stpStatus = nullptr,
                                   .topoConfig = nullptr,
                                   .ethPhyIntfStatusDir = nullptr,
                                   .environment = {loop, sink_, trace_, {}, 1},
                                   .standbyMode = false}};
};

constexpr std::uint8_t advertise = Msrp::typeTalkerAdvertise;

/// One life of N attributes that a peer declares; each stage is measured.
enum class Stage : std::uint8_t { join, repeat, leaveAllRound, leave };

void registered(benchmark::State& state, Stage stage, Spacing spacing) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto joins = Bench::join(advertise, 0, count, spacing);
    const auto leaves = Bench::events(advertise, Mrp::Event::Lv, 0, count, spacing);
    for ([[maybe_unused]] auto turn : state) {
        Engine engine;
        std::array<double, 4> took{};
        const auto measure = [&](Stage which, auto&& work) {
            took[static_cast<std::size_t>(which)] = secondsOf(work);
        };
        measure(Stage::join, [&] { engine.hear(joins); });
        measure(Stage::repeat, [&] { engine.hear(joins); });
        // The port asks, the peer answers, the application is told again.
        measure(Stage::leaveAllRound, [&] {
            engine.leaveAll();
            engine.loop.runFor(1ms);
            engine.hear(joins);
        });
        if (engine.joins != 2 * count) state.SkipWithError("not everything was indicated");
        measure(Stage::leave, [&] {
            engine.hear(leaves);
            engine.loop.runFor(2s);
        });
        if (engine.leaves != count) state.SkipWithError("not everything has left");
        state.SetIterationTime(took[static_cast<std::size_t>(stage)]);
    }
    state.counters["perAttribute"] = Bench::timeEach(count);
}

/// N attributes that this side declares: the requests with what they send, and one LeaveAll.
void declared(benchmark::State& state, bool leaveAll, Spacing spacing) {
    const auto count = static_cast<std::size_t>(state.range(0));
    double frames = 0;
    for ([[maybe_unused]] auto turn : state) {
        Engine engine;
        const double declaring = secondsOf([&] {
            engine.declare(advertise, count, spacing);
            engine.loop.runFor(1ms);
        });
        frames = static_cast<double>(engine.frames());
        engine.loop.runFor(2s);
        const double repeating = secondsOf([&] {
            engine.leaveAll();
            engine.loop.runFor(1ms);
        });
        state.SetIterationTime(leaveAll ? repeating : declaring);
    }
    state.counters["perAttribute"] = Bench::timeEach(count);
    if (leaveAll) return;
    state.counters["frames"] = frames;
    state.counters["least"] = static_cast<double>(Bench::leastFrames(advertise, count, spacing));
}

[[maybe_unused]] const bool engineBenches = [] {
    const auto add = [](const std::string& name, auto body) {
        for (const Spacing spacing : {Spacing::consecutive, Spacing::scattered}) {
            const std::string full = name + (spacing == Spacing::consecutive ? "/packed" : "/scattered");
            benchmark::RegisterBenchmark(full.c_str(), [=](benchmark::State& s) { body(s, spacing); })
                ->RangeMultiplier(10)
                ->Range(1, Bench::isShort() ? 100 : 100'000)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond)
                ->MinTime(Bench::isShort() ? 0.001 : 0.05);
        }
    };
    add("Engine/join", [](auto& s, Spacing g) { registered(s, Stage::join, g); });
    add("Engine/repeat", [](auto& s, Spacing g) { registered(s, Stage::repeat, g); });
    add("Engine/leaveAllRound", [](auto& s, Spacing g) { registered(s, Stage::leaveAllRound, g); });
    add("Engine/leave", [](auto& s, Spacing g) { registered(s, Stage::leave, g); });
    add("Engine/declare", [](auto& s, Spacing g) { declared(s, false, g); });
    add("Engine/transmitLeaveAll", [](auto& s, Spacing g) { declared(s, true, g); });
    return true;
}();

}  // namespace
