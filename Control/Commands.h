/// What the daemon can be asked to do, beside reading and writing its records: by the name that stands in a
/// request's "op".
#pragma once

#include "Control/Peer.h"
#include "Control/RecordAccess.h"
#include "State/Value.h"

#include <functional>
#include <map>
#include <string>

namespace Control {

struct Command {
    /// Takes the whole request; runs on the loop, so it should not take long.
    std::function<Answer(const State::Value& request, const Peer& who)> run;
    /// Changes nothing, whatever is in the request, so that those who may only read may ask for it.
    bool reads = false;
};
using Commands = std::map<std::string, Command, std::less<>>;

}  // namespace Control
