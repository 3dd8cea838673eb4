/// A whole bridge with a hostile peer on one port: it must harm nobody else's reservation, and nothing of it
/// must be left when it falls silent.
#include "Runtime/VirtualLoop.h"
#include "Sim/MrpPeer.h"
#include "fuzz/Check.h"
#include "fuzz/Forwarding.h"
#include "fuzz/Frames.h"
#include "fuzz/Input.h"
#include "fuzz/Sent.h"

#include <algorithm>

namespace Fuzz {
namespace {

using namespace std::chrono_literals;

constexpr int maxSteps = 60;

class Script {
public:
    explicit Script(Input in) : in_{in} {
        bridge_.ports().cableIs(p3_, [](const Sim::Pdu& pdu) { checkSent(pdu); });
        bridge_.cliConfig->srClassBBandwidthPercentIs(20);
        bridge_.mrpConfig->leaveAllTimeIs(2000);
        bridge_.mrpConfig->maxAttributesPerTypeIs(64);
        bridge_.start();
        for (Sim::MrpPeer* peer : {&peer1_, &peer2_}) {
            for (const Sim::Say& say : Sim::domains()) peer->declare(say);
        }
        // A stream of class A from left to right and one of class B back.
        peer1_.declare(Sim::advertise({.id = 1}));
        peer2_.declare(Sim::listener(1, Msrp::ListenerState::Ready));
        peer2_.declare(Sim::advertise({.id = 2, .macDa = 0x91e0f0000002, .priority = 2}));
        peer1_.declare(Sim::listener(2, Msrp::ListenerState::Ready));
        loop_.runFor(500ms);
        checkAll();
    }

    void run() {
        for (int step = 0; step < maxSteps && !in_.empty(); ++step) {
            act();
            loop_.settle();
            checkAll();
        }
        restore();
        // LeaveAll rounds of 1 to 1.5 s, the leave time after each, and the reviews.
        loop_.runFor(5s);
        checkAll();
        checkNothingIsLeft();
    }

private:
    /// Frames and time, and what an operator may do with the port.
    void act() {
        const std::size_t op = in_.pick(32);
        if (op == 0) return bridge_.linkIs("p3", linkUp_ = !linkUp_);
        if (op == 1) return bridge_.speedIs("p3", static_cast<Interface::Speed>(in_.pick(13)));
        if (op == 2) return bridge_.config->intfEnableIs(p3_, !bridge_.config->intfEnable(p3_));
        if (op == 3) return bridge_.vlanIs(2, "p3", in_.pick(2) == 0);
        if (op == 4) return bridge_.vlanDel(2, "p3");
        if (op < 10) return time_.spend(loop_, op < 9 ? 4 * in_.u8() : in_.u16() % 4000);
        // A good part of the agent lies behind the domains.
        hear(op == 10 ? Sim::pdusOf(Sim::domains()).front() : frame(in_));
    }

    void hear(const Sim::Pdu& pdu) {
        if (linkUp_) bridge_.ports().deliver(p3_, pdu);
    }
    /// The port as it was, with a peer that says no more.
    void restore() {
        bridge_.linkIs("p3", true);
        bridge_.speedIs("p3", Interface::Speed::speed1Gbps);
        bridge_.vlanIs(2, "p3", true);
        bridge_.config->intfEnableIs(p3_, true);
        bridge_.mrpConfig->leaveAllTimeIs(1000);
    }

    void checkAll() {
        checkForwarding(bridge_);
        for (const IntfId intf : {p1_, p2_, p3_}) checkDeclarations(bridge_, intf);
        checkReserved(1, p1_, peer1_, p2_, peer2_);
        checkReserved(2, p2_, peer2_, p1_, peer1_);
        for (const IntfId intf : {p1_, p2_, p3_}) checkLimit(intf);
    }
    /// The stream flows, and both of its ends know.
    void checkReserved(std::uint64_t id, IntfId from, const Sim::MrpPeer& talker, IntfId to,
                       const Sim::MrpPeer& listener) {
        const auto stream = bridge_.agent().msrpSm()->streamList(id);
        check(stream && stream->ingressIntf() == from, "stream ", id, " has lost its talker");
        check(stream->ethGroup() && stream->ethGroup()->intf(to), "stream ", id,
              " does not reach its listener");
        const auto answer = talker.registered().find({Msrp::typeListener, id});
        check(answer != talker.registered().end() && !answer->second.ends_with("AskingFailed"),
              "the talker of stream ", id, " has lost its listener");
        check(listener.registered().contains({Msrp::typeTalkerAdvertise, id}), "the listener of stream ", id,
              " has lost its talker");
    }
    void checkLimit(IntfId intf) {
        std::array<std::size_t, Mrp::maxTypes> registered{};
        bridge_.agent().mrpSm()->eachAttribute(
            intf, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
                if (attribute.registered()) ++registered[ref.typeIndex];
            });
        for (const std::size_t count : registered)
            check(count <= bridge_.mrpConfig->maxAttributesPerType(),
                  "more attributes than the limit allows");
    }

    void checkNothingIsLeft() {
        Msrp::MsrpSm& sm = *bridge_.agent().msrpSm();
        check(sm.streamList().size() == 2, sm.streamList().size(), " streams are left, not 2");
        check(bridge_.status->registeredStreams().size() == 2, "a stream is still published");
        // A stream that was refused while its advertise was passed on keeps its place under the talker's
        // port.
        bridge_.waiting->bandwidthFailedIntf().each([&](IntfId intf, const Msrp::BwFailedIntf& queue) {
            for (const auto& [index, entry] : queue.entry()) {
                const auto stream = sm.streamList(entry.streamId);
                check(stream && stream->ingressIntf() == intf, "a stream still waits for bandwidth");
            }
        });
        check(bridge_.waiting->macDaBlocked().empty(), "a stream still waits for its address");
        check(sm.addPendingStream().empty() && sm.deletePendingStream().empty(),
              "a stream is still about to be published or withdrawn");
        for (const auto& [id, stream] : sm.streamList()) {
            check(stream->listenerStateOrig(p3_) == Msrp::ListenerState::Ignore &&
                      stream->listenerState(p3_) == Msrp::ListenerState::Ignore,
                  "a silent peer still listens to stream ", id);
            check(stream->ethGroup()->intf().size() == 1, "stream ", id, " still goes to a silent peer");
        }
        bridge_.agent().mrpSm()->eachAttribute(
            p3_, [](const Mrp::AttributeRef&, const Mrp::Attribute& attribute) {
                check(!attribute.registered(), "a silent peer's attribute is still registered");
            });
        // Two domains, the stream that the peer listens to, and the listener of the one that it talks.
        for (const Sim::MrpPeer* peer : {&peer1_, &peer2_})
            check(peer->registered().size() == 4, "an honest peer has ", peer->registered().size(),
                  " registrations, not 4");
    }

    Input in_;
    Runtime::VirtualLoop loop_;
    Sim::Bridge bridge_{loop_, {"p1", "p2", "p3"}};
    Sim::MrpPeer peer1_{loop_, bridge_, "p1", 1};
    Sim::MrpPeer peer2_{loop_, bridge_, "p2", 2};
    const IntfId p1_{"p1"}, p2_{"p2"}, p3_{"p3"};
    bool linkUp_ = true;
    TimeBudget time_{15s};
};

}  // namespace
}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Script{Fuzz::Input{{data, size}}}.run();
    return 0;
}
