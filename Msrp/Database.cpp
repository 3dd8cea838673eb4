#include "Msrp/Database.h"

#include "Mrp/AttributeRecords.h"
#include "Mrp/Records.h"
#include "Msrp/types/Census.h"
#include "Msrp/types/Config.h"
#include "Msrp/types/Status.h"
#include "Msrp/types/Waiting.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingInput.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Domain.h"
#include "Switch/Interface.h"
#include "Switch/Qos.h"
#include "Switch/Refusals.h"
#include "Switch/Stp.h"
#include "Switch/Streams.h"
#include "Switch/Time.h"

namespace Msrp {

void populate(State::Database& database) {
    database.entityIs<CliConfig>("msrp/cliConfig");
    database.entityIs<Config>("msrp/config");
    database.entityIs<Status>("msrp/status");
    database.entityIs<Census>("msrp/census");
    database.entityIs<Waiting>("msrp/waiting");
    database.entityIs<Mrp::MrpConfig>("mrp/config");
    database.entityIs<Mrp::MrpStatus>("mrp/status");
    database.entityIs<Mrp::AttributesStatus>("mrp/attributes");
    database.entityIs<Bridging::Config>("bridging/config");
    database.entityIs<Bridging::Input::Config>("bridging/input/config/msrp");
    database.entityIs<Bridging::Topology::Config>("bridging/topology/config");
    database.entityIs<Stp::Status>("stp/status");
    database.entityIs<Qos::Input::Config>("qos/input/config/msrp");
    database.entityIs<Qos::Status>("qos/status");
    database.entityIs<Qos::HwStatus>("qos/hardware/status/global");
    database.entityIs<Switch::Refusals>("switch/refusals");
    database.entityIs<Switch::TimeStatus>("switch/time");
    database.entityIs<Switch::Domain>("switch/domain");
    database.entityIs<Switch::Streams>("switch/streams");
    database.entityIs<Interface::AllIntfStatusDir>("interface/status/all");
    database.entityIs<Interface::AllIntfStatusLocalDir>("interface/status/local");
    database.entityIs<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    database.entityIs<Interface::EthIntfStatusDir>("interface/status/eth/intf");
}

}  // namespace Msrp
