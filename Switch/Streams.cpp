#include "Switch/Streams.h"

template class State::Record<Switch::Stream>;
template class State::Record<Switch::Streams>;
