#include "Plan/explore/Walk.h"

#include "Plan/explore/Copies.h"
#include "Plan/explore/Small.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <random>
#include <sstream>

namespace Plan {

using Runtime::concat;

namespace {

constexpr std::uint64_t stepsOfALife = 200;

std::string networkOf(std::uint64_t seed) { return concat("random-", seed); }

Act randomAct(const Network& network, const std::function<std::size_t(std::size_t)>& pick) {
    const auto bridge = [&] {
        std::size_t device = pick(network.devices.size());
        while (!network.devices[device].bridge) device = (device + 1) % network.devices.size();
        return device;
    };
    Act act{.what = pick(network.streams.size())};
    const auto& listeners = network.streams[act.what].listeners;
    const std::size_t chance = pick(100);
    if (chance < 30) {
        act.kind = pick(3) == 0 ? Act::Kind::hush : Act::Kind::talk;
    } else if (chance < 65) {
        act.kind = pick(3) == 0 ? Act::Kind::leave : Act::Kind::listen;
        act.station = listeners[pick(listeners.size())];
    } else if (chance < 85) {
        act = {.kind = pick(3) == 0 ? Act::Kind::cut : Act::Kind::mend, .what = pick(network.links.size())};
    } else if (chance < 90) {
        act = {.kind = pick(2) == 0 ? Act::Kind::restart : Act::Kind::takeover, .what = bridge()};
    } else if (chance < 94) {
        act = {.kind = Act::Kind::leaveall, .what = bridge()};
    } else {
        act = {.kind = pick(2) == 0 ? Act::Kind::lose : Act::Kind::late,
               .what = pick(network.links.size()),
               .end = static_cast<int>(pick(2)),
               .number = static_cast<unsigned>(1 + pick(4))};
    }
    return act;
}

}  // namespace

Story lifeOf(const Network& network, std::uint64_t seed) {
    std::mt19937_64 random{seed};
    const auto pick = [&random](std::size_t below) { return static_cast<std::size_t>(random() % below); };
    Story story;
    for (std::uint64_t step = 0; step < stepsOfALife;) {
        if (pick(3) == 0)
            story.push_back({.kind = Act::Kind::loss, .number = static_cast<unsigned>(pick(20))});
        for (std::size_t left = 1 + pick(12); left > 0; --left, ++step) {
            story.push_back(randomAct(network, pick));
            if (pick(2) == 0)
                story.push_back({.kind = Act::Kind::wait, .span = std::chrono::milliseconds{pick(500)}});
        }
        story.push_back({.kind = Act::Kind::loss, .number = 0});
        story.push_back({.kind = Act::Kind::settle});
    }
    return story;
}

Walked walk(const WalkOptions& options, const Wrong& wrong) {
    const std::uint64_t lives = (options.steps + stepsOfALife - 1) / stepsOfALife;
    const Deadline deadline{options.limit};
    bool died = false;
    // Lines: "lived NUMBER", "fault NUMBER".
    const auto share = [&](unsigned, Shared& shared) {
        std::string out;
        Copy copy;
        for (std::uint64_t at = shared.next++; at < lives && !shared.stop; at = shared.next++) {
            const auto network = networkNamed(networkOf(options.seed + at));
            const Story story = lifeOf(*network, options.seed + at);
            bool ended = false;
            const std::string fault = copy.answer([&] { return judge(*network, story, wrong); }, ended);
            out += concat(fault.empty() ? "lived " : "fault ", at, '\n');
            if (!fault.empty() || deadline.passed()) shared.stop = true;
        }
        return out;
    };
    std::istringstream lines{together(options.copies, share, died)};
    Walked walked;
    std::uint64_t first = UINT64_MAX;
    if (died) walked.fault = lines.str();
    std::string kind;
    for (std::uint64_t at = 0; !died && lines >> kind >> at; ++walked.lives) {
        if (kind == "fault") first = std::min(first, at);
    }
    walked.steps = walked.lives * stepsOfALife;
    if (first == UINT64_MAX) return walked;
    walked.network = networkOf(options.seed + first);
    const auto network = networkNamed(walked.network);
    walked.story = shortestFailing(*network, lifeOf(*network, options.seed + first), wrong, walked.fault);
    return walked;
}

std::string walkedText(const WalkOptions& options, const Walked& walked) {
    std::string out =
        concat(walked.steps, " steps in ", walked.lives, " lives from seed ", options.seed, '\n');
    if (walked.fault.empty()) return out;
    const auto network = networkNamed(walked.network);
    if (network)
        out += concat("wrong in ", walked.network, " after: ", storyText(*network, walked.story), '\n');
    return out + walked.fault;
}

}  // namespace Plan
