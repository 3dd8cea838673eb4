/// Nobody holds the loop: long work is done in pieces, and every port has its turn.
#include "Mrp/PduWriter.h"
#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;

namespace {

/// One frame that declares as many consecutive values as fit.
Pdu giant(std::uint64_t first) {
    Mrp::PduWriter writer{Msrp::application(), false};
    while (writer.add(2, Mrp::Event::JoinMt, Sim::valueOf(say(3, first)))) ++first;
    const auto pdu = writer.finish();
    return {pdu.begin(), pdu.end()};
}

TEST(Turn, AFrameWithThousandsOfValuesKeepsNoOtherPortWaiting) {
    Pair net;
    net.play("1s");
    net.wire.deliver(a2, giant(1));
    net.wire.deliver(a2, giant(0x8000));
    const std::string heard = net.play("a1<JoinMt:4/6=3 1ms");
    const auto at = heard.find("+a1 4/6=3\n");
    ASSERT_NE(at, std::string::npos);
    EXPECT_LT(std::count(heard.begin(), heard.begin() + static_cast<std::ptrdiff_t>(at), '\n'), 200);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), '\n'), 4097)
        << "all but those above the limit, in the end";
}

TEST(Turn, WhatArrivedInTimeStopsALeaveAlsoWhenItHadToWait) {
    Pair net;
    net.play("a2<JoinIn:1/5=1");
    Runtime::Timer justInTime{net.loop, [&] {
                                  net.wire.deliver(a2, giant(1));
                                  net.wire.deliver(a2, Sim::pdusOf({say("1/5=1", Mrp::Event::JoinIn)})[0]);
                              }};
    justInTime.armIn(600ms);
    EXPECT_EQ(net.play("a2<Lv:1/5=1 2s").find("-a2 1/5"), std::string::npos);
}

TEST(Turn, AFloodIsBoundedCountedAndToldOnce) {
    Pair net;
    net.a.config->maxAttributesPerTypeIs(100);
    net.play("1s");
    const auto frame = giant(1);
    for (int i = 0; i < 3000; ++i) net.wire.deliver(a2, frame);
    const auto& counters = *net.a.status->intf(a2);
    EXPECT_EQ(counters.droppedPdus(), 3000U - Mrp::Inbox::limit - 1);
    EXPECT_NE(net.play("b1+1/7 1ms").find("+a1 1/7"), std::string::npos);
    net.play("1s");
    EXPECT_EQ(counters.rxPdus() + counters.droppedPdus(), 3000U);
    EXPECT_EQ(std::ranges::count_if(
                  net.a.reports, [](const auto& line) { return line.find("dropped") != std::string::npos; }),
              1);
    net.a.status->intfIs(a2)->clear();
    EXPECT_EQ(State::text(counters.value()).find_first_of("123456789"), std::string::npos)
        << State::text(counters.value());
}

TEST(Turn, ALeaveAllOfManyPortsLetsOtherTimersFireInBetween) {
    Runtime::VirtualLoop loop;
    Wire wire{loop};
    std::vector<IntfId> ports;
    for (int i = 0; i < 20; ++i) ports.emplace_back("c" + std::to_string(i));
    Bridge bridge{loop, wire, ports, 1};
    for (const IntfId port : ports) {
        for (std::uint64_t key = 0; key < 3000; ++key) bridge.app.declare(port, say(1, key * 3));
    }
    loop.runFor(2s);
    const std::size_t before = wire.frames.size();
    for (const IntfId port : ports) bridge.app.leaveAll(port);
    std::size_t framesAtTimer = 0;
    Runtime::Timer other{loop, [&] { framesAtTimer = wire.frames.size() - before; }};
    other.armIn({});
    loop.runFor(1ms);
    EXPECT_GT(framesAtTimer, 0U);
    EXPECT_LT(framesAtTimer, (wire.frames.size() - before) / 4);
}

}  // namespace
