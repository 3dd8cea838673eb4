#include "Linux/records/FenceStatus.h"

template class State::Record<Linux::PortFence>;
template class State::Record<Linux::FenceStatus>;
