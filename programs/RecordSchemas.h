/// What the records of the daemon look like, by their paths: what `msrpctl get` and `watch` tell.
#pragma once

#include "State/Schema.h"

/// An object of all of them.
State::Schema recordSchemas();
