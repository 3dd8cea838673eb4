/// An engine with a hostile peer on one port and another engine on the other: frames of any content, time,
/// requests, ports that come and go and configuration that changes, in the order that the input says.
#include "Runtime/VirtualLoop.h"
#include "fuzz/Check.h"
#include "fuzz/Engine.h"
#include "fuzz/Frames.h"
#include "fuzz/Input.h"

#include <algorithm>

namespace Fuzz {
namespace {

using namespace std::chrono_literals;

constexpr int maxSteps = 100;
constexpr Runtime::Duration maxTime = 20s;

class Script {
public:
    explicit Script(Input in) : in_{in} {
        a_.cableIs(a2_, [this](const Sim::Pdu& pdu) { pass(b_, b1_, pdu); });
        b_.cableIs(b1_, [this](const Sim::Pdu& pdu) { pass(a_, a2_, pdu); });
        const std::uint8_t setup = in_.u8();
        a_.temperIs(setup % 16);
        b_.temperIs(setup / 16);
        a_.config->maxAttributesPerTypeIs(64);
        b_.config->maxAttributesPerTypeIs(64);
    }

    void run() {
        for (int step = 0; step < maxSteps && !in_.empty(); ++step) {
            act();
            loop_.settle();
            checkBooks();
        }
        calm();
        // LeaveAll rounds of 1 to 1.5 s, and the leave time after each.
        wait(4s);
        checkAgreement();
        a_.withdrawAll();
        b_.withdrawAll();
        wait(2500ms);
        check(a_.attributes(a1_) + a_.attributes(a2_) + b_.attributes(b1_) == 0,
              "attributes are left when nobody declares any");
    }

private:
    void act() {
        const std::uint8_t what = in_.u8();
        Engine& engine = what < 192 ? a_ : b_;
        const IntfId intf = what >= 192 ? b1_ : what < 128 ? a1_ : a2_;
        switch (what % 32) {
            case 1:
            case 2:
            case 3:
                return engine.declare(intf, say(in_));
            case 4:
            case 5:
                return engine.withdraw(intf, say(in_));
            case 6: {
                const Sim::Say name = say(in_);
                return engine.purge(intf, name.type,
                                    Msrp::application().types[name.type - 1U].key(name.value));
            }
            case 7:
                return engine.forget(intf, say(in_));
            case 8:
                return engine.purgeAll(intf);
            case 9:
                return engine.enabledIs(intf, !engine.enabled(intf));
            case 10:
                engine.disable(intf);
                return engine.enable(intf);
            case 11:
                return engine.seed(intf, say(in_));
            case 12:
                return engine.standbyIs(!engine.standby());
            case 13:
                return engine.sendLeaveAll(intf);
            case 14:
                return engine.linkIs(intf, in_.pick(2) == 0);
            case 15:
                return configure(*engine.config);
            case 16:
                lose_ = in_.pick(16);
                return;
            case 17:
                return engine.temperIs(static_cast<std::uint8_t>(in_.pick(16)));
            case 18:
                return spend(std::chrono::milliseconds{in_.u16() % 4000});
            case 19:
            case 20:
            case 21:
                return spend(std::chrono::milliseconds{8 * in_.u8()});
            default:
                return engine.hear(intf, frame(in_));
        }
    }

    void configure(Mrp::MrpConfig& config) {
        switch (in_.pick(6)) {
            case 0:
                return config.joinTimeIs(10 + 4 * in_.u8());
            case 1:
                return config.leaveTimeIs(100 + 8 * in_.u8());
            case 2:
                return config.leaveAllTimeIs(1000 + 16 * in_.u8());
            case 3:
                return config.periodicEnabledIs(in_.pick(2) == 1);
            case 4:
                return config.pdusPerOpportunityIs(1 + static_cast<std::uint32_t>(in_.pick(4)));
            default:
                return config.maxAttributesPerTypeIs(1 + static_cast<std::uint32_t>(in_.pick(64)));
        }
    }

    void spend(Runtime::Duration span) {
        span = std::min(span, maxTime - spent_);
        spent_ += span;
        loop_.runFor(span);
    }

    /// The frames stop, and everybody is well disposed.
    void calm() {
        lose_ = 0;
        for (Engine* engine : {&a_, &b_}) {
            engine->temperIs(0);
            engine->config->joinTimeIs(200);
            engine->config->leaveTimeIs(600);
            engine->config->leaveAllTimeIs(1000);
            engine->config->periodicEnabledIs(false);
            engine->config->pdusPerOpportunityIs(1000);
            engine->config->maxAttributesPerTypeIs(1000);
            if (engine->standby()) engine->standbyIs(false);
        }
        a_.enable(a1_);
        a_.enable(a2_);
        b_.enable(b1_);
    }
    void wait(Runtime::Duration span) {
        loop_.runFor(span);
        checkBooks();
    }

    void checkBooks() {
        a_.checkBooks();
        b_.checkBooks();
    }

    /// Each of the two engines has registered what the other one declares, and nothing is left of the frames.
    void checkAgreement() {
        check(a_.registrations(a1_) == 0, a_.registrations(a1_), " registrations of a silent peer are left");
        check(agree(a_, a2_, b_, b1_), "the second engine has not registered what the first one declares");
        check(agree(b_, b1_, a_, a2_), "the first engine has not registered what the second one declares");
    }
    static bool agree(const Engine& declarer, IntfId from, const Engine& registrar, IntfId to) {
        Engine::Books said;
        for (const auto& [name, value] : declarer.declared()) {
            const auto& [intf, type, key] = name;
            if (intf == from) said[{to, type, key}] = value;
        }
        Engine::Books heard = registrar.held();
        std::erase_if(heard, [to](const auto& entry) { return std::get<0>(entry.first) != to; });
        return said == heard;
    }

    void pass(Engine& to, IntfId intf, const Sim::Pdu& pdu) {
        if (lose_ > 0) {
            --lose_;
        } else {
            to.hear(intf, pdu);
        }
    }

    Input in_;
    Runtime::VirtualLoop loop_;
    const IntfId a1_{"a1"}, a2_{"a2"}, b1_{"b1"};
    Engine a_{loop_, {a1_, a2_}, 1};
    Engine b_{loop_, {b1_}, 2};
    std::size_t lose_ = 0;  ///< frames between the two that are still to be lost
    Runtime::Duration spent_{0};
};

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Script{Fuzz::Input{{data, size}}}.run();
    return 0;
}
