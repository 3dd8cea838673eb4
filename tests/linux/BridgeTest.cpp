#include "Linux/bridge/BridgeFacts.h"
#include "Switch/TopologyAgent.h"
#include "Switch/TopologyLibrary.h"
#include "tests/linux/BridgeText.h"
#include "tests/linux/Golden.h"

#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <random>
#include <sys/socket.h>

namespace {

using Linux::BridgeFacts;
using Linux::BridgePortState;
using Linux::VlanTable;

const golden::Recording& vlans() {
    static const golden::Recording recording{"vlans"};
    return recording;
}

void enter(VlanTable& table, const std::vector<golden::Bytes>& messages) {
    for (const auto& message : messages) {
        if (const auto decoded = Linux::decodeVlans(golden::header(message))) Linux::enter(table, *decoded);
    }
}

/// "11: *1- 2+ 10+; 12: *2-": by port's index, VLANs with + for tagged and * for frames without a tag.
std::string text(const VlanTable& table) {
    std::string line;
    for (const auto& [ifindex, port] : table) {
        line += Runtime::concat(line.empty() ? "" : "; ", ifindex, ':');
        for (unsigned id = 0; id < port.member.size(); ++id) {
            const bool pvid = port.pvid && port.pvid->value() == id;
            if (port.member.test(id) || pvid)
                line += Runtime::concat(' ', pvid ? "*" : "", id, port.tagged.test(id) ? '+' : '-',
                                        port.blocked.test(id) ? "!" : "");
        }
    }
    return line;
}

TEST(Vlans, AreReadFromTheDumpsAndNotificationsOfAllKernels) {
    EXPECT_EQ("20000000720001030000000000000000" + golden::hex(Linux::vlanDumpBody()),
              vlans().requests("vlan dump by RTM_GETVLAN").front());
    for (const std::string kernel : {"6.12 ", "6.1 "}) {
        VlanTable table;
        enter(table, vlans().dump(kernel + "vlan dump by RTM_GETVLAN"));
        EXPECT_EQ(
            text(table),
            "10: *1- 2+; 11: *1- 2+ 10+ 11+ 12+ 13+ 14+ 15+ 16+ 17+ 18+ 19+ 20+; 12: 1- 2- *100-; 13: *1-")
            << kernel;
        table.clear();
        const auto after = [&](const std::string& name) {
            enter(table, vlans().notifications(kernel + name));
            return text(table);
        };
        EXPECT_EQ(after("vlan added tagged"), "13: 2+");
        EXPECT_EQ(after("vlan becomes untagged"), "13: 2-");
        EXPECT_EQ(after("vlan range added"), "13: 2- 10+ 11+ 12+");
        EXPECT_EQ(after("vlan deleted"), "13: 10+ 11+ 12+");
        for (const auto& message : vlans().dump(kernel + "vlan dump by RTM_GETVLAN"))
            golden::cutAnywhere(message, [](const nlmsghdr& cut) { (void)Linux::decodeVlans(cut); });
    }
}

/// A message that gives port 7 one stretch of VLANs; `state` 0 to 4.
golden::Bytes vlanMessage(std::uint16_t type, bridge_vlan_info info, std::uint16_t last = 0,
                          std::uint8_t state = BR_STATE_FORWARDING) {
    Linux::NetlinkMessage message{type, 0};
    br_vlan_msg header{};
    header.family = AF_BRIDGE;
    header.ifindex = 7;
    message.part(header).nest(BRIDGE_VLANDB_ENTRY, [&](Linux::NetlinkMessage& entry) {
        entry.attribute(BRIDGE_VLANDB_ENTRY_INFO, info);
        if (last != 0) entry.attribute(BRIDGE_VLANDB_ENTRY_RANGE, last);
        entry.attribute(BRIDGE_VLANDB_ENTRY_STATE, state);
    });
    return {message.bytes().begin(), message.bytes().end()};
}

TEST(Vlans, ThatCannotBeAreLeftOut) {
    constexpr std::uint16_t pvid = BRIDGE_VLAN_INFO_PVID;
    VlanTable table;
    const auto after = [&](const golden::Bytes& message) {
        enter(table, {message});
        return text(table);
    };
    EXPECT_EQ(after(vlanMessage(RTM_NEWVLAN, {pvid, 4})), "7: *4+");
    EXPECT_EQ(after(vlanMessage(RTM_NEWVLAN, {pvid, 5})), "7: 4+ *5+") << "of VLAN 4 nothing is told";
    EXPECT_EQ(after(vlanMessage(RTM_NEWVLAN, {0, 4}, 0, BR_STATE_BLOCKING)), "7: 4+! *5+");
    EXPECT_EQ(after(vlanMessage(RTM_NEWVLAN, {0, 4}, 0, BR_STATE_LEARNING)), "7: 4+! *5+");
    EXPECT_EQ(after(vlanMessage(RTM_NEWVLAN, {0, 4093}, 4094)), "7: 4+! *5+ 4093+ 4094+");
    EXPECT_EQ(after(vlanMessage(RTM_DELVLAN, {0, 1}, 4093)), "7: 4094+");
    for (const auto& [first, last] : {std::pair{0, 3}, {4095, 0}, {9, 8}, {9, 4095}, {0, 0}}) {
        const bridge_vlan_info info{pvid, static_cast<std::uint16_t>(first)};
        EXPECT_EQ(after(vlanMessage(RTM_NEWVLAN, info, static_cast<std::uint16_t>(last))), "7: 4094+");
    }
}

TEST(BridgeFacts, ComeFromTheVlanTableOnlyWhereTheBridgeFilters) {
    std::map<unsigned, Linux::Device> devices;
    VlanTable table;
    for (const unsigned ifindex : {1U, 2U, 3U, 4U, 5U}) {  // the bridge, three ports and one of another
        Linux::Device& device = devices[ifindex];
        device.ifindex = ifindex;
        device.name = "p" + std::to_string(ifindex - 1);
        device.bridge = ifindex == 1 ? 0 : ifindex == 5 ? 9 : 1;
        device.portState = BridgePortState{static_cast<std::uint8_t>(5 - ifindex)};
        if (ifindex != 4) table[ifindex].member.set(10);
        if (ifindex != 3) table[ifindex].tagged = table[ifindex].member;
        if (ifindex == 3) table[ifindex].pvid = VlanId{10};
    }
    for (const unsigned ifindex : {2U, 3U, 5U}) table[ifindex].member.set(11);
    table[3].blocked.set(11);
    auto& settings = devices[1].bridgeSettings.emplace();
    settings.priority = 4096;
    State::FlatMap<VlanId, bool> srVlan;
    srVlan.set(VlanId{5}, false);
    srVlan.set(VlanId{6}, true);
    const auto onRecord = [&] {
        const auto records = bridgeRecords();
        bringInLine(records, bridgeFacts(devices.at(1), devices, table, srVlan, {{VlanId{11}, 7}}));
        return described(records);
    };
    const std::string ports = " p1 forwarding p2 learning p3 blocking; ";
    EXPECT_EQ(onRecord(), "None; NoStp" + ports + "5 p1- p2- p3-; 6 p1+ p2+ p3+; native p1 1 p2 1 p3 1");
    settings.vlanFiltering = true;
    EXPECT_EQ(onRecord(), "None; NoStp" + ports + "10 p1+ p2-; 11 p1-; native p1 1 p2 10 p3 1");
    settings.spanningTree = true;
    const std::string vlans = "10@Cist p1+ p2-; 11@Mst7 p1- p2-; native p1 1 p2 10 p3 1";
    EXPECT_EQ(onRecord(), "Rstp 4096; Cist" + ports + "Mst7 p1 forwarding p2 blocking; " + vlans);
    table[3].blocked.reset(11);
    EXPECT_EQ(onRecord(), "Rstp 4096; Cist" + ports + "Mst7 p1 forwarding p2 blocking; " + vlans)
        << "the port has a state, too";
    settings.multipleSpanningTrees = true;
    EXPECT_EQ(onRecord(), "Mstp 4096; Cist" + ports + "Mst7 p1 forwarding p2 forwarding; " + vlans);
}

BridgeFacts anyFacts(std::mt19937& random) {
    const auto anyState = [&] { return Bridging::Topology::PortState(1 + random() % 3); };
    BridgeFacts facts;
    facts.spanningTree = random() % 2 == 0;
    for (const char* name : {"p1", "p2", "p3"}) {
        if (random() % 4 == 0) continue;
        BridgeFacts::Port& port = facts.ports[IntfId{name}];
        port.state = anyState();
        for (const unsigned id : {2U, 3U, 4U}) {
            port.vlans.member.set(id, random() % 2 == 0);
            port.vlans.tagged.set(id, port.vlans.member.test(id) && random() % 2 == 0);
        }
        if (random() % 2 == 0) port.vlans.pvid = VlanId{2};
    }
    for (const unsigned id : {3U, 4U}) {
        if (!facts.spanningTree || random() % 2 == 0) continue;
        const auto instance = static_cast<std::uint16_t>(1 + random() % 2);
        facts.trees[VlanId{id}] = instance;
        for (auto& [intf, port] : facts.ports) {
            if (port.vlans.member.test(id)) port.trees[instance] = anyState();
        }
    }
    return facts;
}

/// Records, and who follows them on the way to a stream.
struct Followed {
    Linux::BridgeRecords records = bridgeRecords();
    std::shared_ptr<Bridging::Topology::TopoLibState> lib =
        std::make_shared<Bridging::Topology::TopoLibState>();
    Bridging::TopologyAgent agent{records.bridging, records.stp, nullptr, records.topology};
    Bridging::Topology::TopoLibSm sm{records.topology, records.stp,
                                     std::make_shared<Bridging::Topology::Status>(), lib};
    [[nodiscard]] std::vector<State::Value> values() const {
        return {records.bridging->value(), records.topology->value(), records.stp->value(), lib->value()};
    }
};

TEST(BridgeRecords, BecomeTrueFromWhateverTheyWereAndBlockNoVlanOnTheWay) {
    std::mt19937 random{1};
    Followed life;
    BridgeFacts before;
    for (int i = 0; i < 500; ++i) {
        const BridgeFacts now = anyFacts(random);
        const auto reactor = life.lib->watch([&](const State::Change& change) {
            const auto* id = change.key<VlanId>();
            const auto topo = life.lib->topo(now.spanningTree ? "Cist" : "NoStp");
            if (id == nullptr || !topo || before.trees.contains(*id) || now.trees.contains(*id)) return;
            for (const auto& [intf, port] : now.ports) {
                const auto topoPort = topo->topoPort(intf);
                if (&change.entity != topoPort.get()) continue;
                const auto entry = topoPort->vlanPortConfig(*id);
                const bool tagged = entry && entry->tagged();
                EXPECT_TRUE(!tagged || topoPort->state() == port.state) << "the state comes first";
                const bool stays =
                    port.vlans.tagged.test(id->value()) && before.ports[intf].vlans.tagged.test(id->value());
                EXPECT_TRUE(!stays || tagged) << "what stays is not missed";
            }
        });
        bringInLine(life.records, now);
        Followed fresh;
        bringInLine(fresh.records, now);
        EXPECT_TRUE(life.values() == fresh.values()) << described(life.records) << '\n'
                                                     << described(fresh.records);
        before = now;
    }
}

}  // namespace
