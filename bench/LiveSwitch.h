/// A simulated switch in real time: its peers answer each LeaveAll with what they declared, as fast as a
/// socket is read, and a heartbeat tells for how long its loop was not to be had.
#pragma once

#include "Linux/kernel/EpollLoop.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"
#include "bench/Streams.h"

#include <algorithm>
#include <ctime>
#include <deque>
#include <map>
#include <string>
#include <sys/eventfd.h>
#include <vector>

namespace Bench {

using namespace std::chrono_literals;

inline double milliseconds(Runtime::Duration span) { return 1e3 * Runtime::seconds(Runtime::Time{span}); }

class AnsweringPorts : public Mrp::PacketPortProvider {
public:
    explicit AnsweringPorts(Runtime::FdLoop& loop) : loop_{loop} {}

    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override {
        return std::make_unique<Port>(peer(intf), std::move(receiver));
    }
    /// The peer says that, now and in answer to each LeaveAll.
    void declare(IntfId intf, const std::vector<Sim::Pdu>& pdus) {
        Peer& speaker = peer(intf);
        speaker.declared.insert(speaker.declared.end(), pdus.begin(), pdus.end());
        speaker.say(pdus);
    }
    /// The peer says that once.
    void say(IntfId intf, const std::vector<Sim::Pdu>& pdus) { peer(intf).say(pdus); }
    /// The peer says once more all that it declares.
    void repeat(IntfId intf) { peer(intf).say(peer(intf).declared); }
    /// The peer no longer answers.
    void forget(IntfId intf) { peer(intf).declared.clear(); }
    /// Who hears what is sent on the port.
    void listenerIs(IntfId intf, std::function<void(std::span<const std::uint8_t>)> listener) {
        peer(intf).listener = std::move(listener);
    }
    [[nodiscard]] bool quiet() const {
        return std::ranges::all_of(peers_, [](const auto& p) { return p.second.toSay.empty(); });
    }
    std::size_t answers = 0;

private:
    struct Port;
    /// Its frames come in through a descriptor, as those of a socket would.
    struct Peer {
        explicit Peer(AnsweringPorts& all) : owner{all}, event{eventfd(1, EFD_NONBLOCK)} {}
        void say(const std::vector<Sim::Pdu>& pdus) {
            constexpr std::size_t room = 4096;  // what a socket has no room for is lost
            for (const Sim::Pdu& pdu : pdus) {
                if (toSay.size() < room) toSay.push_back(pdu);
            }
            watch = {};
            watch = owner.loop_.watch(event.get(), Runtime::FdLoop::Ready::readable, [this] { speak(); });
        }
        void speak() {
            constexpr int framesAtOnce = 16;  // as many as a port reads of its socket in one turn
            for (int i = 0; i < framesAtOnce && !toSay.empty(); ++i) {
                for (Port* port : std::vector{ports}) port->receiver(toSay.front());
                toSay.pop_front();
            }
            if (toSay.empty()) watch = {};
        }
        void hear(std::span<const std::uint8_t> pdu) {
            if (listener) listener(pdu);
            if (pdu.size() < 6 || (pdu[5] & 0xE0) != 0x20) return;
            ++owner.answers;
            say(declared);
        }
        AnsweringPorts& owner;
        std::vector<Port*> ports;  ///< the open ones: of two agents there may be two
        std::vector<Sim::Pdu> declared;
        std::deque<Sim::Pdu> toSay;
        std::function<void(std::span<const std::uint8_t>)> listener;
        Runtime::FileDescriptor event;
        Runtime::FdLoop::Watch watch;
    };
    struct Port : Mrp::PacketPort {
        Port(Peer& farEnd, Receiver r) : peer{farEnd}, receiver{std::move(r)} { peer.ports.push_back(this); }
        ~Port() override { std::erase(peer.ports, this); }
        bool send(std::span<const std::uint8_t> pdu) override {
            peer.hear(pdu);
            return true;
        }
        Peer& peer;
        Receiver receiver;
    };
    Peer& peer(IntfId intf) { return peers_.try_emplace(intf, *this).first->second; }

    Runtime::FdLoop& loop_;
    std::map<IntfId, Peer> peers_;
};

/// How late a timer comes, how long a readable descriptor waits, and how much of that the processor was at
/// work for this thread: other processes may take their share of the time, not of the work.
class Heartbeat {
public:
    explicit Heartbeat(Linux::EpollLoop& loop)
        : loop_{loop}, timer_{loop, [this] { beat(); }}, event_{eventfd(1, EFD_NONBLOCK)} {
        watch_ = loop.watch(event_.get(), Runtime::FdLoop::Ready::readable, [this] {
            const Runtime::Time now = loop_.now();
            const Runtime::Duration worked = work();
            if (read_ != Runtime::Time{}) {
                longestWait = std::max(longestWait, now - read_);
                longestWork = std::max(longestWork, worked - worked_);
            }
            read_ = now;
            worked_ = worked;
        });
        timer_.armIn(1ms);
    }
    Runtime::Duration latest{};
    Runtime::Duration longestWait{};
    Runtime::Duration longestWork{};

private:
    static Runtime::Duration work() {
        timespec t{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return std::chrono::seconds{t.tv_sec} + std::chrono::nanoseconds{t.tv_nsec};
    }
    void beat() {
        latest = std::max(latest, loop_.now() - timer_.when());
        timer_.armIn(1ms);
    }
    Linux::EpollLoop& loop_;
    Runtime::Timer timer_;
    Runtime::FileDescriptor event_;
    Runtime::FdLoop::Watch watch_;
    Runtime::Time read_{};
    Runtime::Duration worked_{};
};

/// Ports p1, p2 and so on, each a core port of both classes and fast enough for tens of thousands of streams.
class LiveSwitch {
public:
    explicit LiveSwitch(std::size_t portCount, std::uint32_t attributesPerType = 1'000'000) {
        bridge.mrpConfig->maxAttributesPerTypeIs(attributesPerType);
        bridge.mrpConfig->leaveAllTimeIs(600'000);
        for (std::size_t port = 1; port <= portCount; ++port) {
            names.push_back('p' + std::to_string(port));
            const auto intf = bridge.phy->intfStatusIs(IntfId{names.back()});
            intf->speedEnumIs(Interface::Speed::speed400Gbps);
            intf->linkStatusIs(Interface::LinkStatus::linkUp);
            bridge.vlanIs(2, names.back(), true);
            bridge.config->intfEnableIs(IntfId{names.back()}, true);
        }
        bridge.logSinkIs([this](const Runtime::LogEvent& event, std::string_view, const std::string& text) {
            ++logLines;
            logOctets += event.name.size() + 1 + text.size();
            if (!event.name.ends_with("_LV")) return;
            ++leaves;
            if (onLeave) onLeave(text);
        });
        bridge.start();
        settle();
        for (const std::string& name : names) ports.declare(IntfId{name}, Sim::pdusOf(Sim::domains()));
        settle();
    }
    /// The first so many streams are wanted on all ports from the second to that one.
    void reserve(std::size_t streams, std::size_t lastPort) {
        const auto listeners = join(Msrp::typeListener, 0, streams, Spacing::scattered);
        ports.declare(IntfId{names.front()}, join(Msrp::typeTalkerAdvertise, 0, streams, Spacing::scattered));
        settle();
        for (std::size_t port = 1; port < lastPort; ++port) {
            ports.declare(IntfId{names[port]}, listeners);
            settle();
        }
    }
    void settle() {
        loop.runUntil([this] { return ports.quiet(); }, 60s);
        wait(isShort() ? 30ms : 400ms);
    }
    void wait(Runtime::Duration span) {
        loop.runUntil([] { return false; }, span);
    }

    Linux::EpollLoop loop;
    AnsweringPorts ports{loop};
    std::vector<std::string> names;
    Sim::Bridge bridge{loop, {}, 1, &ports};
    std::uint64_t logLines = 0;
    std::uint64_t logOctets = 0;
    std::uint64_t leaves = 0;  ///< that the agent has logged
    std::function<void(const std::string& text)> onLeave;
};

}  // namespace Bench
