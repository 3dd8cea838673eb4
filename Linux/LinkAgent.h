/// Keeps the records of Ethernet interfaces true: existence, link, own address, speed.
///
/// The kernel's table of devices is read once and then followed by its notifications; when some of them are
/// lost, it is read again.  A device is known to the kernel by its index and to the records by its name: a
/// rename, a removal and a return under the same name all end up as "which index bears that name now".
#pragma once

#include "Linux/LinkMessage.h"
#include "Linux/Netlink.h"
#include "Runtime/Loop.h"
#include "Switch/Interface.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Linux {

class LinkAgent {
public:
    /// Told at every event of a followed interface: the kernel's index of it (0: it does not exist) and its
    /// own address.  Told before its record says that the link is up.
    using Placed = std::function<void(IntfId intf, unsigned ifindex, EthAddr mac)>;
    /// Takes one line about something that an operator should know.
    using Complaint = std::function<void(const std::string& line)>;
    /// Octets of notifications that may wait; a thousand ports that change at once fit.
    static constexpr int defaultQueueBytes = 8 << 20;

    /// `names` holds the followed interfaces that exist; may be null.  The loop must outlive the agent.
    LinkAgent(Runtime::FdLoop& loop, std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status,
              std::shared_ptr<Interface::EthIntfStatusDir> names, Placed placed, Complaint complaint = {});

    /// Reads the kernel's table and follows it from then on.  Empty on success.
    std::string start(int queueBytes = defaultQueueBytes);

    /// Keeps that interface's record.  One that does not exist has its record too, with its link down.
    void followIs(IntfId intf);
    /// Ends it and deletes the record.
    void followDel(IntfId intf);
    /// The speed that the operator gave.  It wins over what the kernel says, since a virtual interface claims
    /// speeds that mean nothing; `speedUnknown` takes it back.
    void configuredSpeedIs(IntfId intf, Interface::Speed speed);

private:
    void notice(const nlmsghdr& message);
    void readAll();
    [[nodiscard]] const LinkMessage* find(const std::string& name) const;
    /// Brings the record of that name, if it is followed, in line with what is known.
    void publish(const std::string& name);
    void publish(IntfId intf);
    void publishAbsent(IntfId intf);
    [[nodiscard]] Interface::Speed speed(IntfId intf, const LinkMessage& link) const;

    const std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status_;
    const std::shared_ptr<Interface::EthIntfStatusDir> names_;
    const Placed placed_;
    const Complaint complaint_;
    NetlinkRequests requests_;
    NetlinkNotices notices_;
    std::map<unsigned, LinkMessage> links_;  ///< every Ethernet device of the machine, by index
    std::map<IntfId, unsigned> followed_;    ///< and the index that it was last published with
    std::map<IntfId, Interface::Speed> configuredSpeed_;
    /// Some drivers know the speed only a moment after the carrier, and do not tell when they do.  Also the
    /// second chance of a table that could not be read.
    Runtime::Timer again_;
    bool readingAgain_ = false;
};

}  // namespace Linux
