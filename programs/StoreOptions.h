/// What the daemon's configuration says of the store, as the rooms take it.
#pragma once

#include "Store/Config.h"
#include "Store/Finder.h"
#include "Store/Supervisor.h"

#include <set>
#include <string>

Store::Options storeOptions(const Store::Config& config);
/// Records that other programs may write in the store.
const std::set<std::string, std::less<>>& storeInputs();
/// For people; the machine's where it has none of its own.
std::string supervisorName(const Store::RedundancyConfig& config);
Store::Supervisor::Options supervisorOptions(const Store::Config& store,
                                             const Store::RedundancyConfig& redundancy);
