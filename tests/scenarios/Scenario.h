/// A bridge with three ports, p1 to p3, and a peer at each; time is virtual.
#pragma once

#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Sim/Invariants.h"
#include "Sim/Peer.h"

#include <gtest/gtest.h>
#include <sstream>

namespace Sim {

using Mrp::Event;
using Msrp::ListenerState;
using Msrp::SrClassId;
using namespace std::chrono_literals;

inline const std::string selfBridge = "0x8000020000000001";

/// A record in one line, without what says nothing (0, false, empty) and without times.
inline std::string shown(const State::Value& value) {
    if (value.object() == nullptr) {
        if (const auto* text = std::get_if<std::string>(&value.data)) return *text;
        const std::string text = std::holds_alternative<double>(value.data) ? "" : State::text(value);
        return text == "0" || text == "false" || text == "null" ? "" : text;
    }
    std::string out;
    for (const auto& [name, member] : *value.object()) {
        if (const std::string text = shown(member); !text.empty())
            out.append(out.empty() ? "" : ", ").append(name + ' ' + text);
    }
    return out.empty() ? out : '{' + out + '}';
}

class Scenario : public testing::Test {
protected:
    void SetUp() override {
        bridge.start();
        loop.runFor(1s);  // the LeaveAll with which ports start would age out what a peer says before it
    }

    /// Every peer declares the bridge's own domains: all ports become core ports.
    void core() {
        for (Peer* peer : {&p1, &p2, &p3}) peer->say(domains());
        settle();
    }
    /// Stream 1 from p1 to p2.
    void reserve() {
        core();
        p1.say(advertise({}));
        p2.say(listener(1, ListenerState::Ready));
        settle();
        EXPECT_EQ(bridge.stream(1), reserved);
    }
    // Half a second later:

    /// The streams, the ports that are no core ports, and what each peer has registered but for the domains;
    /// one line for each.
    [[nodiscard]] std::string picture() {
        settle();
        std::string out = bridge.streams();
        for (const char* port : {"p1", "p2", "p3"}) {
            if (!bridge.classes(port).ends_with("Core Core")) out += bridge.classes(port) + '\n';
        }
        for (const Peer* peer : {&p1, &p2, &p3}) {
            std::istringstream lines{peer->registered()};
            for (std::string line; std::getline(lines, line);) {
                if (!line.starts_with("Domain"))
                    out += (peer == &p1 ? "p1 " : peer == &p2 ? "p2 " : "p3 ") + line + '\n';
            }
        }
        return out;
    }
    [[nodiscard]] std::string stream1() {
        settle();
        return bridge.stream(1);
    }
    void expectHears(const Peer& peer, const std::string& declared) {
        settle();
        EXPECT_NE(peer.registered().find(declared), std::string::npos) << peer.registered();
    }
    /// What has been counted on each port so far, one line each.
    [[nodiscard]] std::string counted() {
        std::string out;
        bridge.status->intfStatus().each([&](IntfId intf, const Msrp::IntfStatus& port) {
            out += intf.name() + " rx " + shown(*port.fieldValue("rxCounters", "")) + " tx " +
                   shown(*port.fieldValue("txCounters", "")) + '\n';
        });
        return out;
    }
    void expectLogged(const std::vector<std::string>& texts, std::size_t times = 1) {
        settle();
        for (const std::string& text : texts) EXPECT_EQ(bridge.logged(text), times) << text;
    }
    /// Half a second: time for every opportunity, too short for a leave timer.
    void settle() { pass(500ms); }
    /// Long enough for reviews and leave timers.
    void quiet() { pass(2s); }
    /// Groups, allocations and queues are what the streams say, whatever happens.
    void pass(Runtime::Duration span) {
        loop.runFor(span);
        EXPECT_EQ(censusFault(bridge), "");
        if (bridge.agent().msrpSm() != nullptr) {
            EXPECT_EQ(forwardingFault(bridge), "");
        }
    }

    const std::string reserved = "0x1 SrClassA 9088 p1 -> p2";
    const std::string waiting = "0x1 SrClassA 9088 p1 -> p1";  ///< the talker's port holds the place
    /// The `picture` of it.
    const std::string all = reserved + "\np1 Listener 0x1 Ready\np2 Advertise 0x1\np3 Advertise 0x1\n";
    const std::string nobodyListens = waiting + "\np2 Advertise 0x1\np3 Advertise 0x1\n";
    Runtime::VirtualLoop loop;
    Bridge bridge{loop, {"p1", "p2", "p3"}};
    Peer p1{bridge, "p1"};
    Peer p2{bridge, "p2"};
    Peer p3{bridge, "p3"};
};

}  // namespace Sim
