/// One archive with all that somebody needs who is asked why a switch does what it does.
#pragma once

#include "State/Value.h"

#include <functional>
#include <string>

struct SupportRequest {
    std::string file;  ///< a compressed tar archive; must not exist
    /// What the running daemon answers; throws `Failure` where there is none.
    std::function<State::Value(const State::Value& request)> ask;
};

/// Throws `Failure` when the archive cannot be made, and then leaves nothing behind, nor does it when a
/// signal ends the process meanwhile.  What cannot be had is named in it ("missing").  It has records,
/// history, configuration, logs and the kernel's tables: names and addresses of this network, but neither
/// keys nor passwords, for there are none.
void support(const SupportRequest& request);
