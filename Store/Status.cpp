#include "Store/Status.h"

template class State::Record<Store::Status>;
