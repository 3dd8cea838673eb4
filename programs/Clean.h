/// The clean command of msrpctl: what a daemon that is gone has left in the kernel.
#pragma once

#include "Linux/doctor/Leftovers.h"

#include <string>

struct CleanResult {
    std::string problem;  ///< why it could not be looked for; empty: it could
    std::string lines;    ///< one for each thing that is left
    bool all = true;      ///< nothing that was to be removed has stayed
};

/// Tells what bears those marks, and with `remove` takes it away.  Not while a daemon keeps one of the
/// bridges.
CleanResult clean(const Linux::OwnMarks& marks, bool remove);
