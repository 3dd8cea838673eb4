/// The claims that keep a second daemon of this machine off the ports that this one runs.
#pragma once

#include "Linux/kernel/Claims.h"
#include "Msrp/types/Config.h"
#include "Mvrp/Records.h"
#include "State/Value.h"

#include <memory>
#include <string>
#include <string_view>

class PortClaims {
public:
    using Patience = Linux::Claims::Patience;

    /// Gives a claim back when neither protocol is to run on the port any more.
    PortClaims(Linux::Claims& claims, std::shared_ptr<const Msrp::Config> msrp,
               std::shared_ptr<const Mvrp::Config> mvrp);

    /// Others of other names may have the same ports.  Before any is claimed.
    void sharedAs(const std::string& name) { suffix_ = " as " + name; }
    /// Claims the ports that a record or a patch of it, `record`, turns on by their names: all of them or
    /// none. Records that turn on none are welcome.  Empty on success, else one line that names record and
    /// port.
    std::string take(std::string_view path, const State::Value& record, Patience patience);
    /// Claims one port; empty on success.
    std::string take(IntfId port) { return claims_.take(claim(port.name()), Patience::none); }
    [[nodiscard]] bool has(IntfId port) const { return claims_.has(claim(port.name())); }
    /// Gives that port's claim back if nothing is to run there.
    void settle(IntfId port);

private:
    [[nodiscard]] std::string claim(const std::string& port) const { return "port " + port + suffix_; }

    Linux::Claims& claims_;
    std::string suffix_;
    const std::shared_ptr<const Msrp::Config> msrp_;
    const std::shared_ptr<const Mvrp::Config> mvrp_;
    State::Reactor msrpReactor_;
    State::Reactor mvrpReactor_;
};
