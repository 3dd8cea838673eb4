#include "Linux/groups/GroupMessage.h"
#include "Linux/groups/GroupPlaces.h"
#include "Linux/groups/GroupWishes.h"
#include "Linux/groups/OwnedGroups.h"
#include "Linux/kernel/Contention.h"
#include "Runtime/Text.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/linux/Golden.h"

#include <cerrno>
#include <linux/rtnetlink.h>
#include <sys/stat.h>

namespace {

using Linux::GroupMember;

const golden::Recording& groups() {
    static const golden::Recording recording{"groups"};
    return recording;
}
GroupMember member(unsigned last, std::uint16_t vid, unsigned port) {
    return {{EthAddr::fromNumber(0x91E0F000FE00 + last), vid, {}}, port};
}

TEST(GroupMessage, AsksInTheKernelsWords) {
    const auto same = [](const Linux::NetlinkMessage& message, const char* name) {
        EXPECT_EQ(golden::hex(message.bytes()), groups().requests(name).front()) << name;
    };
    same(Linux::groupAdd(10, member(1, 0, 11), 0), "mdb add without vid");
    same(Linux::groupAdd(10, member(3, 0, 11), 78), "mdb add with protocol 78");
    same(Linux::groupAdd(10, member(4, 2, 11), 78), "mdb add vid 2 with protocol 78");
    same(Linux::groupDelete(10, member(2, 2, 11)), "mdb del vid 2");
    same(Linux::groupFlush(10, 78), "mdb flush by protocol");
    same(Linux::multicastSnooping(10, true), "bridge: multicast snooping on");
    same(Linux::multicastTableSize(10, 16384), "bridge: multicast table size");
    const auto body = Linux::groupDumpBody();
    EXPECT_EQ(golden::hex(body), groups().requests("mdb dump").front().substr(32));
}

/// "01/2@11 by 78", those of IP addresses as "ip/0@11".
std::string described(const golden::Bytes& message) {
    std::string text;
    for (const auto& entry : Linux::decodeGroups(golden::header(message), 10)) {
        const auto& [group, port] = entry.member;
        const std::string name = group.ip.empty() ? group.mac.text().substr(15) : "ip";
        text += Runtime::concat(text.empty() ? "" : ", ", name, '/', group.vid, '@', port, " by ",
                                unsigned{entry.protocol}, entry.permanent ? "" : " for a while");
    }
    return text;
}

TEST(GroupMessage, IsReadFromAllKernels) {
    for (const std::string kernel : {"6.18", "6.12", "6.1"}) {
        const auto notice = [&](const std::string& name) {
            return described(groups().notifications(Runtime::concat(kernel, ' ', name)).front());
        };
        // Two of them filter VLANs, so that a group without one is in each.
        const std::string vid = kernel == "6.18" ? "0" : "1";
        EXPECT_EQ(notice("group added"), "08/" + vid + "@13 by 4");
        EXPECT_EQ(notice("group added with vid"), "09/2@13 by 4");
        EXPECT_EQ(notice("group deleted"), "08/" + vid + "@13 by 4");
        std::string all;
        for (const auto& message : groups().dump(kernel + " mdb dump")) {
            all += described(message);
            EXPECT_TRUE(Linux::decodeGroups(golden::header(message), 11).empty()) << "another bridge's";
            golden::cutAnywhere(message, [](const nlmsghdr& cut) { (void)Linux::decodeGroups(cut, 10); });
        }
        for (const std::string& entry : {"01/" + vid + "@11 by 4", "01/" + vid + "@12 by 4",
                                         std::string{"02/2@11 by 4"}, "07/" + vid + "@10 by 0"})
            EXPECT_NE(all.find(entry), std::string::npos) << kernel << ": " << entry << " in " << all;
    }
}

TEST(GroupWishes, DiffersByVlanOnlyWhereTheBridgeFiltersThem) {
    const auto record = std::make_shared<Bridging::Input::Config>();
    auto& config = *record;
    Linux::GroupWishes wishes{record};
    const auto follow = config.watch([&](const State::Change& change) { wishes.changed(change); });
    const auto mac = member(1, 0, 0).group.mac;
    for (const unsigned vlan : {2U, 3U}) {
        for (const char* port : {"swp1", "swp2", "elsewhere"})
            config.fdbConfigIs(VlanId{vlan})->ethGroupIs(mac)->intfIs(IntfId{port}, true);
    }
    config.fdbConfig(VlanId{3})->ethGroup(mac)->intfIs(IntfId{"swp2"}, false);
    Linux::BridgeView view{.bridge = 10, .ports = {{"swp1", 11}, {"swp2", 12}}};
    // Another's in place of one that is wanted, one of ours that is not, and one of another's.
    const std::vector<Linux::HeldGroup> held{{member(1, 0, 11), Linux::GroupOwner::another},
                                             {member(1, 3, 12), Linux::GroupOwner::us},
                                             {member(1, 4, 12), Linux::GroupOwner::another}};
    const auto todo = [&] {
        std::string text;
        const auto [missing, surplus] = Linux::difference(wishes.of(mac, view), held);
        for (const auto& [group, port] : missing) text += Runtime::concat('+', group.vid, '@', port);
        for (const auto& [group, port] : surplus) text += Runtime::concat('-', group.vid, '@', port);
        return text;
    };
    EXPECT_EQ(todo(), "-3@12") << "no wish in force";
    config.fdbConfigPriorityIs(1);
    EXPECT_EQ(todo(), "+0@12-3@12");
    view.vlanFiltering = true;
    EXPECT_EQ(todo(), "+2@11+2@12+3@11-3@12");
    config.fdbConfigDel(VlanId{2});
    EXPECT_EQ(todo(), "+3@11-3@12");
    config.fdbConfig(VlanId{3})->ethGroupDel(mac);
    EXPECT_TRUE(wishes.addresses().empty());
}

TEST(GroupPlaces, GoToListenersFirstAndThenToPortsInEqualParts) {
    Linux::GroupPlaces places;
    const auto claim = [&](unsigned from, unsigned to, const char* talker, bool listened) {
        for (; from < to; ++from)
            places.claim(member(from, 0, 0).group, {listened, IntfId{talker}, false}, false);
    };
    // Places of groups 0 to 9, 10 to 19, ... when all is settled, in steps of any size.
    const auto settled = [&](std::size_t capacity) {
        while (!places.settle(capacity, 3).empty()) {
        }
        std::string text;
        for (unsigned tens = 0; tens < 40; tens += 10) {
            unsigned count = 0;
            for (unsigned n = tens; n < tens + 10; ++n) count += places.has(member(n, 0, 0).group) ? 1 : 0;
            text += Runtime::concat(text.empty() ? "" : " ", count);
        }
        return text;
    };
    claim(0, 10, "a", false);
    EXPECT_EQ(settled(8), "8 0 0 0");
    claim(10, 14, "b", false);
    EXPECT_EQ(settled(8), "4 4 0 0") << "nobody listens to any: ports get equal parts";
    claim(20, 30, "c", true);
    EXPECT_EQ(settled(8), "0 0 8 0") << "whom somebody listens to goes first";
    claim(30, 33, "d", true);
    EXPECT_EQ(settled(8), "0 0 5 3");
    EXPECT_TRUE(places.has(member(24, 0, 0).group)) << "the last that came goes first";
    EXPECT_EQ(settled(5), "0 0 5 3") << "a reservation ends for another's sake only";
    claim(20, 22, "c", false);
    EXPECT_EQ(settled(8), "0 0 5 3") << "two others of its port have waited";
    EXPECT_FALSE(places.has(member(20, 0, 0).group));
    for (unsigned n = 20; n < 40; ++n) places.release(member(n, 0, 0).group);
    EXPECT_EQ(settled(8), "4 4 0 0");
    places.claim(member(9, 0, 0).group, {false, IntfId{"a"}, true}, false);
    EXPECT_EQ(settled(0), "1 0 0 0") << "a group of others takes no place of ours";
}

TEST(GroupReaction, SaysWhatToDo) {
    using Linux::GroupReaction;
    EXPECT_EQ(Linux::reactionToAdd({EINVAL, "Bridge device is not running"}), GroupReaction::passing);
    EXPECT_EQ(Linux::reactionToAdd({ENODEV, ""}), GroupReaction::passing);
    EXPECT_EQ(Linux::reactionToDelete({EINVAL, ""}), GroupReaction::reread);
    EXPECT_EQ(Linux::reactionToDelete({EINVAL, "Bridge's multicast processing is disabled"}),
              GroupReaction::refused);
}

TEST(Contention, LeavesAloneWhatChangesThreeTimesAMinute) {
    using namespace std::chrono_literals;
    Linux::Contentions<int> things;
    const Runtime::Time begin{100s};
    enum { often, seldom };
    for (const auto at : {0s, 1s, 59s}) EXPECT_EQ(things.changed(often, begin + at), at == 59s);
    EXPECT_TRUE(things.leftAlone(often, begin + 118s));
    EXPECT_FALSE(things.leftAlone(often, begin + 119s)) << "it gets another chance";
    for (int i = 0; i < 4; ++i) EXPECT_FALSE(things.changed(seldom, begin + i * 31s));
}

TEST(OwnedGroups, KnowsItsOwnAfterAnyEnd) {
    const TemporaryDirectory directory;
    const std::string folder = directory.file("");
    const std::string path = directory.file("owned");
    const auto readAgain = [&] {
        Linux::OwnedGroups owned{path};
        EXPECT_EQ(owned.read(), "");
        return owned;
    };
    const GroupMember kept = member(1, 2, 11);
    const GroupMember dropped = member(2, 2, 11);
    Linux::OwnedGroups earlier = readAgain();
    earlier.add(kept, "swp1");
    earlier.add(dropped, "swp1");
    EXPECT_EQ(earlier.flush(), "");
    earlier.erase(dropped);
    EXPECT_EQ(earlier.flush(), "");
    std::ofstream{path, std::ios::app}
        << "? what\n+ 11 swp1 5000 91:e0:f0:00:fe:03\n+ 12 swp2 2 91:e0:f0:00:fe:05 more\n"
           "+ 12 swp2 2 91:e0:f0:00:fe:04";  // torn
    Linux::OwnedGroups owned = readAgain();
    EXPECT_TRUE(owned.lists(kept, "swp1"));
    EXPECT_FALSE(owned.lists(kept, "swp9")) << "the index has another bearer";
    EXPECT_FALSE(owned.lists(dropped, "swp1"));
    for (const unsigned last : {4U, 5U}) EXPECT_FALSE(owned.lists(member(last, 2, 12), "swp2"));
    owned.portNameIs(11, "swp3");
    EXPECT_EQ(owned.flush(), "");
    EXPECT_TRUE(readAgain().lists(kept, "swp3"));
    // History does not make the file grow without end.
    for (int i = 0; i < 3000; ++i) {
        owned.add(dropped, "swp1");
        owned.erase(dropped);
        EXPECT_EQ(owned.flush(), "");
    }
    EXPECT_LT(std::filesystem::file_size(path), 50'000U);
    EXPECT_TRUE(readAgain().lists(kept, "swp3"));
    EXPECT_EQ(readAgain().keepOnly({}), "");
    EXPECT_EQ(std::filesystem::file_size(path), 0U);

    // Nothing that others may have written, or made a trap of.
    const auto problem = [&] { return Linux::OwnedGroups{path}.read().erase(0, path.size()); };
    namespace fs = std::filesystem;
    fs::permissions(path, fs::perms::others_write, fs::perm_options::add);
    EXPECT_EQ(problem(), " is not read: others may write it");
    fs::rename(path, folder + "other");
    fs::permissions(folder + "other", fs::perms::owner_all);
    fs::create_symlink("other", path);
    EXPECT_EQ(Linux::OwnedGroups{path}.read(), "cannot read " + path + ": Too many levels of symbolic links");
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(problem(), " is not read: it is no plain file");
    fs::remove(path);
    fs::permissions(folder, fs::perms::group_write, fs::perm_options::add);
    EXPECT_EQ(problem(), " is not used: others may write in its folder");
    Linux::OwnedGroups trapped{path};
    trapped.add(kept, "swp1");
    EXPECT_NE(trapped.flush(), "");
    EXPECT_FALSE(fs::exists(path));
}

}  // namespace
