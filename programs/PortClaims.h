/// The claims that keep a second daemon of this machine off the ports that this one runs.
#pragma once

#include "Linux/kernel/Claims.h"
#include "State/Value.h"

#include <string>

class PortClaims {
public:
    using Patience = Linux::Claims::Patience;

    explicit PortClaims(Linux::Claims& claims) : claims_{claims} {}

    /// Claims the ports that `enable`, the "intfEnable" of "msrp/config" or of a patch of it, turns on: all
    /// of them or none.  Null enables nothing.  Empty on success, else one line that names record and port.
    std::string take(const State::Value* enable, Patience patience);
    void giveBack(const std::string& port) { claims_.giveBack(claim(port)); }

private:
    static std::string claim(const std::string& port) { return "port " + port; }

    Linux::Claims& claims_;
};
