/// Shapes the queues of the bridge's ports to what the records ask for.
///
/// Records say what is reserved in a queue; the kernel's own tables, read at start and followed by its
/// notifications, say what there is.  Whatever changes, one comparison of the two (`planQueues`,
/// `planIngressMap`) says what to ask of the kernel, so a start, a change, a repair and an audit are the same
/// thing.  What is right already is left as it is: a restarted daemon interrupts nothing.
///
/// A port has its queues from when it becomes part of the classes' domain: to make them costs the frames that
/// wait in it, which a stream that comes or goes later must not.
///
/// Of a port's queues, those below a root with the configured handle are ours.  Somebody else's root is never
/// replaced.  Ours stays while the daemon runs, also when nothing is reserved any more, since taking it away
/// would cost frames; `stop` takes it away.
///
/// A port with a link that cannot give the classes their bandwidth is put on record, if possible before
/// somebody relies on it: from what the kernel has and can do, and from what it has refused (PortTrials.h).
#pragma once

#include "Linux/links/DeviceTable.h"
#include "Linux/queues/IngressMap.h"
#include "Linux/queues/PortQueues.h"
#include "Linux/queues/PortTrials.h"
#include "Linux/queues/QueuePlan.h"
#include "Linux/records/CapabilityStatus.h"
#include "Linux/records/Config.h"
#include "Runtime/Loop.h"
#include "Switch/Outcomes.h"
#include "Switch/Qos.h"
#include "Switch/Refusals.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Linux {

class ShaperAgent {
public:
    struct Records {
        std::shared_ptr<const Config> config;
        std::shared_ptr<const Qos::Input::Config> wanted;
        std::shared_ptr<const Qos::Status> status;
        std::shared_ptr<const Qos::HwStatus> hardware;
        /// Holds the machine's abilities when the agent starts; gets how each port is shaped.
        std::shared_ptr<CapabilityStatus> capabilities;
        /// Gets the ports that cannot be shaped, but for those that the configuration leaves alone.
        std::shared_ptr<Switch::Refusals> refusals;
        /// The ports that are part of the classes' domain, and the largest frames there.
        std::shared_ptr<const Switch::Domain> domain = std::make_shared<Switch::Domain>();
        /// Shared with those who have filters of their own there.
        std::shared_ptr<OwnPlaces> places = std::make_shared<OwnPlaces>();
        std::shared_ptr<const Switch::Outcomes> outcomes = std::make_shared<Switch::Outcomes>();
    };
    /// Longest time after a start until reservations that still hold are there again: a round of LeaveAll.
    static constexpr Runtime::Duration defaultSettling = std::chrono::seconds{20};
    /// After this time each port is compared with the kernel, whatever the kernel told of it.
    static constexpr Runtime::Duration auditInterval = std::chrono::seconds{30};

    /// `wake` is called when there is something to carry out: call `raise` and `lower` soon.  Loop, devices
    /// and kernel must outlive the agent; the devices are used no longer than it lives.
    ShaperAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& kernel, Records records,
                std::function<void()> wake, Report report = {});

    /// For `settling`, ports keep at least the bandwidth that an earlier life of the daemon left them.  Empty
    /// on success.
    std::string start(Runtime::Duration settling = defaultSettling, Runtime::Duration audit = auditInterval);
    /// Carries out what the records ask for, but takes nothing away from anybody.
    void raise();
    /// Carries out the rest.
    void lower();
    /// Reads everything anew; a line for each difference between records and kernel, which `repair` removes.
    [[nodiscard]] std::vector<std::string> audit(bool repair);
    /// The machine's abilities on record are others now: what was refused is tried again.
    void abilitiesChanged();
    /// Takes away all that is ours, and does nothing from then on.
    void stop();

private:
    struct Port {
        std::string name;
        PortQueues have;
        bool unread = true;           ///< `have` may not be what the kernel has
        bool adopted = false;         ///< read before
        ClassRates leftOver;          ///< shaped by an earlier life of the daemon
        std::uint16_t otherQueues{};  ///< that may be used for other traffic
        // As they were last made to be; nothing when that failed half-way.
        std::optional<WantedQueues> applied;
        std::optional<ClassPriorities> mapped;
        std::string ingressProblem;
        PortTrials trials;
    };
    struct Decision {
        WantedQueues queues;
        std::string why;       ///< why not better
        bool byTrial = false;  ///< nothing works, which another try may find otherwise
    };
    using Ports = std::map<unsigned, Port>;

    void deviceChanged(const Device* before, const Device* now);
    /// It is no port of ours any more; its queues are given back if it does not return at once.
    void depart(unsigned ifindex);
    void notice(const nlmsghdr& message);
    void readEverything();
    void auditSome();
    void tryAgain();

    /// Brings the ports and what the kernel has of them up to date.
    void refresh();
    void followMembers();
    /// Empty on success; else what went wrong, and another try is on its way.
    std::string read(unsigned ifindex, Port& port);
    /// Reads that port again; whether it is as it was.
    bool unchanged(unsigned ifindex, Port& port);
    void noticeDrift(unsigned ifindex, Port& port);

    void carryOut(bool lowering);
    [[nodiscard]] ClassRates targetRates(const Port& port, std::uint64_t portRate, bool lowering) const;
    /// How the port's queues should be; nothing where they are to be left alone.
    [[nodiscard]] std::optional<Decision> decide(const Port& port, const Device& device, bool lowering) const;
    void applyQueues(Port& port, const Device& device, bool lowering);
    void applied(Port& port, const Decision& decision, bool operational);
    [[nodiscard]] ClassPriorities mappedPriorities() const;
    void applyIngressMap(Port& port, const Device& device, ClassPriorities mapped);
    /// Where it was not known whether the kernel has the filters, it is now; without them no port gets
    /// credits.
    void learnFromFilters();
    void giveBack(unsigned ifindex, Port& port);
    /// Until one fails, whose answer it gives.
    NetlinkAnswer carryOut(Port& port, const std::vector<QueueStep>& steps);

    void publish(const Port& port, Shaper shaper, const std::string& why);
    /// Puts on record why the port cannot be relied upon; empty: it can.
    void refuse(const Port& port, const std::string& why);
    void armRetry();
    void complain(const std::string& line) const { tell(Tone::warning, line); }
    void tell(Tone tone, const std::string& line) const;
    [[nodiscard]] QueueTables tables() const { return {*records_.status, *records_.hardware}; }

    Runtime::FdLoop& loop_;
    DeviceTable& devices_;
    NetlinkChannel& kernel_;
    const Records records_;
    const std::function<void()> wake_;
    const Report report_;
    NetlinkNotices notices_;
    Ports ports_;
    Ports departed_;       ///< that left the bridge with queues of ours
    unsigned bridge_ = 0;  ///< as of the last look at the members
    bool membersStale_ = true;
    bool settling_ = false;
    bool running_ = false;
    Runtime::Duration auditInterval_{};
    Runtime::Timer settled_;
    Runtime::Timer again_;  ///< when a port is tried again
    Runtime::Timer audit_;
    unsigned auditNext_ = 0;  ///< port that the timed audit goes on with
    std::vector<State::Reactor> reactors_;
};

}  // namespace Linux
