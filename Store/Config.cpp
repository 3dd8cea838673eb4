#include "Store/Config.h"

template class State::Record<Store::Config>;
template class State::Record<Store::RedundancyConfig>;
