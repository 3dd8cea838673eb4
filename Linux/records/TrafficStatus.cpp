#include "Linux/records/TrafficStatus.h"

template class State::Record<Linux::StreamTraffic>;
template class State::Record<Linux::TrafficStatus>;
