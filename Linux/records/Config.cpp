#include "Linux/records/Config.h"

template class State::Record<Linux::Config>;
