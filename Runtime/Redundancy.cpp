#include "Runtime/Redundancy.h"

template class State::Record<Redundancy::RedundancyStatus>;
