#include "Linux/Dataplane.h"

#include "Linux/queues/ShaperChoice.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <chrono>

namespace Linux {

namespace {

/// While something is missing that is wanted, the kernel is looked at again, less and less often: a probe is
/// a process of its own.
constexpr std::chrono::minutes firstProbe{1};
constexpr std::chrono::hours lastProbe{1};

}  // namespace

Dataplane::Dataplane(Runtime::FdLoop& loop, DeviceTable& devices, const Records& records,
                     const std::string& files, const Report& report, const GroupAgent::Served& served)
    : loop_{loop},
      report_{report},
      config_{records.config},
      capabilities_{records.capabilities},
      probe_{loop, [this](const Abilities& abilities) { probed(abilities); }},
      modules_{loop,
               [this] {
                   if (lacking()) probe();
               }},
      probeAgain_{loop, [this] { probe(); }},
      bridge_{loop,
              devices,
              requests_,
              records.config,
              records.bridging,
              records.topology,
              records.stp,
              [report](const std::string& line) { report(Tone::warning, line); }},
      vlans_{loop, devices, requests_, bridge_, records.vlans, records.vlanMembers, report, files},
      groups_{loop,
              devices,
              requests_,
              {records.config, records.groups, records.groupStatus, records.refusals, records.outcomes},
              [this] { wake(); },
              report,
              files,
              served},
      queues_{loop,
              devices,
              requests_,
              {records.config, records.queues, records.queueMap, records.hardwareQueueMap,
               records.capabilities, records.refusals, records.domain, places_, records.outcomes},
              [this] { wake(); },
              report},
      fence_{loop,
             devices,
             requests_,
             {records.config, records.domain, records.groups, records.vlans, records.capabilities,
              records.fence, records.streams, records.traffic, places_},
             [this] { wake(); },
             report,
             FenceTable::defaultRoom,
             served} {}

std::string Dataplane::start() {
    std::string problem = requests_.open();
    if (!problem.empty()) return problem;
    capabilities_->abilitiesAre(probeAbilities());
    for (const std::string& line : limitations(capabilities_->abilities())) report_(Tone::warning, line);
    patience_ = firstProbe;
    if (lacking()) probeAgain_.armIn(patience_);
    problem = fence_.start();
    if (problem.empty()) problem = bridge_.start();
    if (problem.empty()) problem = groups_.start(capabilities_->abilities().groupOwner);
    if (problem.empty()) problem = queues_.start();
    if (problem.empty()) vlans_.start();
    if (!problem.empty()) stop();
    return problem;
}

void Dataplane::stop() {
    probeAgain_.cancel();
    vlans_.stop();
    groups_.withdraw();
    queues_.stop();
    fence_.stop();
}

std::vector<std::string> Dataplane::audit(bool repair) {
    if (repair) probe();
    std::vector<std::string> differences = groups_.audit(repair);
    for (const auto& more : {queues_.audit(repair), fence_.audit(repair), vlans_.audit(repair)})
        differences.insert(differences.end(), more.begin(), more.end());
    return differences;
}

bool Dataplane::lacking() const {
    const Abilities& abilities = capabilities_->abilities();
    return lacksAbility(config_->shaping(), abilities) ||
           ((config_->fence() != Fencing::none || config_->streams() != Metering::none) &&
            abilities.ebpf != Ability::present);
}

void Dataplane::probe() { probe_.start(); }

void Dataplane::probed(const Abilities& abilities) {
    const Abilities before = capabilities_->abilities();
    // A probe that came to nothing says nothing.
    if (abilities != Abilities{} && abilities != before) {
        capabilities_->abilitiesAre(abilities);
        for (const auto& [name, ability] : CapabilityStatus::abilityFields) {
            if (abilities.*ability == before.*ability) continue;
            const bool gained = abilities.*ability == Ability::present;
            report_(
                gained ? Tone::informational : Tone::warning,
                Runtime::concat("this kernel: ", name, " is ", State::enumText(abilities.*ability), " now"));
        }
        patience_ = firstProbe;
        queues_.abilitiesChanged();
        fence_.abilitiesChanged();
    }
    if (!lacking()) return;
    probeAgain_.armIn(patience_);
    patience_ = std::min<Runtime::Duration>(patience_ * 2, lastProbe);
}

void Dataplane::wake() {
    if (std::exchange(woken_, true)) return;
    loop_.post([this, life = std::weak_ptr{life_}] {
        if (!life.expired()) carryOut();
    });
}

void Dataplane::carryOut() {
    woken_ = false;
    fence_.apply();
    queues_.raise();
    groups_.apply();
    queues_.lower();
}

}  // namespace Linux
