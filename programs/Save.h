/// The save command of msrpctl: what was set at run time goes into a file that the daemon reads.
///
/// The daemon runs without privileges and may not write its configuration; it tells what differs, and the
/// operator's own program writes.
#pragma once

#include "State/Difference.h"
#include "State/Value.h"

#include <string>
#include <vector>

struct SaveResult {
    std::string problem;  ///< one line; then nothing was written
    std::string file;
    bool isRead = false;                    ///< the daemon reads that file
    std::vector<State::Difference> fields;  ///< that load otherwise now

    /// For people.
    [[nodiscard]] std::string text() const;
    /// For programs: "file", "isRead" and "fields", as `changesValue`.
    [[nodiscard]] State::Value value() const;
};

/// Adds to the file what the daemon says is `unsaved` (`Configuration::unsaved`), and writes it as a whole or
/// not at all; `file` is empty where the daemon is to choose.  Before that it is made sure that the files,
/// this one among them, load to what is wanted.
SaveResult save(const State::Value& unsaved, std::string file);
