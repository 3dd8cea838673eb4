/// Which of a port's queues are those of the SR classes, and what is reserved in them.
#pragma once

#include "Linux/queues/Credits.h"
#include "Switch/Domain.h"
#include "Switch/Qos.h"

#include <cstdint>

namespace Linux {

/// The priorities whose frames go into the classes' queues; bit n stands for priority n.
struct ClassPriorities {
    std::uint8_t a = 1U << 3;
    std::uint8_t b = 1U << 2;
    bool operator==(const ClassPriorities&) const = default;
};

/// The tables of priorities and queues, those in force and those of the hardware.
struct QueueTables {
    const Qos::Status& status;
    const Qos::HwStatus& hardware;
};

/// Class A has the queue of priority 3, class B that of priority 2, as is the rule in the records where their
/// rates are asked for.  Priorities that share a queue share its rate: where both classes have one queue, all
/// is class A's.
ClassPriorities classPriorities(const QueueTables& tables);
/// What one port's record asks for; null asks for nothing.
ClassRates wantedRates(const Qos::Input::IntfConfig* wanted, const QueueTables& tables);
/// The largest frames on a port whose frames carry at most `mtu` octets; null: of class A, none is known.
LargestFrames largestFrames(const Switch::DomainPort* port, std::uint32_t mtu);

}  // namespace Linux
