/// What must always hold, whatever happens to a bridge: checked after every step of many random lives, and
/// again when all has gone quiet.  RANDOM_LIVES (number of seeds) and RANDOM_SEED (the first) may be set in
/// the environment.
#include "Msrp/bandwidth/Admission.h"
#include "Msrp/types/Format.h"
#include "tests/scenarios/LiveMemory.h"
#include "tests/scenarios/RandomLife.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

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

/// Groups are what admission made of them, allocations are their sum, and queues have their rates.
void checkForwarding(RandomLife& life) {
    Bridge& bridge = life.bridge;
    const auto& sm = *bridge.agent().msrpSm();
    std::map<std::pair<IntfId, SrClassId>, std::uint64_t> admitted;
    std::set<const void*> groups;
    for (const auto& [id, stream] : sm.streamList()) {
        const auto group = stream->ethGroup();
        if (!group) continue;
        ASSERT_TRUE(groups.insert(group.get()).second) << "two streams share a group: " << id;
        ASSERT_FALSE(group->intf().empty()) << "an empty group: " << id;
        for (const auto& [intf, member] : group->intf()) {
            ASSERT_TRUE(bridge.status->intfStatus(intf)) << "a port without MSRP in a group: " << id;
            if (intf == stream->ingressIntf()) {
                ASSERT_EQ(group->intf().size(), 1U) << "the talker's port beside listeners: " << id;
            } else {
                ASSERT_TRUE(Msrp::wantsStream(stream->listenerState(intf))) << id << ' ' << intf.name();
                ASSERT_EQ(sm.getTalkerState(*stream, intf), TalkerState::Advertise)
                    << id << ' ' << intf.name();
                admitted[{intf, stream->srClass()}] += stream->bandwidth();
            }
        }
    }
    std::size_t inRecord = 0;
    bridge.groupConfig->fdbConfig().each([&](VlanId, const auto& fdb) { inRecord += fdb.ethGroup().size(); });
    ASSERT_EQ(inRecord, groups.size()) << "a group without a stream";
    const double factor = bridge.cliConfig->shapeRateFactor();
    bridge.status->intfStatus().each([&](IntfId intf, const Msrp::IntfStatus& status) {
        const auto config = bridge.queues->intfConfig(intf);
        for (const SrClassId srClass : Msrp::bothClasses) {
            const std::uint64_t allocated = status.classBandwidthAllocated(srClass);
            ASSERT_EQ(allocated, (admitted[{intf, srClass}])) << intf.name();
            const auto queue = config ? config->txQueueConfig(sm.getAvbQueue(srClass)) : nullptr;
            ASSERT_EQ(queue != nullptr, allocated != 0 && !bridge.cliConfig->shapingDisabled())
                << intf.name();
            if (queue) {
                ASSERT_EQ(queue->shapeRate().rate.value(),
                          static_cast<std::uint64_t>(static_cast<double>(allocated) * factor));
            }
        }
    });
    bridge.queues->intfConfig().each(
        [&](IntfId intf, const auto&) { ASSERT_TRUE(bridge.status->intfStatus(intf)); });
}

struct Declaration {
    std::uint8_t type;
    std::uint64_t key;
    unsigned detail;  ///< a Talker Failed's code or a Listener's state
    auto operator<=>(const Declaration&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Declaration& d) {
        return out << "type " << unsigned{d.type} << " key " << d.key << " detail " << d.detail;
    }
};

/// What the agent believes it declares on a port, but for the domains.
std::set<Declaration> believed(RandomLife& life, IntfId intf) {
    std::set<Declaration> all;
    const auto& sm = *life.bridge.agent().msrpSm();
    for (const auto& [id, stream] : sm.streamList()) {
        if (intf == stream->ingressIntf()) {
            const ListenerState state = stream->listenerState(intf);
            if (state != ListenerState::Ignore) all.insert({Msrp::typeListener, id, Msrp::number(state)});
        } else if (sm.getTalkerState(*stream, intf) == TalkerState::Advertise) {
            all.insert({Msrp::typeTalkerAdvertise, id, 0});
        } else if (sm.getTalkerState(*stream, intf) == TalkerState::Failed) {
            all.insert({Msrp::typeTalkerFailed, id, Msrp::number(stream->talkerFailureCode(intf))});
        }
    }
    return all;
}

/// What the port's applicants declare.
std::set<Declaration> applied(RandomLife& life, IntfId intf) {
    std::set<Declaration> all;
    life.bridge.agent().mrpSm()->eachAttribute(
        intf, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
            if (!Mrp::isMember(attribute.applicant)) return;
            const auto type = static_cast<std::uint8_t>(ref.typeIndex + 1);
            if (type == Msrp::typeDomain) return;
            unsigned detail = 0;
            if (type == Msrp::typeTalkerFailed)
                detail = Msrp::number(Msrp::MsrpTalkerFailedAttribute{attribute.own().octets}.failureCode());
            if (type == Msrp::typeListener) detail = attribute.own().declaration;
            all.insert({type, ref.key, detail});
        });
    return all;
}

/// What the peer has registered.
std::set<Declaration> heard(const MrpPeer& peer) {
    std::set<Declaration> all;
    for (const auto& [name, text] : peer.registered()) {
        unsigned detail = 0;
        if (const auto code = text.find(" code "); name.first == Msrp::typeTalkerFailed)
            detail = static_cast<unsigned>(std::stoul(text.substr(code + 6)));
        if (name.first == Msrp::typeListener) {
            for (const ListenerState state :
                 {ListenerState::AskingFailed, ListenerState::Ready, ListenerState::ReadyFailed}) {
                if (text.ends_with(' ' + State::enumText(state))) detail = Msrp::number(state);
            }
        }
        if (name.first != Msrp::typeDomain) all.insert({name.first, name.second, detail});
    }
    return all;
}

/// What one side has and the other has not; empty when they agree.
std::string difference(const std::set<Declaration>& have, const std::set<Declaration>& want) {
    std::ostringstream out;
    for (const Declaration& d : have) {
        if (!want.contains(d)) out << " too much: " << d;
    }
    for (const Declaration& d : want) {
        if (!have.contains(d)) out << " lacks: " << d;
    }
    return out.str();
}

void checkDeclarations(RandomLife& life) {
    for (const std::string& port : life.ports)
        ASSERT_EQ(difference(applied(life, IntfId{port}), believed(life, IntfId{port})), "") << port;
}

void checkAll(RandomLife& life) {
    ASSERT_NO_FATAL_FAILURE(checkForwarding(life));
    ASSERT_NO_FATAL_FAILURE(checkDeclarations(life));
}

/// Holds when nothing is on its way.
void checkPeers(RandomLife& life) {
    for (std::size_t i = 0; i < life.ports.size(); ++i)
        ASSERT_EQ(difference(heard(*life.peers[i]), believed(life, IntfId{life.ports[i]})), "")
            << life.ports[i];
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
                stream->ethGroup()->intf(port)) {
                continue;
            }
            const bool fits =
                sm.checkBandwidthAvailability(port, id, stream->srClass(), stream->bandwidth()) ==
                TalkerFailureCode::noFailure;
            if (!fits) continue;
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
    EXPECT_EQ(bridge.streams(), "");
    EXPECT_TRUE(bridge.status->registeredStreams().empty());
    EXPECT_EQ(bridge.groups(), "")
        << "an empty VLAN may stay: that of a talker that changed to it and failed";
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
        if (i == steps) life.restore();
        life.step(i >= steps);
        SCOPED_TRACE("step " + std::to_string(i) + ": " + life.last());
        ASSERT_NO_FATAL_FAILURE(checkAll(life));
    }
    life.quiet();
    ASSERT_NO_FATAL_FAILURE(checkAll(life));
    ASSERT_NO_FATAL_FAILURE(checkPeers(life));
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
    std::size_t afterFirst = 0;
    for (int i = 0; i < 20; ++i) {
        ASSERT_NO_FATAL_FAILURE(live(life));
        life.bridge.logClear();
        if (i == 0) afterFirst = liveOctets();
    }
    // Timers under way and room kept for use again come and go by some 20,000 octets.
    EXPECT_LE(liveOctets(), afterFirst + 60'000);
}

}  // namespace
}  // namespace Sim
