#include "Linux/Dataplane.h"

#include "Linux/Capabilities.h"

namespace Linux {

Dataplane::Dataplane(Runtime::FdLoop& loop, DeviceTable& devices, const Records& records,
                     const std::string& files, const Complaint& complaint, const GroupAgent::Served& served)
    : loop_{loop},
      complaint_{complaint},
      capabilities_{records.capabilities},
      bridge_{loop,        devices,  requests_, records.config, records.bridging, records.topology,
              records.stp, complaint},
      groups_{loop,
              devices,
              requests_,
              {records.config, records.groups, records.groupStatus, records.refusals},
              [this] { wake(); },
              complaint,
              files,
              served},
      queues_{
          loop,
          devices,
          requests_,
          {records.config, records.queues, records.queueMap, records.hardwareQueueMap, records.capabilities},
          [this] { wake(); },
          complaint} {}

std::string Dataplane::start() {
    std::string problem = requests_.open();
    if (!problem.empty()) return problem;
    capabilities_->abilitiesAre(probeAbilities());
    for (const std::string& line : limitations(capabilities_->abilities())) complaint_(line);
    problem = bridge_.start();
    if (problem.empty()) problem = groups_.start(capabilities_->abilities().groupOwner);
    if (problem.empty()) problem = queues_.start();
    return problem;
}

void Dataplane::stop() {
    groups_.withdraw();
    queues_.stop();
}

std::vector<std::string> Dataplane::audit(bool repair) {
    std::vector<std::string> differences = groups_.audit(repair);
    const std::vector<std::string> more = queues_.audit(repair);
    differences.insert(differences.end(), more.begin(), more.end());
    return differences;
}

void Dataplane::wake() {
    if (woken_) return;
    woken_ = true;
    loop_.post([this] { carryOut(); });
}

void Dataplane::carryOut() {
    woken_ = false;
    queues_.raise();
    groups_.apply();
    queues_.lower();
}

}  // namespace Linux
