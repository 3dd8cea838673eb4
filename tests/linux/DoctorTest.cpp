#include "Linux/doctor/Doctor.h"

#include <gtest/gtest.h>

namespace {

using Linux::Ability;
using Linux::DoctorFacts;

/// Nothing is wrong with this one.
DoctorFacts soundFacts() {
    DoctorFacts facts;
    facts.bridge = "br0";
    facts.device.emplace();
    facts.device->up = true;
    auto& bridge = facts.device->bridgeSettings.emplace();
    bridge.vlanFiltering = bridge.multicastSnooping = true;
    bridge.multicastTableSize = 4096;
    bridge.groupForwardingMask = 1;
    DoctorFacts::Port port;
    port.device.name = "swp1";
    port.device.up = port.device.operational = true;
    port.device.txQueues = 3;
    port.device.mode.megabitsPerSecond = 100;
    port.vlans.member.set(2);
    port.vlans.tagged.set(2);
    port.queueKind = "mqprio";
    port.queueHandle = facts.ownQueueHandle;
    facts.ports.push_back(port);
    return facts;
}

std::string text(const std::vector<Linux::Finding>& findings) {
    std::string all;
    for (const auto& finding : findings) {
        all += (all.empty() ? "" : "; ") + std::string{State::enumText(finding.severity)} + ' ' +
               finding.device + ' ' + std::string{finding.check} + ": " + finding.command;
    }
    return all;
}

TEST(Doctor, FindsWhatKeepsABridgeFromCarryingStreams) {
    struct Subject {
        DoctorFacts& facts;
        DoctorFacts::Port& port;
        Linux::BridgeSettings& bridge;
    };
    struct Case {
        void (*spoil)(Subject s);
        const char* found;
    };
    // Those that the end-to-end test mends are not here.
    const auto cases = std::to_array<Case>({
        {[](Subject s) { (void)s; }, ""},
        {[](Subject s) { s.facts.device->bridgeSettings.reset(); }, "fault br0 bridge: "},
        {[](Subject s) { s.facts.ports.clear(), s.facts.bridge = "b'r;0"; },
         "fault b'r;0 ports: ip link set dev PORT master 'b'\\''r;0'"},
        {[](Subject s) { s.facts.groups = 3841; },
         "warning br0 groups: ip link set dev br0 type bridge mcast_hash_max 8192"},
        {[](Subject s) { s.bridge.vlanFiltering = false, s.port.vlans = {}; },
         "note br0 vlanFiltering: ip link set dev br0 type bridge vlan_filtering 1"},
        {[](Subject s) { s.bridge.vlanFiltering = false, s.facts.abilities.vlanFiltering = Ability::absent; },
         "note br0 vlanFiltering: "},
        {[](Subject s) { s.port.device.operational = false; }, "note swp1 link: "},
        {[](Subject s) { s.port.vlans.blocked.set(2); }, "note swp1 vlan: "},
        {[](Subject s) { s.facts.time = std::make_shared<Switch::TimeStatus>(); }, "note swp1 time: "},
        {[](Subject s) { s.facts.clockProblem = "it does not answer"; }, "warning br0 time: "},
        {[](Subject s) { s.port.device.mtu = 1499; }, "warning swp1 mtu: ip link set dev swp1 mtu 1500"},
        {[](Subject s) { s.port.device.mtu = 105; }, "fault swp1 mtu: ip link set dev swp1 mtu 1500"},
        {[](Subject s) { s.port.flowControl = true; },
         "warning swp1 flowControl: ethtool -A swp1 autoneg off rx off tx off"},
        {[](Subject s) { s.facts.srVlan = VlanId{7}; }, "fault swp1 vlan: bridge vlan add dev swp1 vid 7"},
        {[](Subject s) { s.port.vlans.tagged.reset(2); }, "fault swp1 vlan: bridge vlan add dev swp1 vid 2"},
        {[](Subject s) { s.port.queueKind = "fq"; }, "fault swp1 queues: tc qdisc del dev swp1 root"},
        {[](Subject s) { s.port.device.inSwitchChip = true; },
         "warning swp1 fence: ; note swp1 switchChip: "},
        {[](Subject s) { s.port.device.inSwitchChip = true, s.port.device.txQueues = 2; },
         "warning swp1 fence: ; fault swp1 switchChip: "},
        {[](Subject s) { s.port.router = true; },
         "warning swp1 router: bridge link set dev swp1 mcast_router 0"},
        {[](Subject s) { s.facts.notOffloaded = 1; }, "fault br0 offload: "},
        {[](Subject s) { s.port.device.txQueues = 2; }, "warning swp1 transmitQueues: "},
        {[](Subject s) { s.port.device.txQueues = 2, s.facts.abilities.htb = Ability::absent; },
         "fault swp1 transmitQueues: "},
        {[](Subject s) { s.port.device.txQueues = 2, s.facts.abilities.cbs = Ability::absent; },
         "warning  shaping: modprobe -a sch_mqprio sch_cbs sch_ingress cls_flower act_skbedit"},
        {[](Subject s) { s.facts.abilities.mqprio = s.facts.abilities.bpf = Ability::absent; },
         "fault  shaping: modprobe -a sch_mqprio sch_cbs sch_ingress cls_flower act_skbedit"},
        {[](Subject s) { s.facts.abilities.flower = Ability::absent; },
         "warning  shaping: modprobe -a sch_mqprio sch_cbs sch_ingress cls_flower act_skbedit"},
        {[](Subject s) { s.facts.abilities.groups = Ability::absent; }, "fault  groups: "},
    });
    for (const Case& c : cases) {
        DoctorFacts facts = soundFacts();
        c.spoil({facts, facts.ports.front(), *facts.device->bridgeSettings});
        EXPECT_EQ(text(Linux::diagnose(facts)), c.found);
    }
}

}  // namespace
