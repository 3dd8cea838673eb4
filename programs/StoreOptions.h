/// What the daemon's configuration says of the store, as the rooms take it.
#pragma once

#include "Store/Config.h"
#include "Store/Link.h"
#include "Store/Supervisor.h"

#include <set>
#include <string>

Store::Link::Options linkOptions(const Store::Config& config);
/// Records that other programs may write in the store.
const std::set<std::string, std::less<>>& storeInputs();
/// All but the link.
Store::Supervisor::Options supervisorOptions(const Store::Config& store,
                                             const Store::RedundancyConfig& redundancy);
