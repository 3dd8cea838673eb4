#include "Linux/records/GroupStatus.h"

template class State::Record<Linux::GroupStatus>;
