/// An engine with a hostile peer on one port and another engine on the other: frames of any content, time,
/// requests, ports that come and go and configuration that changes, in the order that the input says.
#include "fuzz/Check.h"
#include "fuzz/Frames.h"
#include "fuzz/Sent.h"
#include "tests/mrp/Engines.h"

namespace Fuzz {
namespace {

using namespace std::chrono_literals;
using namespace MrpTest;

constexpr int maxSteps = 100;

/// What an engine counted and registered when it was last looked at.
struct Before {
    std::vector<std::uint64_t> counters;
    std::array<std::size_t, Mrp::maxTypes> registered{};
};

class Script {
public:
    explicit Script(Input in) : in_{in} {
        const std::uint8_t setup = in_.u8();
        temperIs(net_.a.app, setup % 16U);
        temperIs(net_.b.app, setup / 16U);
        for (Bridge* side : sides_) side->config->maxAttributesPerTypeIs(64);
        net_.wire.lose = [this](std::size_t) { return lose_ > 0 && lose_-- > 0; };
    }

    void run() {
        for (int step = 0; step < maxSteps && !in_.empty(); ++step) {
            act();
            settle(0ms);
        }
        calm();
        settle(4s);  // LeaveAll rounds of 1 to 1.5 s, and the leave time after each
        std::size_t left = 0;
        eachAttribute([&](const App::Name& name, const Mrp::Attribute& attribute) {
            if (std::get<0>(name) == a2 && attribute.registered()) ++left;
        });
        check(left == 0, left, " registrations of a silent peer are left");
        check(net_.agree(), "the engines have not registered what each other declares");
        for (Bridge* side : sides_) {
            for (const auto& [name, value] : App::Books{side->app.declared}) {
                const auto type = std::get<1>(name);
                const Octets octets{value.octets.begin(),
                                    value.octets.begin() + App::typeOf(type).valueLength};
                side->app.withdraw(std::get<0>(name), {Mrp::Event::Lv, type, octets, value.declaration});
            }
        }
        settle(2500ms);
        eachAttribute([&](auto&&...) { check(false, "an attribute is left that nobody declares"); });
    }

private:
    using Octets = std::vector<std::uint8_t>;

    void act() {
        const std::uint8_t what = in_.u8();
        Bridge& side = what < 192 ? net_.a : net_.b;
        App& app = side.app;
        const IntfId intf = what >= 192 ? b1 : what < 128 ? a2 : a1;
        const int op = what % 32;
        if (op == 0 || op > 21) return net_.wire.deliver(intf, frame(in_));
        if (op < 3) return app.declare(intf, say(in_));
        if (op == 3) return app.request(intf, say(in_), Mrp::requestResume);
        if (op < 6) return app.withdraw(intf, say(in_));
        if (op == 6) return purge(app, intf, say(in_));
        if (op == 7) return app.request(intf, say(in_), Mrp::requestInternalLeave);
        if (op == 8) return app.purgeAll(intf);
        if (op == 9 && !app.enabled.contains(intf)) return app.enable(intf);
        if (op == 9 || op == 10) app.disable(intf);
        if (op == 10) return app.enable(intf);
        if (op == 11) return ++seeds_, app.request(intf, say(in_), Mrp::requestSeed);
        if (op == 12) return side.standbyIs(!side.engine->standbyMode());
        if (op == 13) return app.leaveAll(intf);
        if (op == 14) return side.linkIs(intf, in_.pick(2) == 0);
        if (op == 15) return configure(*side.config);
        if (op == 16) lose_ = in_.pick(16);
        if (op == 17) return temperIs(app, in_.pick(16));
        if (op >= 18) return time_.spend(net_.loop, op == 18 ? in_.u16() % 4000 : 8 * in_.u8());
    }
    void configure(Mrp::MrpConfig& config) {
        const std::size_t which = in_.pick(6);
        if (which == 0) return config.joinTimeIs(10 + 4 * in_.u8());
        if (which == 1) return config.leaveTimeIs(100 + 8 * in_.u8());
        if (which == 2) return config.leaveAllTimeIs(1000 + 16 * in_.u8());
        if (which == 3) return config.periodicEnabledIs(in_.pick(2) == 1);
        const auto some = 1 + static_cast<std::uint32_t>(in_.pick(which == 4 ? 4 : 64));
        return which == 4 ? config.pdusPerOpportunityIs(some) : config.maxAttributesPerTypeIs(some);
    }
    static void purge(App& app, IntfId intf, const Sim::Say& what) {
        app.purge(intf, what.type, std::get<2>(App::nameOf(intf, what)));
    }
    /// The application takes every second key amiss in a way of its own: refuses it, throws, purges, ends the
    /// port, and so on, from inside the indication.  `turn` decides which keys; 0 accepts all.
    void temperIs(App& app, std::size_t turn) {
        app.onJoin = app.onLeave = nullptr;
        if (turn == 0) return;
        // The port beside it; the same one when there is no other.
        const auto other = [](IntfId intf) { return intf == a1 ? a2 : intf == a2 ? a1 : b1; };
        const auto mood = [turn](const Sim::Say& what) {
            return (std::get<2>(App::nameOf(a1, what)) + turn) % 16;
        };
        app.onJoin = [this, &app, other, mood](IntfId intf, const Sim::Say& what) {
            check(app.active(intf), "a join from a port that has ended");
            const std::size_t how = mood(what);
            const std::uint64_t key = std::get<2>(App::nameOf(intf, what));
            if (how == 3) throw std::range_error("value out of range");
            if (how == 5) app.purge(intf, what.type, key);
            if (how == 7) app.disable(intf), net_.loop.post([&app, intf] { app.enable(intf); });
            if (how == 9) app.purgeAll(intf);
            // What was refused before stays registered, and is accepted now.
            if (how == 13) app.request(intf, what, Mrp::requestInternalLeave);
            // Both kinds of talker declaration replace each other.
            if (how == 15 && what.type < 3) app.purge(intf, static_cast<std::uint8_t>(3 - what.type), key);
            if (how % 2 == 0 || how == 11) app.declare(how == 11 ? intf : other(intf), what);
            return how == 1;
        };
        app.onLeave = [&app, other, mood](IntfId intf, const Sim::Say& what) {
            const std::size_t how = mood(what);
            if (how == 3) throw std::range_error("value out of range");
            if (how == 7) app.disable(intf), app.enable(intf);
            if (how == 9) app.purgeAll(intf);
            if (how == 13) app.request(intf, what, Mrp::requestInternalLeave);
            if (how % 2 == 0 || how == 11) app.withdraw(other(intf), what);
            return false;
        };
    }
    /// The frames stop, and everybody is well disposed.
    void calm() {
        lose_ = 0;
        for (Bridge* side : sides_) {
            temperIs(side->app, 0);
            side->config->joinTimeIs(200);
            side->config->leaveTimeIs(600);
            side->config->leaveAllTimeIs(1000);
            side->config->periodicEnabledIs(false);
            side->config->pdusPerOpportunityIs(1000);
            side->config->maxAttributesPerTypeIs(1000);
            if (side->engine->standbyMode()) side->standbyIs(false);
            for (const IntfId port : side->ports) side->app.enable(port);
        }
    }

    void settle(Runtime::Duration span) {
        net_.loop.runFor(span);
        net_.loop.settle();
        for (Bridge* side : sides_) checkBooks(*side);
        seeds_ = 0;
        for (; judged_ < net_.wire.frames.size(); ++judged_) {
            const auto& [intf, pdu] = net_.wire.frames[judged_];
            checkSent(pdu);
            ++sent_[intf];
        }
        for (Bridge* side : sides_) {
            for (const IntfId port : side->ports) checkCounters(*side->status->intf(port), port);
        }
    }
    template <class Visit>
    void eachAttribute(Visit&& visit) {
        for (Bridge* side : sides_) {
            for (const IntfId port : side->ports) side->app.each(port, visit);
        }
    }
    /// The engine has what the application was told and what it asked for, and no more than the limit allows,
    /// except what was there before the limit came down and what was taken over.
    void checkBooks(const Bridge& side) {
        App::Books declared;
        App::Books held;
        for (const IntfId port : side.ports) {
            std::array<std::size_t, Mrp::maxTypes> registered{};
            side.app.each(port, [&](const App::Name& name, const Mrp::Attribute& attribute) {
                if (Mrp::isMember(attribute.applicant)) declared[name] = attribute.own();
                if (attribute.held) held[name] = attribute.accepted();
                if (attribute.registered()) ++registered.at(std::get<1>(name) - 1U);
                check(attribute.registered() || !(attribute.held || attribute.refused),
                      "held, not registered");
            });
            for (std::size_t i = 0; i < registered.size(); ++i) {
                const auto limit =
                    std::max<std::size_t>(before_[port].registered[i], side.config->maxAttributesPerType()) +
                    seeds_;
                check(registered[i] <= limit, registered[i], " attributes of a type where ", limit,
                      " may be");
            }
            before_[port].registered = registered;
        }
        check(declared == side.app.declared, "the engine declares something else than the application");
        check(held == side.app.held, "the engine holds something else than the application knows");
    }
    /// Nothing is counted backwards, and every frame is counted once.
    void checkCounters(const Mrp::MrpIntfStatus& counts, IntfId port) {
        check(counts.rxPdus() == net_.wire.delivered[port], counts.rxPdus(), " frames counted of ",
              net_.wire.delivered[port], " received");
        check(counts.txPdus() == sent_[port], counts.txPdus(), " frames counted of ", sent_[port], " sent");
        std::vector<std::uint64_t> now{counts.refusedJoins(), counts.rangeErrors(),
                                       counts.droppedRegistrations()};
        for (const auto& kind : Mrp::eventNames)
            now.insert(now.end(), {counts.rxEvents(kind.value), counts.txEvents(kind.value)});
        for (const auto& reason : Mrp::malformedNames) now.push_back(counts.malformed(reason.value));
        auto& before = before_[port].counters;
        before.resize(now.size());
        check(std::ranges::equal(now, before, std::greater_equal<>{}), "a counter went backwards");
        before = std::move(now);
    }

    Input in_;
    Pair net_;
    const std::array<Bridge*, 2> sides_{&net_.a, &net_.b};
    std::size_t lose_ = 0;  ///< frames between the two that are still to be lost
    std::size_t judged_ = 0;
    std::size_t seeds_ = 0;  ///< since the books were checked
    std::map<IntfId, std::uint64_t> sent_;
    std::map<IntfId, Before> before_;
    TimeBudget time_{20s};
};

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Script{Fuzz::Input{{data, size}}}.run();
    return 0;
}
