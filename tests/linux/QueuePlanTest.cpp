#include "Linux/queues/PortTrials.h"
#include "Linux/queues/QueuePlan.h"
#include "Linux/queues/ShaperChoice.h"
#include "Runtime/Text.h"
#include "tests/linux/Golden.h"

#include <linux/rtnetlink.h>

using Linux::Ability;
using Linux::ClassRates;
using Linux::PortQueues;
using Linux::Shaper;
using Linux::Shaping;

namespace {

TEST(Credits, AreThoseOfTheStandardsFormulas) {
    using Case = std::tuple<std::uint64_t, ClassRates, Linux::LargestFrames, Linux::Credits, Linux::Credits>;
    const Linux::LargestFrames some{342};
    for (const auto& [portRate, rates, frames, a, b] : std::to_array<Case>({
             {100'000, {30'000, 10'000}, some, {30'000, -70'000, 463, -1080}, {10'000, -90'000, 255, -1388}},
             {1'000'000,
              {75'000, 20'000},
              some,
              {75'000, -925'000, 116, -1427},
              {20'000, -980'000, 41, -1512}},
             {1'000'000,
              {450'000, 300'000},
              {},
              {450'000, -550'000, 694, -849},
              {300'000, -700'000, 1304, -1080}},
             // The most that records and links can hold: nothing overflows.
             {2'147'483'647,
              {600'000'000, 600'000'000},
              {},
              {600'000'000, -1'547'483'647, 431, -1112},
              {600'000'000, -1'547'483'647, 1029, -1112}},
         })) {
        EXPECT_EQ(Linux::classACredits(portRate, rates, frames), a) << portRate;
        EXPECT_EQ(Linux::classBCredits(portRate, rates, frames), b) << portRate;
    }
}

/// One port, whose kernel carries out everything.
struct Port {
    /// Makes the queues as wanted; the differences that there were, a line for each.
    std::string settle(Shaper shaper, ClassRates rates, std::uint64_t portRate = 1'000'000) {
        const Linux::WantedQueues wanted{11,         0x100, shaper, portRate, rates,
                                         priorities, 2,     false,  ready,    frames};
        std::string differences = carriedOut(Linux::planQueues(wanted, have));
        EXPECT_EQ(carriedOut(Linux::planQueues(wanted, have)), "") << "after that, nothing is left to do";
        if (shaper != Shaper::none) {
            EXPECT_EQ(Linux::shapedRates(have, 0x100), rates);
        }
        return differences;
    }
    std::string carriedOut(const std::vector<Linux::QueueStep>& steps) {
        std::string lines;
        for (const auto& step : steps) {
            lines += step.difference + '\n';
            const auto& request = *reinterpret_cast<const nlmsghdr*>(step.request.bytes().data());
            if (const auto qdisc = Linux::decodeQdisc(request); qdisc && request.nlmsg_type == RTM_NEWQDISC) {
                const auto* shaper = std::get_if<Linux::CreditShaper>(&qdisc->options);
                EXPECT_TRUE(shaper == nullptr || shaper->credits.idleSlope > 0) << "hangs the kernel";
            }
            have.take(request);
        }
        return lines;
    }
    PortQueues have;
    Linux::ClassPriorities priorities;
    bool ready = false;
    Linux::LargestFrames frames;
};

TEST(QueuePlan, ChangesCreditsInPlaceAndInTheOrderThatKeepsPromises) {
    Port port;
    EXPECT_EQ(port.settle(Shaper::software, {}), "") << "without a reservation the port is left as it is";
    EXPECT_EQ(port.settle(Shaper::software, {75'000, 20'000}),
              "the queues are not set up\nclass A is not shaped to 75000 kbit/s\n"
              "class B is not shaped to 20000 kbit/s\n");
    EXPECT_EQ(port.settle(Shaper::software, {150'000, 20'000}),
              "class A is shaped to 75000 kbit/s instead of 150000\n"
              "class B is shaped to 20000 kbit/s as it should be, but its credits differ\n");
    EXPECT_EQ(port.settle(Shaper::software, {75'000, 10'000}),
              "class B is shaped to 20000 kbit/s instead of 10000\nclass A is shaped to 150000 kbit/s "
              "instead of 75000\n");
    EXPECT_EQ(port.settle(Shaper::software, {75'000, 10'000}, 10'000'000),
              "class B is shaped to 10000 kbit/s as it should be, but its credits differ\n"
              "class A is shaped to 75000 kbit/s as it should be, but its credits differ\n")
        << "another speed";
    port.frames.a = 342;
    EXPECT_EQ(port.settle(Shaper::software, {75'000, 10'000}, 10'000'000),
              "class B is shaped to 10000 kbit/s as it should be, but its credits differ\n");
    EXPECT_EQ(port.settle(Shaper::software, {0, 10'000}, 10'000'000), "class A is still shaped\n");
    EXPECT_EQ(port.settle(Shaper::software, {}, 10'000'000), "class B is still shaped\n") << "the root stays";
    EXPECT_EQ(port.settle(Shaper::software, {0, 5000}, 10'000'000), "class B is not shaped to 5000 kbit/s\n");
    port.priorities = {1U << 5, 1U << 4};
    EXPECT_EQ(port.settle(Shaper::hardware, {75'000, 0}),
              "the queues are set up otherwise\nthe queues are not set up\n"
              "class A is not shaped to 75000 kbit/s\nclass B has no queue\n");
    EXPECT_EQ(port.settle(Shaper::none, {}), "the queues are still set up\n");
    EXPECT_EQ(port.have, PortQueues{});
    port.ready = true;
    EXPECT_EQ(port.settle(Shaper::software, {}),
              "the queues are not set up\nclass B has no queue\nclass A has no queue\n");
}

TEST(ShaperChoice, IsTheBestThatIsAllowedAndWorks) {
    Linux::Abilities noCbs;
    noCbs.cbs = Ability::absent;
    Linux::Abilities nothing = noCbs;
    nothing.htb = Ability::absent;
    Linux::Abilities noFlower;
    noFlower.flower = Ability::absent;
    const Linux::ShaperRefusals offload{"unheard of", "", ""};
    const auto choose = [](Shaping allowed, const Linux::Abilities& abilities, const Linux::PortTraits& port,
                           const Linux::ShaperRefusals& refusals = {}) {
        const auto [shaper, why] = Linux::chooseShaper(allowed, abilities, port, refusals);
        return Runtime::concat(State::enumText(shaper), why.empty() ? "" : ", ", why);
    };
    EXPECT_EQ(choose(Shaping::automatic, {}, {4}), "hardware");
    EXPECT_EQ(choose(Shaping::automatic, {}, {4}, offload), "software, no credits in hardware: unheard of");
    EXPECT_EQ(choose(Shaping::hardware, {}, {4}, offload), "none, no credits in hardware: unheard of");
    EXPECT_EQ(choose(Shaping::software, {}, {4}, offload), "software");
    EXPECT_EQ(choose(Shaping::automatic, {}, {1}), "htb, no credits in hardware: 1 of 3 transmit queues");
    EXPECT_EQ(choose(Shaping::automatic, nothing, {4}),
              "none, no credits in hardware: the kernel has no cbs; no token buckets: the kernel has no htb");
    EXPECT_EQ(choose(Shaping::none, {}, {4}), "none, switched off by configuration");
    // Behind a switch chip only its driver can do anything, and sorts frames by itself.
    EXPECT_EQ(choose(Shaping::automatic, noFlower, {4, true}), "hardware");
    EXPECT_EQ(choose(Shaping::automatic, {}, {4, true}, offload).substr(0, 5), "none,");
    // Else somebody has to sort them, or credits are given to queues which nothing reaches.
    EXPECT_EQ(choose(Shaping::automatic, noFlower, {4}),
              "htb, no credits in hardware: the kernel has no flower filters");
    EXPECT_EQ(choose(Shaping::software, noFlower, {4, false, false}), "software");
    EXPECT_TRUE(Linux::lacksAbility(Shaping::automatic, noCbs));
    EXPECT_FALSE(Linux::lacksAbility(Shaping::none, noCbs));
}

TEST(PortTrials, AreMadeInGrowingDistanceWhileTheyFail) {
    using namespace std::chrono_literals;
    Linux::PortTrials trials;
    Runtime::Time now{1h};
    const auto distance = [&](auto&& fail) {
        const Runtime::Time from = now;
        now = trials.due().value_or(now);
        trials.begin(now, false);
        fail();
        return std::chrono::duration_cast<std::chrono::seconds>(now - from).count();
    };
    const auto refuse = [&] {
        trials.wayRefused(Shaper::htb, "no");
        trials.gaveUp(now, {1000, 0});
    };
    std::string distances;
    for (int i = 0; i < 8; ++i) distances += std::to_string(distance(refuse)) + ' ';
    EXPECT_EQ(distances, "0 60 120 240 480 960 1920 3600 ");
    EXPECT_EQ(trials.asked(), (ClassRates{1000, 0})) << "is what the next try is made with";
    trials.begin(*trials.due(), false);
    EXPECT_TRUE(trials.worked());
    EXPECT_EQ(trials.asked(), ClassRates{});

    trials.beginAnew();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(trials.problem(), "") << "it may pass";
        distance([&] { trials.failed(now, "busy"); });
    }
    EXPECT_EQ(trials.problem(), "busy");
    trials.beginAnew();
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(trials.mayRepair(now));
    EXPECT_FALSE(trials.mayRepair(now));
    EXPECT_TRUE(trials.leftAlone());
    EXPECT_FALSE(trials.begin(now + 59s, false));
    EXPECT_TRUE(trials.begin(now + 60s, false));
    EXPECT_FALSE(trials.leftAlone());
}

TEST(SrQueues, AreThoseOfPriorities3And2WithAllThatShareThem) {
    Qos::Status status;
    Qos::HwStatus hardware;
    Qos::Input::IntfConfig port{IntfId{"p1"}};
    const auto reserve = [&](std::uint8_t queue, std::uint64_t rate) {
        port.txQueueConfigIs({queue, Qos::TxQueueType::unicast}, 2, Qos::noPercent, {ShapeRateVal{rate}, 0},
                             Qos::noGuaranteedBw);
    };
    const Linux::QueueTables tables{status, hardware};
    const auto wanted = [&](const Qos::Input::IntfConfig* config) {
        const auto [a, b] = Linux::wantedRates(config, tables);
        const auto priorities = Linux::classPriorities(tables);
        return Runtime::concat(a, ' ', b, " by ", unsigned{priorities.a}, ' ', unsigned{priorities.b});
    };
    reserve(7, 75'000);
    EXPECT_EQ(wanted(&port), "75000 0 by 8 4");
    reserve(6, 20'000);
    EXPECT_EQ(wanted(&port), "75000 20000 by 8 4");
    status.cosToTcIs(Cos{2}, TrafficClass{7});  // one queue for both
    EXPECT_EQ(wanted(&port), "75000 0 by 12 0");
    EXPECT_EQ(wanted(nullptr), "0 0 by 12 0");
}

}  // namespace
