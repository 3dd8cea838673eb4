/// The clean command of msrpctl: what a daemon that is gone has left in the kernel.
#pragma once

#include "Linux/doctor/Leftovers.h"
#include "State/Schema.h"
#include "State/Value.h"

#include <string>
#include <vector>

struct CleanResult {
    std::string problem;  ///< why it could not be looked for; empty: it could
    struct Thing {
        std::string device;
        std::string what;
        bool removed = false;
        std::string problem{};  ///< why it stays although it was to be removed
    };
    std::vector<Thing> things;  ///< that are left, or were
    bool all = true;            ///< nothing that was to be removed has stayed

    /// For people, a line for each thing.
    [[nodiscard]] std::string text() const;
    /// For programs.
    [[nodiscard]] State::Value value() const;
    static State::Schema schema();
};

/// Tells what bears those marks, and with `remove` takes it away.  Not while a daemon keeps one of the
/// bridges.
CleanResult clean(const Linux::OwnMarks& marks, bool remove);
