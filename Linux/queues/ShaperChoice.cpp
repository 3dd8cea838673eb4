#include "Linux/queues/ShaperChoice.h"

#include "Runtime/Text.h"

#include <vector>

namespace Linux {

namespace {

using Runtime::concat;

/// Two for the SR classes and one for the rest.
constexpr unsigned neededQueues = 3;

std::vector<Shaper> waysOf(Shaping allowed) {
    switch (allowed) {
        case Shaping::automatic:
            return {Shaper::hardware, Shaper::software, Shaper::htb};
        case Shaping::hardware:
            return {Shaper::hardware};
        case Shaping::software:
            return {Shaper::software};
        case Shaping::htb:
            return {Shaper::htb};
        case Shaping::none:
            break;
    }
    return {};
}

/// What is against a way of shaping, before it is tried.
std::string objection(Shaper way, const Abilities& abilities, const PortTraits& port) {
    if (port.inSwitchChip && way != Shaper::hardware)
        return "a switch chip forwards, past the kernel's queues";
    const auto lacks = [](Ability ability) { return ability == Ability::absent; };
    if (way == Shaper::htb) {
        if (lacks(abilities.htb)) return "the kernel has no htb";
        if (lacks(abilities.bpf)) return "the kernel has no bpf filters";
        return {};
    }
    if (lacks(abilities.mqprio)) return "the kernel has no mqprio";
    if (lacks(abilities.cbs)) return "the kernel has no cbs";
    if (port.tagsChoose && !port.inSwitchChip) {
        // Without them forwarded frames would all go through the queue of other traffic.
        if (lacks(abilities.clsact)) return "the kernel has no clsact";
        if (lacks(abilities.flower)) return "the kernel has no flower filters";
    }
    if (port.txQueues < neededQueues) return concat(port.txQueues, " of 3 transmit queues");
    return {};
}

constexpr std::array<std::string_view, 3> wayNames{"credits in hardware", "credits in software",
                                                   "token buckets"};

}  // namespace

ShaperChoice chooseShaper(Shaping allowed, const Abilities& abilities, const PortTraits& port,
                          const ShaperRefusals& refusals) {
    if (allowed == Shaping::none) return {Shaper::none, "switched off by configuration"};
    std::string why;
    std::string before;
    for (const Shaper way : waysOf(allowed)) {
        const auto index = static_cast<std::size_t>(way);
        std::string against = objection(way, abilities, port);
        if (against.empty()) against = refusals.at(index);
        if (against.empty()) return {way, why};
        // What is against credits at all need not be said twice.
        if (against != before)
            why += concat(why.empty() ? "no " : "; no ", wayNames.at(index), ": ", against);
        before = std::move(against);
    }
    return {Shaper::none, why};
}

bool lacksAbility(Shaping allowed, const Abilities& abilities) {
    const auto missing = [](Ability ability) { return ability != Ability::present; };
    if (allowed == Shaping::none) return false;
    if (allowed == Shaping::htb) return missing(abilities.htb) || missing(abilities.bpf);
    return missing(abilities.mqprio) || missing(abilities.cbs) || missing(abilities.clsact) ||
           missing(abilities.flower);
}

}  // namespace Linux
