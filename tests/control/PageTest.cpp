/// What tables and screens look like on pages of a width, and in colours.
#include "Show/Table.h"
#include "Show/Top.h"
#include "tests/control/ShownBridge.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using Msrp::ListenerState;

struct PageRow {
    std::string port;
    bool good;
    std::string why;
};

TEST(Page, FoldsInItsWidthAndObeysNobody) {
    const Show::Column<PageRow> columns[]{
        {"PORT", "", [](const auto& r) { return r.port; }},
        {"GOOD", "", [](const auto& r) { return r.good; }, Show::cellText, Show::wordMood},
        {"A NUMBER", "", [](const auto& r) { return r.port.size(); }},
        {"ANOTHER", "", [](const auto& r) { return !r.good; }},
        {"WHY", "", [](const auto& r) { return r.why; }},
    };
    // Codes of terminals in each encoding, and what is no character at all.
    const std::vector<PageRow> rows{{"a", true, "b\x1b[2J\x7f\xc2\x9bH\xff\xe2\x82 \n\xc3\xa9"},
                                    {"swp1", false, "a long sentence with anunbreakablewordinside of it"}};
    const Show::Table table{
        columns, 1, rows, [](const PageRow& r) {
            return r.good ? Show::Notes{} : Show::Notes{{"a note of some length on it", Show::Mood::waits}};
        }};
    const std::string whole = table.text();
    EXPECT_EQ(whole,
              "PORT  GOOD  A NUMBER  ANOTHER  WHY\n"
              "a     yes   1         no       b?[2J???H??? ?\xc3\xa9\n"
              "swp1  no    4         yes      a long sentence with anunbreakablewordinside of it\n"
              "    a note of some length on it\n");
    EXPECT_EQ(table.text({.width = 100}), whole);
    EXPECT_EQ(table.text({.width = 24, .colours = true}),
              "\x1b[1mPORT\x1b[0m  \x1b[1mGOOD\x1b[0m  \x1b[1mA NUMBER\x1b[0m\n"
              "a     \x1b[32myes\x1b[0m   1\n"
              "swp1  \x1b[31mno\x1b[0m    4\n"
              "    \x1b[33ma note of some\x1b[0m\n"
              "        \x1b[33mlength on it\x1b[0m\n"
              "\n"
              "\x1b[1mPORT\x1b[0m  \x1b[1mANOTHER\x1b[0m\n"
              "a     no\n"
              "swp1  yes\n"
              "\n"
              "\x1b[1mPORT\x1b[0m  \x1b[1mWHY\x1b[0m\n"
              "a     b?[2J???H??? ?\xc3\xa9\n"
              "swp1  a long sentence\n"
              "      with\n"
              "      anunbreakablewordi\n"
              "      nside of it\n");
    EXPECT_EQ(table.text({.width = 9, .colours = false, .cuts = true}),
              "PORT  GOO\na     yes\nswp1  no\n    a not\n");
}

/// As msrpctl asks the daemon.
void ask(Show::Top& top, ShownBridge& b) {
    const auto value = [&b](const Show::Piece& piece) {
        const auto record = b.bridge.database().entity(piece.record);
        State::Value all = record ? record->value() : State::Value{};
        for (const std::string& name : piece.below) all = State::Value{Show::at(all, {name})};
        return all;
    };
    const auto once = [&] {
        const auto pieces = top.pieces();
        std::vector<State::Value> values;
        for (const Show::Piece& piece : pieces) values.push_back(value(piece));
        top.valuesAre(pieces, std::move(values), Runtime::seconds(b.loop.now()));
    };
    once();
    if (!top.wantsList()) return;
    top.listIs(value(Show::Top::list()));
    EXPECT_FALSE(top.wantsList());
    once();
}

TEST(Top, IsOneScreenOfPortsOrStreams) {
    ShownBridge b{{"swp1", "swp2", "swp3"}};
    b.bridge.cliConfig->srClassABandwidthPercentIs(1);
    b.bridge.linkIs("swp3", false);
    b.bridge.start();
    b.loop.runFor(1s);
    for (const char* port : {"swp1", "swp2"}) b.says(port, Sim::domains());
    for (const std::uint64_t id : {1U, 2U, 3U})
        b.says("swp1", {Sim::advertise({.id = id, .macDa = 0x91'e0'f0'00'00'00 + id})});
    for (const std::uint64_t id : {1U, 2U}) b.says("swp2", {Sim::listener(id, ListenerState::Ready)});
    b.says("swp2", {Sim::failed({.id = 4, .macDa = 0x91'e0'f0'00'00'04}, 3)});

    Show::Top top{Show::Top::Subject::ports, true};
    top.rowsAre(8);
    ask(top, b);
    EXPECT_EQ(top.text({.width = 80}),
              R"(3 ports, 4 streams, 1 talker failed, 1 offered, 1 reserved, 1 refused
PORT  LINK  SPEED  CLASS  STATE         USED (#) OF ALLOWED (-)  KBPS
swp1  up    1G     A      Core          [--------------------]   0/10000
swp1  up    1G     B      Core          [--------------------]   0/10000
swp2  up    1G     A      Core          [##################--]   9088/10000
swp2  up    1G     B      Core          [--------------------]   0/912
swp3  down  1G     A      NotSupported  [--------------------]   0/10000
q ends  t streams  s sorts: name  arrows, PgUp, PgDn: 1-5 of 6
)");
    EXPECT_EQ(top.typed("xsG"), Show::Top::Asked::page);
    EXPECT_EQ(top.text({.width = 80}, "the daemon is away"), R"(the daemon is away
PORT  LINK  SPEED  CLASS  STATE         USED (#) OF ALLOWED (-)  KBPS
swp1  up    1G     A      Core          [--------------------]   0/10000
swp1  up    1G     B      Core          [--------------------]   0/10000
swp2  up    1G     B      Core          [--------------------]   0/912
swp3  down  1G     A      NotSupported  [--------------------]   0/10000
swp3  down  1G     B      NotSupported  [--------------------]   0/10000
q ends  t streams  s sorts: use  arrows, PgUp, PgDn: 2-6 of 6
)");
    EXPECT_EQ(top.typed("t"), Show::Top::Asked::page);
    ask(top, b);
    EXPECT_EQ(top.text({.width = 80}),
              R"(3 ports, 4 streams, 1 talker failed, 1 offered, 1 reserved, 1 refused
STREAM               FROM  CLASS  KBPS  FLOWING  AGE  STATE          WHERE
00:00:00:00:00:00/1  swp1  A      9088  -        1s   reserved       to swp2
00:00:00:00:00:00/2  swp1  A      9088  -        1s   waits          not to swp2
00:00:00:00:00:00/3  swp1  A      9088  -        2s   offered        -
00:00:00:00:00:00/4  swp2  A      9088  -        0s   talker failed  insufficien
q ends  p ports  s sorts: number  arrows, PgUp, PgDn: 1-4 of 4
)");
    // The failed ones first, and of them those that have room on a smaller screen after some scrolling.
    top.typed("sss\x1b[B\x1b[B\x1b[6~\x1b[A");
    top.rowsAre(5);
    ask(top, b);
    EXPECT_EQ(top.text({.width = 50}), R"(3 ports, 4 streams, 1 talker failed, 1 offered, 1 
STREAM               FROM  CLASS  KBPS  FLOWING  A
00:00:00:00:00:00/2  swp1  A      9088  -        1
00:00:00:00:00:00/4  swp2  A      9088  -        0
q ends  p ports  s sorts: failed first  arrows, Pg
)");
    EXPECT_EQ(top.typed("kq"), Show::Top::Asked::end);
}

}  // namespace
