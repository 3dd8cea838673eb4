#include "Linux/GroupStatus.h"

template class State::Record<Linux::GroupStatus>;
