/// Follows the records that the state machine reads, and calls its handlers when they change.
///
/// Records of ports and topologies come and go, so each has a follower of its own, which goes with it.
#pragma once

#include "State/Entity.h"
#include "Switch/IntfId.h"
#include "Switch/TopologyLibrary.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Msrp {

class MsrpSm;

class InputFollowers {
public:
    explicit InputFollowers(MsrpSm& sm) : sm_{sm} {}

    /// Follows all records, also those of ports and topologies that are there already.
    void start();
    void stop();
    /// All notifications off or on.
    void hasNotificationActiveIs(bool active);
    /// Follows the record of a switch port that has come or was replaced; none: it has gone.
    void switchIntfConfigIs(IntfId intf);
    /// The port of that topology, or null.
    [[nodiscard]] const Bridging::Topology::TopoPort* topoPort(const std::string& name, IntfId intf) const;

private:
    struct TopoPort {
        std::shared_ptr<const Bridging::Topology::TopoPort> port;
        State::Reactor reactor;
    };
    struct Topo {
        std::shared_ptr<const Bridging::Topology::Topo> topo;
        State::Reactor reactor;
        std::map<IntfId, TopoPort> port;
    };

    void intfStatusIs(IntfId intf);
    void topoIs(const std::string& name);
    void topoDel(const std::string& name);
    void topoPortIs(const std::string& name, IntfId intf);
    void topoPortDel(const std::string& name, IntfId intf);

    MsrpSm& sm_;
    std::vector<State::Reactor> whole_;  ///< of the records that always are there
    std::map<IntfId, State::Reactor> intf_;
    std::map<IntfId, State::Reactor> switchIntf_;
    std::map<std::string, Topo> topo_;
};

}  // namespace Msrp
