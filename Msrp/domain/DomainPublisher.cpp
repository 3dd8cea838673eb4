#include "Msrp/domain/DomainPublisher.h"

#include <utility>
#include <vector>

namespace Msrp {

namespace {

struct ClassPriority {
    SrClassId srClass;
    Cos priority;
};

std::vector<ClassPriority> supportedPriorities(const CliConfig& config) {
    std::vector<ClassPriority> supported;
    if (config.srClassASupported())
        supported.push_back({SrClassId::SrClassA, Cos{config.srClassAPriority()}});
    if (config.srClassBSupported())
        supported.push_back({SrClassId::SrClassB, Cos{config.srClassBPriority()}});
    return supported;
}

/// Takes out of a field what does not belong to any of the classes.
template <class Del>
void keepOnly(const std::vector<ClassPriority>& supported, const State::FlatMap<Cos, bool>& field,
              Del&& del) {
    for (auto held = field.firstKey(); held; held = field.nextKey(*held)) {
        bool wanted = false;
        for (const auto& [srClass, priority] : supported) wanted = wanted || priority == *held;
        if (!wanted) del(*held);
    }
}

}  // namespace

DomainPublisher::DomainPublisher(std::shared_ptr<const CliConfig> config,
                                 std::shared_ptr<const Status> status, std::shared_ptr<Switch::Domain> domain)
    : config_{std::move(config)}, status_{std::move(status)}, domain_{std::move(domain)} {
    configChanged_ = config_->react([this](const State::Change&) { publishAll(); });
    portsChanged_ = status_->react([this](const State::Change& change) {
        if (const auto* intf = change.key<IntfId>()) follow(*intf);
    });
    status_->intfStatus().each([this](IntfId intf, const auto&) { follow(intf); });
}

DomainPublisher::~DomainPublisher() { standbyModeIs(true); }

void DomainPublisher::standbyModeIs(bool standby) {
    if (standby == standby_) return;
    standby_ = standby;
    if (standby) {
        domain_->portDelAll();
    } else {
        publishAll();
    }
}

void DomainPublisher::follow(IntfId intf) {
    if (const auto intfStatus = status_->intfStatus(intf)) {
        classesChanged_[intf] = intfStatus->react([this, intf](const State::Change& change) {
            if (change.field == State::fieldName<IntfStatus>("srClassState")) publish(intf);
        });
    } else {
        classesChanged_.erase(intf);
    }
    publish(intf);
}

void DomainPublisher::publishAll() {
    if (standby_) return;
    const auto supported = supportedPriorities(*config_);
    for (const auto& [srClass, priority] : supported) domain_->classPriorityIs(priority);
    keepOnly(supported, domain_->classPriority(),
             [this](Cos priority) { domain_->classPriorityDel(priority); });
    status_->intfStatus().each([this](IntfId intf, const auto&) { publish(intf); });
}

void DomainPublisher::publish(IntfId intf) {
    if (standby_) return;
    const auto intfStatus = status_->intfStatus(intf);
    if (!intfStatus) return domain_->portDel(intf);
    const auto supported = supportedPriorities(*config_);
    const auto port = domain_->portIs(intf);
    State::FlatMap<Cos, bool> core;
    for (const auto& [srClass, priority] : supported) {
        // Classes that share a priority share the queue, and so its boundary.
        const bool own = intfStatus->srClassState(srClass) == SrClassState::Core;
        core.set(priority, own && core.get(priority, true));
    }
    for (const auto& [priority, own] : core) port->coreIs(priority, own);
    keepOnly(supported, port->core(), [&](Cos priority) { port->coreDel(priority); });
}

}  // namespace Msrp
