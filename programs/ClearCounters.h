/// Sets what counts events to zero, for an operator who wants to see what happens from now on.
#pragma once

#include "State/Database.h"

/// The counters in the records of all ports.  Nothing decides by them; who reads them at intervals sees a
/// number become smaller, as after a restart.
void clearCounters(State::Database& database);
