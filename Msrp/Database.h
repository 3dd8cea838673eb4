/// The records that a switch with a stream reservation agent has, and where they stand.
#pragma once

#include "State/Database.h"

namespace Msrp {

/// Makes every record that the agent shares with the switch's other agents and with the operator, all with
/// their defaults.  Records that are there already stay.
void populate(State::Database& database);

}  // namespace Msrp
