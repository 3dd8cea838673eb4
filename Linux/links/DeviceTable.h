/// Every Ethernet device of the machine, followed as it changes.
///
/// The kernel's table is read once and then followed by its notifications; when some of them are lost, it is
/// read again.  One change of the kernel's comes as several messages in no promised order, so they are merged
/// here, and watchers hear of differences only.
#pragma once

#include "Linux/kernel/Netlink.h"
#include "Linux/links/Device.h"
#include "Runtime/Loop.h"

#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace Linux {

/// Takes one line about something that an operator should know.
using Complaint = std::function<void(const std::string& line)>;
/// How such a line is to be taken, by syslog's numbers: what is wrong, and what is well.
enum class Tone : std::uint8_t { warning = 4, informational = 6 };
/// The same for those who tell of both.
using Report = std::function<void(Tone tone, const std::string& line)>;

class DeviceTable {
public:
    /// A device before and after a change; null where it did not exist, or does not any more.  A device that
    /// is renamed keeps its index.
    using Watcher = std::function<void(const Device* before, const Device* now)>;
    /// Octets of notifications that may wait; a thousand ports that change at once fit.
    static constexpr int defaultQueueBytes = 8 << 20;

    /// The loop must outlive the table.
    explicit DeviceTable(Runtime::FdLoop& loop, Complaint complaint = {});

    /// Reads the kernel's table and follows it from then on.  Empty on success.
    std::string start(int queueBytes = defaultQueueBytes);
    /// Reads everything again.
    void readAll();
    /// For what the kernel changes without a word: reads one bridge and its ports again, but for the modes of
    /// their links.
    void readBridge(unsigned ifindex);

    /// Watchers are told in the order in which they were added, never while they are being added, and must
    /// outlive the table's use.  A watcher may look into the table: it has changed already.
    void watch(Watcher watcher) { watchers_.push_back(std::move(watcher)); }

    /// Of which devices the link mode is known.  It has to be asked for, one device after the other, and most
    /// are none of ours.  Must outlive the table's use.
    void modesOf(std::function<bool(const Device& device)> wanted) { modesOf_.push_back(std::move(wanted)); }
    /// Asks for the mode of one that has come to be wanted.
    void learnMode(unsigned ifindex);

    /// Null where there is none.
    [[nodiscard]] const Device* find(unsigned ifindex) const;
    [[nodiscard]] const Device* find(std::string_view name) const;
    [[nodiscard]] const std::map<unsigned, Device>& all() const { return devices_; }
    /// The indexes of a bridge's ports.
    [[nodiscard]] const std::set<unsigned>& portsOf(unsigned bridge) const;

private:
    void notice(const nlmsghdr& message);
    /// A notification of the ethtool family: somebody set how a link runs.
    void speedNotice(const nlmsghdr& message);
    std::string followSpeeds();
    /// `keepsMode`: the link's mode is not asked for while there is the same link.
    void take(const LinkMessage& message, bool keepsMode = false);
    void askMode(Device& device);
    /// Enters what is known of a device now; null: it is gone.
    void put(unsigned ifindex, const Device* now);
    void index(const Device& device, bool there);

    const Complaint complaint_;
    NetlinkRequests requests_;
    NetlinkNotices notices_;
    NetlinkNotices speedNotices_;
    std::map<unsigned, Device> devices_;
    // So that what concerns one bridge does not cost a walk over all devices of the machine.
    std::map<std::string, std::set<unsigned>, std::less<>> byName_;  ///< two may seem to, for a moment
    std::map<unsigned, std::set<unsigned>> byBridge_;
    std::list<Watcher> watchers_;
    std::list<std::function<bool(const Device&)>> modesOf_;
    std::set<unsigned> modeUnknown_;  ///< and is asked for once more
    bool unread_ = false;
    /// Some drivers know the speed only a moment after the carrier, and do not tell when they do.  Also the
    /// second chance of a table that could not be read.
    Runtime::Timer again_;
    bool readingAgain_ = false;
};

}  // namespace Linux
