#include "Mrp/Records.h"

#include "Mrp/AttributeRecords.h"

template class State::Record<Mrp::MrpConfig>;
template class State::Record<Mrp::MrpIntfStatus>;
template class State::Record<Mrp::MrpStatus>;
template class State::Record<Mrp::IntfAttributes>;
template class State::Record<Mrp::AttributesStatus>;
