#include "Control/Client.h"
#include "Monitor/HttpRequest.h"
#include "Monitor/MetricText.h"
#include "Monitor/MibTables.h"
#include "Monitor/Mirror.h"
#include "Runtime/Delays.h"
#include "Runtime/VirtualLoop.h"
#include "tests/control/TemporaryDirectory.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Monitor::MetricText;
using Monitor::MibCell;
using Monitor::SubIds;

TEST(MetricText, HasAHeadForEachFamilyWithSamplesAndEscapesWhatOthersName) {
    MetricText text;
    text.family("a_total", MetricText::Kind::counter, "Back\\slash and\nline.");
    text.sample({{"port", "s\"w\\p\n1"}, {"x", ""}}, State::Value{UINT64_MAX});
    text.sample({}, State::Value{"no number"});
    text.family("nothing", MetricText::Kind::gauge, "Left out.");
    text.sample({}, State::Value{});
    text.family("b", MetricText::Kind::gauge, "B.");
    text.sample({}, State::Value{true});
    text.sample({}, State::Value{std::uint64_t{9088}}, 125.0);
    text.family("c_seconds", MetricText::Kind::histogram, "C.");
    Runtime::Delays delays;
    for (const Runtime::Duration delay :
         {Runtime::Duration{0}, Runtime::Duration{100us}, Runtime::Duration{2s}})
        delays.add(delay);
    text.delays(delays.value());
    EXPECT_EQ(text.take(), R"(# HELP a_total Back\\slash and\nline.
# TYPE a_total counter
a_total{port="s\"w\\p\n1",x=""} 18446744073709551615
# HELP b B.
# TYPE b gauge
b 1
b 1136000
# HELP c_seconds C.
# TYPE c_seconds histogram
c_seconds_bucket{le="0.0001"} 2
c_seconds_bucket{le="0.0003"} 2
c_seconds_bucket{le="0.001"} 2
c_seconds_bucket{le="0.003"} 2
c_seconds_bucket{le="0.01"} 2
c_seconds_bucket{le="0.03"} 2
c_seconds_bucket{le="0.1"} 2
c_seconds_bucket{le="0.3"} 2
c_seconds_bucket{le="1"} 2
c_seconds_bucket{le="+Inf"} 3
c_seconds_sum 2.0001
c_seconds_count 3
)");
}

TEST(HttpRequest, EndsItsHeadWhereverItIsCutAndNeverReadsBehindIt) {
    for (const std::string head :
         {"GET /metrics?x=1 HTTP/1.1\r\nhOST: a\r\n\r\n", "GET /metrics HTTP/1.0\n\n"}) {
        for (std::size_t length = 0; length < head.size(); ++length)
            EXPECT_EQ(Monitor::headLength(head.substr(0, length)), 0U) << length;
        EXPECT_EQ(Monitor::headLength(head + "more\r\n\r\n"), head.size());
        EXPECT_EQ(Monitor::parseHttpRequest(head).path, "/metrics");
        // No noise in it is more than a refusal.
        std::mt19937 random{1};
        for (int i = 0; i < 20'000; ++i) {
            std::string noisy = head;
            for (int n = 0; n < 3; ++n) noisy[random() % noisy.size()] = static_cast<char>(random());
            const auto request =
                Monitor::parseHttpRequest(std::string_view{noisy}.substr(0, random() % noisy.size()));
            EXPECT_NE(request.problem == 0, request.path.empty());
        }
    }
}

/// Every name, near and far from those that there are, finds what a search through all of them finds.
TEST(MibTables, FindsTheInstanceOfANameAndTheOneBehindIt) {
    std::mt19937 random{7};
    std::map<SubIds, MibCell> all;
    Monitor::MibTables tables;
    for (const SubIds& entry : {SubIds{1, 3, 1}, SubIds{1, 3, 2, 1}, SubIds{1, 4, 1}, SubIds{1, 5}}) {
        std::vector<Monitor::MibRow> rows;
        for (std::uint32_t n = 0; entry.size() > 2 && n < 6; ++n) {
            Monitor::MibRow row;
            row.index.add(n * 2);
            row.index.addOctets(0x100 + n, 2);
            for (std::uint32_t column = 1; column <= 3; ++column) {
                if (random() % 4 == 0) continue;  // a hole
                row.column(column) = Monitor::gaugeCell(random());
                SubIds name = entry;
                name.insert(name.end(), {column, n * 2, 1, n});
                all[name] = row.column(column);
            }
            rows.insert(rows.begin() + static_cast<long>(random() % (rows.size() + 1)), row);
        }
        tables.add(entry, std::move(rows));
    }
    for (int i = 0; i < 200'000; ++i) {
        SubIds name;
        for (std::size_t length = random() % 9; name.size() < length;)
            name.push_back(static_cast<std::uint32_t>(random() % 50 == 0 ? random() : random() % 12));
        if (name.size() > 2 && random() % 2 == 0) std::copy_n(SubIds{1, 3, 1}.begin(), 3, name.begin());
        if (random() % 4 == 0) name = std::next(all.begin(), static_cast<long>(random() % all.size()))->first;
        const auto same = all.find(name);
        EXPECT_EQ(tables.get(name), same != all.end() ? same->second : MibCell{});
        const auto behind = all.upper_bound(name);
        const auto found = tables.next(name);
        ASSERT_EQ(found.has_value(), behind != all.end());
        if (found) {
            EXPECT_EQ(std::pair(found->name, found->cell), std::pair(behind->first, behind->second));
        }
    }
}

TEST(Mirror, WaitsForAnAnswerInPiecesNoLongerThanForAWholeOne) {
    const TemporaryDirectory directory;
    sockaddr_un place{.sun_family = AF_UNIX, .sun_path = {}};
    directory.file("control").copy(place.sun_path, sizeof place.sun_path - 1);
    const Runtime::FileDescriptor listening{::socket(AF_UNIX, SOCK_STREAM, 0)};
    ASSERT_EQ(::bind(listening.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place), 0);
    ASSERT_EQ(::listen(listening.get(), 1), 0);
    std::thread daemon{[&] {
        const Runtime::FileDescriptor peer{::accept(listening.get(), nullptr, nullptr)};
        for (int n = 0; n < 50 && ::send(peer.get(), " ", 1, MSG_NOSIGNAL) == 1; ++n)
            std::this_thread::sleep_for(100ms);
    }};
    {
        Control::Client client;
        EXPECT_EQ(client.connect(place.sun_path), "");
        State::Value reply;
        EXPECT_EQ(client.receive(reply, 1),
                  "socket " + directory.file("control") + ": no answer within 1 seconds");
    }
    daemon.join();
}

TEST(Mirror, LooksForADaemonThatIsAwayOnceASecond) {
    Runtime::VirtualLoop loop;
    Monitor::Mirror mirror{loop, "/nowhere/control", {{"log"}}};
    for (int tenth = 0; tenth < 30; ++tenth) {
        EXPECT_EQ(mirror.fresh(), nullptr);
        loop.runFor(100ms);
    }
    EXPECT_EQ(mirror.fetches(), 3U);
    EXPECT_EQ(mirror.failures(), 3U);
    EXPECT_EQ(mirror.problem(), "socket /nowhere/control: No such file or directory");
}

}  // namespace
