/// Carries out "bridging/input/config/msrp": keeps the wanted groups in the multicast table of the bridge
/// that "linux/config" names, and takes out of it what it put in and nobody wants any more.
///
/// It holds the table as it was read from the kernel, and follows the notifications of its changes.  A
/// change, of the record or of the table, marks an address; `apply` looks at the marked ones only, decides
/// what is to be different, and has that carried out (GroupWriter.h).  What the kernel refuses, or answers
/// otherwise than the table foretold, makes it read the table again.  Entries of others are never touched;
/// one that is there already fulfils a wish.
///
/// The kernel's table has a limit, and when it is exceeded the kernel stops snooping: every multicast frame
/// of the bridge is flooded from then on.  So entries that would come near to the limit are not even asked
/// for: `GroupPlaces` decides who gets the places that there are.  When the table overflows all the same,
/// snooping is switched on again as soon as there is room.  What listeners want and cannot get is told in
/// "switch/refusals".
#pragma once

#include "Linux/groups/GroupAudit.h"
#include "Linux/groups/GroupOutcomes.h"
#include "Linux/groups/GroupOwnership.h"
#include "Linux/groups/GroupPlaces.h"
#include "Linux/groups/GroupRefusals.h"
#include "Linux/groups/GroupWishes.h"
#include "Linux/groups/GroupWriter.h"
#include "Linux/groups/KernelGroups.h"
#include "Linux/groups/RouterPorts.h"
#include "Linux/groups/StrayGroups.h"
#include "Linux/kernel/Contention.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/links/DeviceTable.h"
#include "Linux/records/CapabilityStatus.h"
#include "Linux/records/Config.h"
#include "Linux/records/GroupStatus.h"
#include "Runtime/Loop.h"
#include "Switch/BridgingInput.h"
#include "Switch/Outcomes.h"

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

    struct Records {
        std::shared_ptr<const Config> config;
        std::shared_ptr<const Bridging::Input::Config> wanted;
        std::shared_ptr<GroupStatus> status;
        std::shared_ptr<Switch::Refusals> refusals;
        std::shared_ptr<const Switch::Outcomes> outcomes = std::make_shared<Switch::Outcomes>();
    };
    using Served = StrayGroups::Served;

    /// `loop`, `devices` and `requests` (of NETLINK_ROUTE) must outlive it, and `devices` is used no longer
    /// than it lives.  `wake` is called when there is something to apply, and may be called often.  `files`
    /// is what the paths of two files of this agent's own begin with.  Without `served`, nobody can tell
    /// whose the marked entries of another bridge are: they are told of and stay.
    GroupAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& requests, const Records& records,
               std::function<void()> wake, Report report, const std::string& files, Served served = {});

    /// Begins to follow the bridge, after `devices` was started.  `marks`: whether the kernel notes whose an
    /// entry is.  Empty on success.
    std::string start(Ability marks);
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
        std::map<GroupMember, GroupProblem> why;  ///< ... some could not be made
    };

    // What changes.
    void wishChanged(const State::Change& change);
    void deviceChanged(const Device* before, const Device* now);
    void lookAtBridge();
    /// The bridge `before` is not the switch any more, though it may live on under another name.
    void leaveBridge(const BridgeView& before);
    /// The kernel's table has (or no longer has) that entry, not by our doing.
    void tableChanged(const GroupMember& member, std::optional<GroupOwner> before,
                      std::optional<GroupOwner> now);
    void mark(EthAddr mac);
    void markAll();
    void wake();

    // What is done about it.
    Batch nextBatch();
    /// Enters who wants places for that address.
    void claim(EthAddr mac, const std::vector<WantedGroup>& wishes);
    void decide(EthAddr mac, Batch& batch, std::size_t& places);
    /// Why that entry cannot be asked for now.
    [[nodiscard]] std::optional<GroupProblem> obstacle(const WantedGroup& wish) const;
    void carryOut(Batch batch);
    /// What follows from the kernel's answer; why the entry is not there, if it is not.
    std::optional<GroupProblem> added(const GroupMember& member, const GroupWriter::Result& result);
    void deleted(const GroupMember& member, GroupReaction reaction);
    /// Tells listeners of that address whether they get what they want.
    void judge(EthAddr mac, const Batch& batch);
    void publish(Runtime::Time begin);
    /// Groups for which the table has room, whatever they are; some of it is left to others.
    [[nodiscard]] std::size_t limit() const;
    /// New groups that may be asked for.
    std::size_t freePlaces();
    /// Places for groups of ours.
    [[nodiscard]] std::size_t capacity() const;
    void useFreedPlaces();
    /// After our request overfilled the table: has the kernel snoop again, and takes back what was added
    /// last.
    void snoopAgain(const std::vector<GroupMember>& lastAdds);
    /// Deletes entries that cannot be named, if the kernel can.
    void flushStuck();
    void enlargeTable();

    // What is really there.
    void readTable();
    void readSoon();
    /// The kernel stops snooping without a word: looks whether it has, and whether it can begin again.
    void watchSnooping();
    void judgeSnooping();
    /// Looks for what earlier lives left on other bridges.
    void findLeftovers();
    std::vector<GroupFinding> findings(bool repair);
    /// What is not as it should be with the bridge itself.
    std::vector<GroupFinding> bridgeFindings(const std::set<GroupMember>& leftOut);
    void auditByTimer();

    void complain(const std::string& line) const { tell(Tone::warning, line); }
    void tell(Tone tone, const std::string& line) const;
    [[nodiscard]] std::string portName(unsigned port) const;

    Runtime::FdLoop& loop_;
    DeviceTable& devices_;
    NetlinkChannel& requests_;
    const std::shared_ptr<const Config> config_;
    const std::function<void()> wake_;
    const Report report_;
    const Served served_;
    const std::shared_ptr<const Switch::Outcomes> carriedOut_;
    GroupOutcomes outcomes_;
    GroupRefusals refusals_;
    GroupWishes wishes_;
    GroupOwnership ownership_;
    KernelGroups kernelGroups_;
    GroupWriter writer_;
    StrayGroups strays_;
    RouterPorts routers_;
    GroupPlaces places_;
    State::Reactor reactor_;

    bool started_ = false;
    bool woken_ = false;
    bool readDue_ = false;
    bool overfilled_ = false;  ///< snooping is off because the table was full
    bool stuck_ = false;       ///< there are entries that cannot be deleted by their names
    bool unsettled_ = false;   ///< places are still to be given and taken
    BridgeView view_;
    Contentions<GroupMember> contested_;
    std::optional<std::size_t> fullAt_;  ///< groups that were too many, whatever the bridge's limit says

    std::set<EthAddr> marked_;                  ///< to be looked at
    std::set<EthAddr> placeless_;               ///< wait until the kernel has freed their places
    std::map<EthAddr, Runtime::Time> waiting_;  ///< since when something that goes by itself is in their way
    std::set<EthAddr> unsure_;                  ///< wait for the table to be read
    std::set<GroupMember> inherited_;           ///< from an earlier life; kept until the grace ends
    std::set<EthAddr> delayed_;                 ///< wait for the end of the grace

    Runtime::Time lastRead_{};
    std::set<std::string> found_;                       ///< by the last audit
    std::optional<std::set<std::string>> differences_;  ///< that turn up while an audit reads the table
    Runtime::Timer again_;
    Runtime::Timer read_;
    Runtime::Timer graceEnd_;
    Runtime::Timer audit_;
    Runtime::Timer news_;
    Runtime::Timer snooping_;
    Runtime::Timer retry_;
};

}  // namespace Linux
