/// What is worth watching of a running daemon, as metrics.  docs/user.md has their list.
///
/// Of many streams only their numbers are told, unless series of single ones are asked for: each of those is
/// to be kept by the one who asks, for as long as it keeps anything.
#pragma once

#include "Monitor/Mirror.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Monitor {

/// What the metrics are made of.
std::vector<Wanted> metricRecords(bool streams);

/// All metrics; `streams`: of so many streams, those with the lowest ids, series of their own.
std::string metrics(const Show::Snapshot& snapshot, std::size_t streams);
/// Of streams: those that have no series of their own because there are more than `streams`.
std::size_t omittedStreams(const Show::Snapshot& snapshot, std::size_t streams);

/// What is known whether the daemon is there or not.
std::string mirrorMetrics(const Mirror& mirror);

}  // namespace Monitor
