/// Lets the priority in the tag of an incoming frame choose the queue that it leaves through.
///
/// A bridge hands frames on without a priority in this machine, so that all of them would share the queue of
/// other traffic.  A filter on each port copies the SR classes' priorities from the tag.
#pragma once

#include "Linux/queues/PortQueues.h"
#include "Linux/queues/QueuePlan.h"
#include "Linux/queues/SrQueues.h"

#include <set>
#include <vector>

namespace Linux {

/// Ports (interface indexes) whose place for filters of incoming packets is of our making: whoever of us
/// takes the last filter away takes the place away, too.
using OwnPlaces = std::set<unsigned>;

/// What has to be asked of the kernel so that exactly the priorities of `mapped` are copied.  Our filters are
/// those with our mark; all others stay as they are, and so does what holds the filters once it is there.
std::vector<QueueStep> planIngressMap(unsigned ifindex, ClassPriorities mapped, const PortQueues& have);
/// Whether filters of ours are there.
bool mapsIngress(const PortQueues& have);
/// That takes away what holds the filters, and all that are in it.
std::vector<QueueStep> planIngressRemoval(const PortQueues& have);

}  // namespace Linux
