#include "Linux/Config.h"

template class State::Record<Linux::Config>;
