/// Keeps frames from outside the classes' domain out of the classes' queues.
///
/// What comes in on a port with a class's priority, where the port is no core port for that priority, goes on
/// with priority 0: in this machine, and in its tag (IEEE 802.1Q 6.9.4).  A program that hangs where frames
/// come in does that, one for each set of priorities.  A record says which ports are core ports, the kernel's
/// own tables what hangs there; one comparison (`planFence`) says what to ask of the kernel, so a start, a
/// change, a repair and an audit are the same thing.
///
/// Frames to an address for streams that has no group in the bridge's table, ours or another's, would go to
/// all ports; they are dropped.  Where the configuration wants it, a core port's frames keep their priority
/// only if they belong to a stream whose talker is there.  For both, the programs look into a table.
///
/// The same programs count the frames of streams for `StreamMeter`, where that is wanted.
///
/// The fence stands from `start` to `stop`, and stays behind when the process dies.  The next life finds it
/// and changes it in place; for a while it also leaves open what was open, so that streams are not
/// interrupted by a restart.
#pragma once

#include "Linux/fence/FencePlan.h"
#include "Linux/fence/FenceProgram.h"
#include "Linux/fence/FenceTable.h"
#include "Linux/fence/StreamMeter.h"
#include "Linux/fence/TalkerPlaces.h"
#include "Linux/groups/KernelGroups.h"
#include "Linux/kernel/Contention.h"
#include "Linux/links/DeviceTable.h"
#include "Linux/queues/IngressMap.h"
#include "Linux/records/CapabilityStatus.h"
#include "Linux/records/Config.h"
#include "Linux/records/FenceStatus.h"
#include "Runtime/Loop.h"
#include "Switch/Domain.h"
#include "Switch/VlanMembers.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Linux {

class FenceAgent {
public:
    /// Whether another daemon keeps the bridge of that name.
    using Served = std::function<bool(const std::string& bridge)>;
    struct Records {
        std::shared_ptr<const Config> config;
        std::shared_ptr<const Switch::Domain> domain;
        /// Of the streams that are registered.
        std::shared_ptr<const Bridging::Input::Config> groups;
        std::shared_ptr<const Bridging::VlanRequests> vlans;
        std::shared_ptr<const CapabilityStatus> capabilities;
        /// Gets what each port's fence keeps out.
        std::shared_ptr<FenceStatus> status;
        /// Of those that are registered, and what flows of them.
        std::shared_ptr<const Switch::Streams> streams;
        std::shared_ptr<TrafficStatus> traffic;
        std::shared_ptr<OwnPlaces> places = std::make_shared<OwnPlaces>();
    };
    /// Longest time after a start until a peer inside the domain has said so again: it hears a LeaveAll.
    static constexpr Runtime::Duration defaultSettling = std::chrono::seconds{5};
    /// After this time each port is compared with the kernel, whatever the kernel told of it.
    static constexpr Runtime::Duration auditInterval = std::chrono::seconds{30};
    /// What failed is tried again after this time, and then less and less often.
    static constexpr Runtime::Duration firstRetry = std::chrono::seconds{1};
    static constexpr Runtime::Duration lastRetry = std::chrono::hours{1};

    /// `wake` is called when there is something to carry out: call `apply` soon.  Loop, devices and kernel
    /// must outlive the agent; the devices are used no longer than it lives.
    FenceAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& kernel, Records records,
               std::function<void()> wake, Report report = {},
               std::uint32_t tableRoom = FenceTable::defaultRoom, Served served = {});

    /// For `settling`, ports leave open what an earlier life left open.  Empty on success.
    std::string start(Runtime::Duration settling = defaultSettling, Runtime::Duration audit = auditInterval);
    /// Carries out what the records ask for.
    void apply();
    /// Reads everything anew; a line for each difference between records and kernel, which `repair` removes.
    [[nodiscard]] std::vector<std::string> audit(bool repair);
    /// The machine's abilities on record are others now: what failed is tried again.
    void abilitiesChanged();
    /// Takes away all that is ours, and does nothing from then on.
    void stop();

private:
    struct Port {
        std::string name;
        FencePlace have;
        bool unread = true;          ///< `have` may not be what the kernel has
        bool adopted = false;        ///< read before
        bool inherited = false;      ///< an earlier life of the daemon had made a fence there
        std::uint8_t leftOpen = 0;   ///< by an earlier life of the daemon; bit n is priority n
        std::optional<Filter> made;  ///< the filter that was last made to be there
        Contention changed;          ///< by somebody else
        std::string problem;
        std::optional<Runtime::Time> due;  ///< when it is tried again; until then it is left alone
        Runtime::Duration patience = firstRetry;
    };
    using Ports = std::map<unsigned, Port>;

    void deviceChanged(const Device* before, const Device* now);
    void notice(const nlmsghdr& message);
    /// Something changed that `apply` has to look at.
    void stir();
    void readEverything();
    void auditSome();

    /// An earlier life may have left a fence on ports that are none of the bridge's any more.
    void takeBackStrays();
    /// Begins to measure streams where that is wanted and does not go on yet.
    void tryMeter();
    void followMembers();
    /// The bridge has come, gone, or is another one.
    void bridgeIs(const Device* bridge);
    void portMoved(unsigned ifindex, IntfId name, bool there);
    void streamMoved(const StreamAddress& stream, IntfId port, bool there);
    void groupChanged(const GroupMember& member);
    /// Brings the table that programs look into up to date, a piece at a time.
    void fillTable(std::size_t changes);
    [[nodiscard]] bool guards() const;
    [[nodiscard]] bool usesTable() const { return records_.config->fence() != Fencing::none; }
    /// False when it could not be read, or is somebody else's for now; then another try is on its way.
    bool read(unsigned ifindex, Port& port);
    bool noticeDrift(unsigned ifindex, Port& port);
    void apply(unsigned ifindex, Port& port);
    void settle();
    /// What the port's fence should be; nothing for no fence at all.
    [[nodiscard]] std::optional<FenceRules> rulesFor(Port& port) const;
    /// The filter for these rules.  Empty on success, else why there is none.
    std::string filterFor(unsigned ifindex, const FenceRules& rules, std::optional<Filter>& filter);
    NetlinkAnswer carryOut(unsigned ifindex, Port& port, const std::optional<Filter>& wanted);
    void giveBack(unsigned ifindex, Port& port);

    void failed(Port& port, const std::string& why, Runtime::Duration wait);
    void failed(Port& port, const std::string& why);
    void publish(Port& port, std::uint8_t closed, const std::string& problem);
    void armRetry();
    void tell(Tone tone, const std::string& line) const;

    Runtime::FdLoop& loop_;
    DeviceTable& devices_;
    NetlinkChannel& kernel_;
    const Records records_;
    const std::function<void()> wake_;
    const Report report_;
    const Served served_;
    NetlinkNotices notices_;
    Ports ports_;
    std::map<FenceRules, LoadedProgram> programs_;
    FenceTable table_;
    TalkerPlaces talkers_;
    KernelGroups groups_;
    StreamMeter meter_;
    bool meterRefused_ = false;  ///< the kernel takes no program that measures
    bool groupsUnread_ = false;
    std::map<IntfId, unsigned> indexes_;     ///< of the ports
    std::optional<Runtime::Time> tableDue_;  ///< when it is tried again
    Runtime::Duration tablePatience_ = firstRetry;
    unsigned bridge_ = 0;  ///< as of the last look at the members
    bool membersStale_ = true;
    bool stirred_ = false;  ///< since the last `apply`
    bool running_ = false;
    Runtime::Duration auditInterval_{};
    Runtime::Timer settled_;
    Runtime::Timer again_;  ///< when a port is tried again
    Runtime::Timer audit_;
    unsigned auditNext_ = 0;  ///< port that the timed audit goes on with
    std::vector<State::Reactor> reactors_;
};

}  // namespace Linux
