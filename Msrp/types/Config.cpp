#include "Msrp/types/Config.h"

template class State::Record<Msrp::Config>;
template class State::Record<Msrp::CliConfig>;
