#include "Mrp/Records.h"

template class State::Record<Mrp::MrpConfig>;
template class State::Record<Mrp::MrpIntfStatus>;
template class State::Record<Mrp::MrpStatus>;
