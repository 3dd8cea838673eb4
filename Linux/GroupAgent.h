/// Carries out "bridging/input/config/msrp": keeps the wanted groups in the multicast table of the bridge
/// that "linux/config" names, and takes out of it what it put in and nobody wants any more.
///
/// It holds the table as it was read from the kernel, and follows the notifications of its changes.  A
/// change, of the record or of the table, marks an address; `apply` looks at the marked ones only, and asks
/// the kernel for the difference.  What the kernel refuses, or answers otherwise than the table foretold,
/// makes it read the table again.  Entries of others are never touched; one that is there already fulfils a
/// wish.
///
/// The kernel's table has a limit, and when it is exceeded the kernel stops snooping: every multicast frame
/// of the bridge is flooded from then on.  So entries that would come near to the limit are not even asked
/// for.
#pragma once

#include "Linux/Config.h"
#include "Linux/DeviceTable.h"
#include "Linux/GroupAudit.h"
#include "Linux/GroupDrift.h"
#include "Linux/GroupJournal.h"
#include "Linux/GroupLedger.h"
#include "Linux/GroupMirror.h"
#include "Linux/GroupStatus.h"
#include "Linux/GroupWanted.h"
#include "Linux/Netlink.h"
#include "Runtime/Loop.h"
#include "Switch/BridgingInput.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Linux {

class GroupAgent {
public:
    /// For so long after the start nothing is deleted that an earlier life left: it is likely to be wanted
    /// again as soon as the streams have registered anew.
    static constexpr std::chrono::milliseconds grace{1500};
    static constexpr std::chrono::seconds auditInterval{30};
    /// Places in the bridge's table that are left to others.
    static constexpr std::uint32_t margin = 16;

    /// `loop`, `devices` and `requests` (of NETLINK_ROUTE) must outlive it, and `devices` is used no longer
    /// than it lives.  `wake` is called when there is something to apply, and may be called often.  `journal`
    /// is the path of a file of this agent's own, made only if the kernel cannot mark entries as ours.
    GroupAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& requests,
               std::shared_ptr<const Config> config, std::shared_ptr<const Bridging::Input::Config> wanted,
               std::shared_ptr<GroupStatus> status, std::function<void()> wake, Complaint complaint,
               std::string journal);

    /// Begins to follow the bridge, after `devices` was started.  Empty on success.
    std::string start();
    /// Asks the kernel for what is to be changed, for a few milliseconds at most; if some is left, it calls
    /// `wake` in a later turn.
    void apply();
    /// Reads the kernel's table and the bridge's settings and names every difference, one line each; what is
    /// just being changed is none.  `repair`: and sets it right, with the next `apply`.
    std::vector<std::string> audit(bool repair);
    /// Deletes all entries of ours at once, for a clean end, and does nothing from then on.
    void withdraw();

private:
    /// One exchange with the kernel.
    struct Batch {
        std::map<EthAddr, std::vector<WantedGroup>> wishes;  ///< of the addresses that are looked at
        std::vector<GroupMember> adds;
        std::vector<GroupMember> deletes;
        std::map<GroupMember, std::string> why;  ///< ... some could not be made
    };

    // What changes.
    void wishChanged(const State::Change& change);
    void deviceChanged(const Device* before, const Device* now);
    void lookAtBridge();
    /// The kernel's table has (or no longer has) that entry, not by our doing.
    void tableChanged(const GroupMember& member, std::optional<GroupOwner> before,
                      std::optional<GroupOwner> now);
    void mark(EthAddr mac);
    void markAll();
    void wake();

    // What is done about it.
    Batch nextBatch();
    void decide(EthAddr mac, Batch& batch, std::size_t& places);
    /// Why that entry cannot be asked for now; empty: it can.
    [[nodiscard]] std::string obstacle(const GroupMember& member) const;
    void carryOut(Batch batch);
    std::optional<std::string> added(const GroupMember& member, const NetlinkAnswer& answer, bool& full);
    void deleted(const GroupMember& member, const NetlinkAnswer& answer);
    void forget(const GroupMember& member);
    /// New groups that may be asked for.
    std::size_t freePlaces();
    void useFreedPlaces();
    /// After our request overfilled the table: has the kernel snoop again, and takes back what was added
    /// last.
    void snoopAgain(const std::vector<GroupMember>& lastAdds);
    /// Deletes entries of ours; what went wrong.
    std::string remove(const std::vector<GroupMember>& members);
    void enlargeTable();

    // What is really there.
    [[nodiscard]] GroupOwner ownerOf(const GroupEntry& entry) const;
    void readTable();
    void readSoon();
    std::vector<GroupFinding> findings(bool repair);
    void auditByTimer();
    void writeJournal();

    void complain(const std::string& line) const;
    [[nodiscard]] std::string portName(unsigned port) const;

    Runtime::FdLoop& loop_;
    DeviceTable& devices_;
    NetlinkChannel& requests_;
    const std::shared_ptr<const Config> config_;
    const std::shared_ptr<const Bridging::Input::Config> wanted_;
    const std::function<void()> wake_;
    const Complaint complaint_;
    GroupLedger ledger_;
    GroupJournal journal_;
    std::string journalProblem_;
    GroupMirror mirror_;
    State::Reactor reactor_;

    bool started_ = false;
    BridgeView view_;
    bool marksEntries_ = true;
    GroupDrift drift_;
    std::optional<std::size_t> fullAt_;  ///< groups that were too many, whatever the bridge's limit says
    std::map<VlanId, std::weak_ptr<const Bridging::Input::FdbConfig>> vlans_;

    std::set<EthAddr> marked_;         ///< to be looked at
    std::set<EthAddr> placeless_;      ///< wait for a place in the table
    std::set<EthAddr> unsure_;         ///< wait for the table to be read
    std::set<GroupMember> inherited_;  ///< from an earlier life; kept until the grace ends
    std::set<EthAddr> delayed_;        ///< wait for the end of the grace

    bool woken_ = false;
    bool readDue_ = false;
    Runtime::Time lastRead_{};
    std::set<std::string> found_;  ///< by the last audit
    Runtime::Timer again_;
    Runtime::Timer read_;
    Runtime::Timer graceEnd_;
    Runtime::Timer audit_;
    Runtime::Timer news_;
};

}  // namespace Linux
