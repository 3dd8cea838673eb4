/// What must always hold, whatever happens to a bridge: checked after every step of many random lives, and
/// again when all has gone quiet.  RANDOM_LIVES (number of seeds) and RANDOM_SEED (the first) may be set in
/// the environment.
#include "Sim/Invariants.h"
#include "tests/scenarios/LiveMemory.h"
#include "tests/scenarios/RandomLife.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace Sim {
namespace {

using Msrp::ListenerState;
using Msrp::SrClassId;
using Msrp::SrClassState;
using Msrp::TalkerFailureCode;
using Msrp::TalkerState;

constexpr int steps = 500;
/// Thereafter only talkers and listeners change, so that what waits does so for each other alone.
constexpr int calmSteps = 100;

/// What the peer has registered.
Declarations heard(const MrpPeer& peer) {
    Declarations all;
    for (const auto& [name, text] : peer.registered()) {
        unsigned detail = 0;
        if (const auto code = text.find(" code "); name.first == Msrp::typeTalkerFailed)
            detail = static_cast<unsigned>(std::stoul(text.substr(code + 6)));
        for (const auto state :
             {ListenerState::AskingFailed, ListenerState::Ready, ListenerState::ReadyFailed}) {
            if (text.ends_with(' ' + State::enumText(state))) detail = Msrp::number(state);
        }
        if (name.first != Msrp::typeDomain) all.insert({name.first, name.second, detail});
    }
    return all;
}

void checkAll(RandomLife& life) {
    ASSERT_EQ(forwardingFault(life.bridge), "");
    for (const std::string& name : life.ports) {
        const IntfId port{name};
        ASSERT_EQ(difference(applied(life.bridge, port), believed(life.bridge, port)), "") << name;
        // Bandwidth is given out by the speed that the interface's record says.
        const auto status = life.bridge.status->intfStatus(port);
        const auto record = life.bridge.phy->intfStatus(port);
        ASSERT_TRUE(!status || !record || status->speedEnum() == record->speedEnum()) << name;
    }
}

/// Empty when nothing is on its way.
std::string misheard(RandomLife& life, std::size_t port) {
    return difference(heard(*life.peers[port]), believed(life.bridge, IntfId{life.ports[port]}));
}

/// No peer holds what is no longer declared, also without a LeaveAll that would mend it; what has just been
/// withdrawn has its time to leave.
void checkNothingStays(RandomLife& life) {
    for (std::size_t i = 0; i < life.ports.size(); ++i) {
        std::string wrong = "too much";
        for (int look = 0; look < 5 && wrong.starts_with("too much"); ++look) {
            if (look > 0) life.loop.runFor(std::chrono::milliseconds{700});
            wrong = misheard(life, i);
        }
        ASSERT_FALSE(wrong.starts_with("too much")) << life.ports[i] << ' ' << wrong;
    }
}

/// The talker's latest declaration was taken, and nothing is wrong with it at its own port.
bool sound(RandomLife& life, const Msrp::StreamData& stream) {
    const IntfId ingress = stream.ingressIntf();
    if (!ingress || stream.talkerState(ingress) != TalkerState::Advertise ||
        stream.talkerFailureCode(ingress) != TalkerFailureCode::noFailure) {
        return false;
    }
    bool taken = false;
    life.bridge.agent().mrpSm()->eachAttribute(
        ingress, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
            if (ref.typeIndex + 1 == Msrp::typeTalkerAdvertise && ref.key == stream.streamId())
                taken = attribute.held && !attribute.refused;
        });
    return taken;
}

/// Nobody waits for what is there: no sound stream is kept from a port that has everything for it, and no
/// stream waits for an address that nobody holds.
void checkNobodyWaitsInVain(RandomLife& life) {
    Bridge& bridge = life.bridge;
    auto& sm = *bridge.agent().msrpSm();
    for (const auto& [id, stream] : sm.streamList()) {
        const IntfId ingress = stream->ingressIntf();
        if (ingress && stream->talkerFailureCode(ingress) == TalkerFailureCode::destinationAddressInUse) {
            const auto fdb = bridge.groupConfig->fdbConfig(VlanId{stream->vlanId()});
            ASSERT_TRUE(fdb && fdb->ethGroup(stream->macDa())) << id << " waits for an address that is free";
        }
        if (!sound(life, *stream)) continue;
        for (const std::string& name : life.ports) {
            const IntfId port{name};
            const auto status = bridge.status->intfStatus(port);
            if (port == ingress || !status || status->srClassState(stream->srClass()) != SrClassState::Core ||
                sm.checkVlanConfig(port, id, stream->vlanId()) != TalkerFailureCode::noFailure ||
                stream->ethGroup()->intf(port) ||
                sm.checkBandwidthAvailability(port, id, stream->srClass(), stream->bandwidth()) !=
                    TalkerFailureCode::noFailure) {
                continue;
            }
            ASSERT_EQ(stream->talkerState(port), TalkerState::Advertise) << id << " not declared on " << name;
            ASSERT_FALSE(Msrp::wantsStream(stream->listenerStateOrig(port))) << id << " waits on " << name;
        }
    }
}

/// Everything that a further LeaveAll round must leave alone.
std::string summary(RandomLife& life) {
    std::string out = life.bridge.streams() + life.bridge.groups();
    for (const auto& peer : life.peers) {
        for (const auto& [name, text] : peer->registered()) out += text + '\n';
    }
    return out;
}

void expectNothingLeft(RandomLife& life) {
    Bridge& bridge = life.bridge;
    // An empty VLAN may stay: that of a talker that changed to it and failed.
    EXPECT_EQ(bridge.streams() + bridge.groups(), "");
    EXPECT_TRUE(bridge.status->registeredStreams().empty());
    EXPECT_TRUE(bridge.queues->intfConfig().empty());
    EXPECT_TRUE(bridge.waiting->bandwidthFailedIntf().empty());
    EXPECT_TRUE(bridge.waiting->macDaBlocked().empty());
    EXPECT_TRUE(bridge.agent().msrpSm()->addPendingStream().empty());
    for (std::size_t i = 0; i < life.ports.size(); ++i) {
        EXPECT_EQ(bridge.allocated(life.ports[i], SrClassId::SrClassA), 0U);
        EXPECT_EQ(life.peers[i]->registered().size(), 2U) << "the two domains";
        std::size_t attributes = 0;
        bridge.agent().mrpSm()->eachAttribute(IntfId{life.ports[i]},
                                              [&](const auto&, const auto&) { ++attributes; });
        EXPECT_EQ(attributes, 2U) << "the two domains";
    }
}

void live(RandomLife& life) {
    for (int i = 0; i < steps + calmSteps; ++i) {
        if (i == steps) {
            life.restore();
            life.quiet();
            life.bridge.mrpConfig->leaveAllTimeIs(600'000);
        }
        life.step(i >= steps);
        SCOPED_TRACE("step " + std::to_string(i) + ": " + life.last());
        ASSERT_NO_FATAL_FAILURE(checkAll(life));
    }
    for (const bool up : {false, true}) {
        life.cableIs(0, up);
        life.loop.runFor(std::chrono::seconds{2});
        ASSERT_NO_FATAL_FAILURE(checkNothingStays(life));
        ASSERT_EQ(censusFault(life.bridge), "");
    }
    life.bridge.mrpConfig->leaveAllTimeIs(3000);
    life.quiet();
    ASSERT_NO_FATAL_FAILURE(checkAll(life));
    for (std::size_t i = 0; i < life.ports.size(); ++i) ASSERT_EQ(misheard(life, i), "") << life.ports[i];
    ASSERT_NO_FATAL_FAILURE(checkNobodyWaitsInVain(life));
    const std::string before = summary(life);
    life.quiet();
    ASSERT_EQ(summary(life), before) << "one more LeaveAll round makes a difference";
    life.withdrawAll();
    life.quiet();
    ASSERT_NO_FATAL_FAILURE(checkAll(life));
    expectNothingLeft(life);
    ASSERT_FALSE(testing::Test::HasFailure());
}

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

TEST(RandomLives, WhatMustHoldHolds) {
    const std::uint64_t first = fromEnvironment("RANDOM_SEED", 1);
    const std::uint64_t lives = fromEnvironment("RANDOM_LIVES", 200);
    for (std::uint64_t seed = first; seed < first + lives; ++seed) {
        SCOPED_TRACE("RANDOM_SEED=" + std::to_string(seed));
        RandomLife life{seed};
        ASSERT_NO_FATAL_FAILURE(live(life));
    }
}

TEST(RandomLives, MemoryIsWhatItWas) {
    RandomLife life{1};
    std::size_t before = 0;
    for (int i = 0; i < 30; ++i) {
        ASSERT_NO_FATAL_FAILURE(live(life));
        life.bridge.logClear();
        if (i == 10) before = liveOctets();  // by then there is all the room that is kept for use again
    }
    // Timers under way come and go by some 20,000 octets.
    EXPECT_LE(liveOctets(), before + 60'000);
}

}  // namespace
}  // namespace Sim
