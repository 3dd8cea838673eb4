/// Keeps the records of Ethernet interfaces true: existence, link, own address, speed.
///
/// A device is known to the kernel by its index and to the records by its name: a rename, a removal and a
/// return under the same name all end up as "which index bears that name now".
#pragma once

#include "Linux/links/DeviceTable.h"
#include "Switch/Interface.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Linux {

class LinkAgent {
public:
    /// Told at every event of a followed interface, and before its record says that the link is up.
    using Placed = std::function<void(IntfId intf, const Place& place)>;

    /// `names` holds the followed interfaces that exist; may be null.  Follows `devices` from now on; the
    /// table is used no longer than the agent lives.
    LinkAgent(DeviceTable& devices, std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status,
              std::shared_ptr<Interface::EthIntfStatusDir> names, Placed placed);

    /// Keeps that interface's record.  One that does not exist has its record too, with its link down.
    void followIs(IntfId intf);
    /// Ends it and deletes the record.
    void followDel(IntfId intf);
    /// The speed that the operator gave.  It wins over what the kernel says, since a virtual interface claims
    /// speeds that mean nothing; `speedUnknown` takes it back.
    void configuredSpeedIs(IntfId intf, Interface::Speed speed);

private:
    /// Brings the record of that name, if it is followed, in line with what is known.
    void publish(const std::string& name);
    void publish(IntfId intf);
    void publishAbsent(IntfId intf);
    [[nodiscard]] Interface::Speed speed(IntfId intf, const Device& device) const;

    DeviceTable& devices_;
    const std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status_;
    const std::shared_ptr<Interface::EthIntfStatusDir> names_;
    const Placed placed_;
    std::map<IntfId, unsigned> followed_;  ///< and and the index that it was last published with
    std::map<IntfId, Interface::Speed> configuredSpeed_;
};

}  // namespace Linux
