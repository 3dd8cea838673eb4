/// Random lives of a bridge with 4 ports and 200 streams: talkers, listeners, links, speeds, VLANs and
/// configuration come and go, and what must always hold is checked after every step and again when all has
/// gone quiet. RANDOM_LIVES (number of seeds) and RANDOM_SEED (the first) may be set in the environment.
#include "Msrp/types/Format.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/MrpPeer.h"

#include <array>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <set>

namespace Sim {
namespace {

using Msrp::ListenerState;
using Msrp::SrClassId;
using Msrp::TalkerState;
using namespace std::chrono_literals;

constexpr std::size_t streams = 200;
constexpr int steps = 500;

class Life {
public:
    explicit Life(std::uint64_t seed) : random_{seed} {
        for (const std::string& port : ports_)
            peers_.push_back(std::make_unique<MrpPeer>(loop_, bridge_, port, seed++));
        bridge_.cliConfig->srClassBBandwidthPercentIs(20);
        bridge_.mrpConfig->leaveAllTimeIs(3000);
        bridge_.start();
        for (const auto& peer : peers_) declareDomains(*peer);
    }

    void step() {
        const auto port = pick(ports_.size());
        MrpPeer& peer = *peers_[port];
        const std::uint64_t id = 1 + pick(streams);
        switch (pick(100)) {
            default:
                if (pick(5) == 0) {
                    peer.withdraw(advertise(talker(id)));
                    peer.declare(failed(talker(id), static_cast<std::uint8_t>(1 + pick(20))));
                } else {
                    peer.withdraw(failed(talker(id), 0));
                    peer.declare(advertise(talker(id)));
                }
                break;
            case 30:
            case 31:
            case 32:
            case 33:
            case 34:
            case 35:
            case 36:
            case 37:
            case 38:
            case 39:
            case 40:
            case 41:
            case 42:
            case 43:
            case 44:
                peer.withdraw(advertise(talker(id)));
                peer.withdraw(failed(talker(id), 0));
                break;
            case 45:
            case 46:
            case 47:
            case 48:
            case 49:
            case 50:
            case 51:
            case 52:
            case 53:
            case 54:
            case 55:
            case 56:
            case 57:
            case 58:
            case 59:
            case 60:
            case 61:
            case 62:
            case 63:
            case 64:
            case 65:
            case 66:
            case 67:
            case 68:
            case 69:
                peer.declare(listener(id, static_cast<ListenerState>(1 + pick(3))));
                break;
            case 70:
            case 71:
            case 72:
            case 73:
            case 74:
            case 75:
            case 76:
            case 77:
            case 78:
            case 79:
                peer.withdraw(listener(id, ListenerState::Ready));
                break;
            case 80:
                linkIs(port, false);
                break;
            case 81:
            case 82:
                linkIs(port, true);
                break;
            case 83:
                bridge_.speedIs(ports_[port],
                                pick(2) == 0 ? Interface::Speed::speed100Mbps : Interface::Speed::speed1Gbps);
                break;
            case 84:
                bridge_.vlanDel(2, ports_[port]);
                break;
            case 85:
            case 86:
                bridge_.vlanIs(2, ports_[port], pick(4) != 0);
                break;
            case 87:
                bridge_.cliConfig->srClassABandwidthPercentIs(static_cast<std::uint8_t>(pick(80)));
                break;
            case 88:
                bridge_.cliConfig->srClassBSupportedIs(pick(3) != 0);
                break;
            case 89:
                bridge_.cliConfig->srClassASupportedIs(pick(5) != 0);
                break;
            case 90:
                bridge_.config->intfEnableIs(IntfId{ports_[port]}, pick(3) != 0);
                break;
            case 91:
                bridge_.config->intfEnableDel(IntfId{ports_[port]});
                break;
            case 92:
                bridge_.config->intfEnableIs(IntfId{ports_[port]}, true);
                break;
            case 93:
                peer.declare(domain(SrClassId::SrClassA, static_cast<std::uint8_t>(3 + pick(2))));
                break;
            case 94:
                declareDomains(peer);
                break;
            case 95:
                peer.withdraw(domain(SrClassId::SrClassB, 2));
                break;
            case 96:
                bridge_.cliConfig->shapeRateFactorIs(1.0 + static_cast<double>(pick(3)));
                break;
            case 97:
                bridge_.cliConfig->maxFrameSizeLimitIs(pick(4) == 0 ? 500 : 1500);
                break;
            case 98:
                bridge_.cliConfig->srPvidIs(IntfId{ports_[port]}, static_cast<std::uint16_t>(2 + pick(2)));
                break;
            case 99:
                loop_.runFor(std::chrono::seconds{pick(6)});
                break;
        }
        if (pick(3) == 0) loop_.runFor(std::chrono::milliseconds{pick(400)});
    }

    /// Everything as it was at the start, but for the talkers and listeners.
    void restore() {
        for (std::size_t port = 0; port < ports_.size(); ++port) {
            bridge_.config->intfEnableIs(IntfId{ports_[port]}, true);
            bridge_.vlanIs(2, ports_[port], true);
            bridge_.speedIs(ports_[port], Interface::Speed::speed1Gbps);
            linkIs(port, true);
            declareDomains(*peers_[port]);
        }
        bridge_.cliConfig->srClassASupportedIs(true);
        bridge_.cliConfig->srClassBSupportedIs(true);
        bridge_.cliConfig->srClassABandwidthPercentIs(75);
    }
    void withdrawAll() {
        for (const auto& peer : peers_) {
            for (std::uint64_t id = 1; id <= streams; ++id) {
                peer->withdraw(advertise(talker(id)));
                peer->withdraw(failed(talker(id), 0));
                peer->withdraw(listener(id, ListenerState::Ready));
            }
        }
    }
    void quiet() { loop_.runFor(20s); }

    /// What must hold after every step.
    void check() {
        const auto& sm = *bridge_.agent().msrpSm();
        std::map<std::pair<IntfId, SrClassId>, std::uint64_t> admitted;
        std::set<const void*> groups;
        for (const auto& [id, stream] : sm.streamList()) {
            const auto group = stream->ethGroup();
            if (!group) continue;
            ASSERT_TRUE(groups.insert(group.get()).second) << "two streams share a group: " << id;
            ASSERT_FALSE(group->intf().empty()) << "an empty group: " << id;
            for (const auto& [intf, member] : group->intf()) {
                ASSERT_TRUE(bridge_.status->intfStatus(intf)) << "a port without MSRP in a group: " << id;
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
        bridge_.groupConfig->fdbConfig().each(
            [&](VlanId, const auto& fdb) { inRecord += fdb.ethGroup().size(); });
        ASSERT_EQ(inRecord, groups.size()) << "a group without a stream";
        const double factor = bridge_.cliConfig->shapeRateFactor();
        bridge_.status->intfStatus().each([&](IntfId intf, const Msrp::IntfStatus& status) {
            const auto config = bridge_.queues->intfConfig(intf);
            for (const SrClassId srClass : Msrp::bothClasses) {
                const std::uint64_t allocated = status.classBandwidthAllocated(srClass);
                ASSERT_EQ(allocated, (admitted[{intf, srClass}])) << intf.name();
                const auto queue = config ? config->txQueueConfig(sm.getAvbQueue(srClass)) : nullptr;
                ASSERT_EQ(queue != nullptr, allocated != 0) << intf.name();
                if (queue) {
                    ASSERT_EQ(queue->shapeRate().rate.value(),
                              static_cast<std::uint64_t>(static_cast<double>(allocated) * factor));
                }
            }
        });
        bridge_.queues->intfConfig().each(
            [&](IntfId intf, const auto&) { ASSERT_TRUE(bridge_.status->intfStatus(intf)); });
    }

    /// What must hold when nothing is on its way: the agent declares what its peers have registered.
    void checkPeers() {
        const auto& sm = *bridge_.agent().msrpSm();
        for (std::size_t i = 0; i < ports_.size(); ++i) {
            const IntfId intf{ports_[i]};
            std::map<std::pair<std::uint8_t, std::uint64_t>, std::string> declared;
            for (const auto& [id, stream] : sm.streamList()) {
                const std::string hex = Msrp::hexStr(id);
                if (sm.getTalkerState(*stream, intf) != TalkerState::None && intf != stream->ingressIntf()) {
                    const bool isFailed = sm.getTalkerState(*stream, intf) == TalkerState::Failed;
                    declared[{static_cast<std::uint8_t>(isFailed ? 2 : 1), id}] =
                        isFailed ? "Failed 0x" + hex : "Advertise 0x" + hex;
                }
                if (intf == stream->ingressIntf() && stream->listenerState(intf) != ListenerState::Ignore) {
                    declared[{std::uint8_t{3}, id}] =
                        "Listener 0x" + hex + ' ' + State::enumText(stream->listenerState(intf));
                }
            }
            for (const auto& [name, text] : declared) {
                const auto& registered = peers_[i]->registered();
                const auto at = registered.find(name);
                ASSERT_NE(at, registered.end()) << ports_[i] << " lacks " << text;
                ASSERT_TRUE(at->second.starts_with(text))
                    << ports_[i] << ": " << at->second << " for " << text;
            }
            for (const auto& [name, text] : peers_[i]->registered()) {
                if (name.first != Msrp::typeDomain) {
                    ASSERT_TRUE(declared.contains(name)) << ports_[i] << " still holds " << text;
                }
            }
        }
    }

    void expectNothingLeft() {
        EXPECT_EQ(bridge_.streams(), "");
        EXPECT_TRUE(bridge_.status->registeredStreams().empty());
        EXPECT_EQ(bridge_.groups(), "");
        EXPECT_TRUE(bridge_.groupConfig->fdbConfig().empty());
        EXPECT_TRUE(bridge_.queues->intfConfig().empty());
        for (std::size_t i = 0; i < ports_.size(); ++i) {
            EXPECT_EQ(bridge_.allocated(ports_[i], SrClassId::SrClassA), 0U);
            EXPECT_EQ(peers_[i]->registered().size(), 2U) << "the two domains";
            EXPECT_EQ(bridge_.agent().msrpSm()->bandwidthFailedIntf(IntfId{ports_[i]}), nullptr);
        }
        for (std::uint64_t id = 1; id <= streams; ++id) {
            EXPECT_EQ(bridge_.agent().msrpSm()->macDaBlocked(EthAddr::fromNumber(talker(id).macDa)), nullptr);
        }
    }

private:
    std::size_t pick(std::size_t bound) { return random_() % bound; }
    static void declareDomains(MrpPeer& peer) {
        for (const Say& say : domains()) peer.declare(say);
    }
    /// Every stream has one description; some share an address, some are of class B, some are too large at
    /// times.
    static Talker talker(std::uint64_t id) {
        return {.id = id,
                .macDa = 0x91e0f0000000 + (id % 10 == 0 ? 1 : id),
                .maxFrameSize = static_cast<std::uint16_t>(100 + 40 * (id % 30)),
                .frames = static_cast<std::uint16_t>(1 + id % 3),
                .priority = static_cast<std::uint8_t>(id % 4 == 0 ? 2 : 3)};
    }
    void linkIs(std::size_t port, bool up) {
        bridge_.linkIs(ports_[port], up);
        peers_[port]->linkIs(up);
    }

    std::mt19937_64 random_;
    Runtime::VirtualLoop loop_;
    const std::vector<std::string> ports_{"p1", "p2", "p3", "p4"};
    Bridge bridge_{loop_, ports_};
    std::vector<std::unique_ptr<MrpPeer>> peers_;
};

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

TEST(RandomLives, WhatMustHoldHolds) {
    const std::uint64_t first = fromEnvironment("RANDOM_SEED", 1);
    const std::uint64_t lives = fromEnvironment("RANDOM_LIVES", 200);
    for (std::uint64_t seed = first; seed < first + lives; ++seed) {
        SCOPED_TRACE("RANDOM_SEED=" + std::to_string(seed));
        Life life{seed};
        for (int i = 0; i < steps; ++i) {
            SCOPED_TRACE("step " + std::to_string(i));
            life.step();
            ASSERT_NO_FATAL_FAILURE(life.check());
        }
        life.restore();
        life.quiet();
        ASSERT_NO_FATAL_FAILURE(life.check());
        ASSERT_NO_FATAL_FAILURE(life.checkPeers());
        life.withdrawAll();
        life.quiet();
        ASSERT_NO_FATAL_FAILURE(life.check());
        life.expectNothingLeft();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

}  // namespace
}  // namespace Sim
