/// Nobody holds the loop: long work is done in pieces, and every port has its turn.
#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;
using Mrp::Event;

namespace {

/// One frame that declares as many consecutive values as fit.
std::vector<std::uint8_t> giant(std::uint64_t first, Event event = Event::JoinMt) {
    Mrp::PduWriter writer{msrp, false};
    Mrp::AttributeValue value;
    for (put(std::span{value.octets}.first(8), first); writer.add(2, event, value);)
        nextStream(std::span{value.octets}.first(8), 1);
    const auto pdu = writer.finish();
    return {pdu.begin(), pdu.end()};
}

std::size_t linesBefore(const std::string& text, const std::string& line) {
    const auto at = text.find(line);
    return at == std::string::npos ? SIZE_MAX
                                   : static_cast<std::size_t>(std::count(
                                         text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
}

TEST(Turn, AFrameWithThousandsOfValuesKeepsNoOtherPortWaiting) {
    Pair net;
    net.loop.runFor(1s);
    net.a.app.take();
    net.wire.deliver("a2", giant(1));
    net.wire.deliver("a2", giant(0x8000));
    Mrp::PduWriter writer{msrp, false};
    writer.add(3, Event::JoinMt, {.octets = {6, 3, 0, 2}});
    const auto small = writer.finish();
    net.wire.deliver("a1", {small.begin(), small.end()});
    net.loop.runFor(1ms);
    const std::string heard = net.a.app.take();
    EXPECT_LT(linesBefore(heard, "+a1 4/6=3\n"), 200U);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), '\n'), 4097)
        << "all but those above the limit, in the end";
}

TEST(Turn, WhatArrivedInTimeStopsALeaveAlsoWhenItHadToWait) {
    Pair net;
    net.hear({{Event::JoinIn, 1, 5, 1}});
    Runtime::Timer justInTime{net.loop, [&] {
                                  net.wire.deliver("a2", giant(1));
                                  Mrp::PduWriter writer{msrp, false};
                                  Mrp::AttributeValue value;
                                  put(std::span{value.octets}.first(8), 5);
                                  put(std::span{value.octets}.subspan(21, 4), 1);
                                  writer.add(0, Event::JoinIn, value);
                                  const auto pdu = writer.finish();
                                  net.wire.deliver("a2", {pdu.begin(), pdu.end()});
                              }};
    justInTime.armIn(600ms);
    net.hear({{Event::Lv, 1, 5, 1}});
    net.loop.runFor(2s);
    EXPECT_EQ(net.a.app.take().find("-a2 1/5"), std::string::npos);
}

TEST(Turn, AFloodIsBoundedCountedAndToldOnce) {
    Pair net;
    net.a.config->maxAttributesPerTypeIs(100);
    net.loop.runFor(1s);
    const auto frame = giant(1);
    for (int i = 0; i < 3000; ++i) net.wire.deliver("a2", frame);
    const auto& counters = *net.a.status->intf(IntfId{"a2"});
    EXPECT_EQ(counters.droppedPdus(), 3000U - Mrp::Inbox::limit - 1);
    net.b.app.declare("b1", 1, 7, 1);
    net.loop.runFor(1ms);
    EXPECT_TRUE(net.a.app.held.contains("a1 1/7"));
    net.loop.runFor(1s);
    EXPECT_EQ(counters.rxPdus() + counters.droppedPdus(), 3000U);
    EXPECT_EQ(std::ranges::count_if(
                  net.a.reports, [](const auto& line) { return line.find("dropped") != std::string::npos; }),
              1);
}

TEST(Turn, ALeaveAllOfManyPortsLetsOtherTimersFireInBetween) {
    Runtime::VirtualLoop loop;
    Wire wire{loop};
    std::vector<std::string> ports;
    for (int i = 0; i < 20; ++i) ports.push_back("c" + std::to_string(i));
    Bridge bridge{loop, wire, ports, 1};
    for (const std::string& port : ports) {
        for (std::uint64_t key = 0; key < 3000; ++key) bridge.app.declare(port, 1, key * 3, 1);
    }
    loop.runFor(2s);
    const std::size_t before = wire.frames.size();
    for (const std::string& port : ports) bridge.app.periodicSm()->transmitAllLeaveAll(IntfId{port});
    std::size_t framesAtTimer = 0;
    Runtime::Timer other{loop, [&] { framesAtTimer = wire.frames.size() - before; }};
    other.armIn({});
    loop.runFor(1ms);
    const std::size_t all = wire.frames.size() - before;
    EXPECT_GT(framesAtTimer, 0U);
    EXPECT_LT(framesAtTimer, all / 4);
}

}  // namespace
