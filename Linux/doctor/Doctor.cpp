#include "Linux/doctor/Doctor.h"

#include "Linux/queues/ShaperChoice.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <utility>

namespace Linux {

using Runtime::concat;

namespace {

/// Frames of the reservation protocol go to 01:80:c2:00:00:0e.
constexpr unsigned protocolGroup = 1U << 14;
constexpr std::uint32_t slowestAvb = 100;  ///< Mbit/s
constexpr std::uint32_t fullFrame = 1500;  ///< octets
/// A LeaveAll of every type of attribute cannot be divided.
constexpr std::uint32_t smallestPdu = 106;
constexpr PortTraits plentyOfQueues{16};
/// Of the multicast table: below the first nothing is entered any more, since a table that overflows makes
/// the kernel give up filtering; the second is room for the day.
constexpr std::size_t placesKept = 16;
constexpr std::size_t placesWanted = 256;
constexpr std::size_t usualTable = 4096;

bool absent(Ability ability) { return ability == Ability::absent; }

/// A name as a shell takes it for one word.
std::string word(const std::string& name) {
    const auto plain = [](unsigned char c) {
        return std::isalnum(c) != 0 ||
               std::string_view{"._-@:"}.find(static_cast<char>(c)) != std::string::npos;
    };
    if (std::ranges::all_of(name, plain)) return name;
    std::string quoted = "'";
    for (const char c : name) quoted += c == '\'' ? std::string{"'\\''"} : std::string{c};
    return quoted + '\'';
}

class Diagnosis {
public:
    explicit Diagnosis(const DoctorFacts& facts) : facts_{facts} {}

    std::vector<Finding> made() && {
        bridge();
        clock();
        for (const DoctorFacts::Port& port : facts_.ports) {
            link(port);
            router(port);
            vlan(port);
            time(port);
            queues(port);
        }
        kernel();
        return std::move(findings_);
    }

private:
    /// How such a port is shaped at best.
    [[nodiscard]] ShaperChoice shaping(const PortTraits& port) const {
        return chooseShaper(Shaping::automatic, facts_.abilities, port, {});
    }
    void find(const std::string& device, std::string_view check, Severity severity, std::string what,
              std::string command = {}) {
        findings_.push_back({device, check, severity, std::move(what), std::move(command)});
    }

    void bridge() {
        const std::string& name = facts_.bridge;
        if (!facts_.device) {
            return find(name, "bridge", Severity::fault, "there is no such bridge",
                        concat("ip link add name ", word(name), " up type bridge"));
        }
        if (!facts_.device->bridgeSettings) {
            return find(name, "bridge", Severity::fault, "it is no bridge");
        }
        const BridgeSettings& settings = *facts_.device->bridgeSettings;
        const std::string set = concat("ip link set dev ", word(name), " type bridge ");
        if (!facts_.device->up) {
            find(name, "up", Severity::fault, "it is switched off",
                 concat("ip link set dev ", word(name), " up"));
        }
        if (facts_.ports.empty()) {
            find(name, "ports", Severity::fault, "it has no ports",
                 concat("ip link set dev PORT master ", word(name)));
        }
        if (!settings.multicastSnooping) {
            find(name, "snooping", Severity::fault,
                 "multicast snooping is off: every stream goes to every port", set + "mcast_snooping 1");
        }
        if ((settings.groupForwardingMask & protocolGroup) != 0) {
            find(name, "forwardMask", Severity::fault,
                 "it forwards frames of the reservation protocol instead of leaving them to the daemon",
                 concat(set, "group_fwd_mask ", settings.groupForwardingMask & ~protocolGroup));
        }
        table(settings, set);
        if (facts_.notOffloaded != 0) {
            find(name, "offload", Severity::fault,
                 concat("its switch chip has not taken ", facts_.notOffloaded,
                        " entries of the multicast table: these streams pass as the chip likes"));
        }
        if (!settings.vlanFiltering) {
            find(name, "vlanFiltering", Severity::note,
                 "it does not filter VLANs: streams pass wherever their groups do",
                 absent(facts_.abilities.vlanFiltering) ? "" : set + "vlan_filtering 1");
        }
    }

    /// Room for groups.
    void table(const BridgeSettings& settings, const std::string& set) {
        const std::size_t limit = settings.multicastTableSize;
        if (facts_.groups + placesWanted <= limit) return;
        const bool full = facts_.groups + placesKept >= limit;
        find(facts_.bridge, "groups", full ? Severity::fault : Severity::warning,
             concat("its multicast table holds ", facts_.groups, " groups, and has room for ", limit),
             concat(set, "mcast_hash_max ", std::max(usualTable, std::bit_ceil(2 * facts_.groups))));
    }

    void link(const DoctorFacts::Port& port) {
        const Device& device = port.device;
        const std::string name = word(device.name);
        if (!device.up) {
            return find(device.name, "up", Severity::warning, "it is switched off",
                        concat("ip link set dev ", name, " up"));
        }
        if (!device.operational) return find(device.name, "link", Severity::note, "it has no link");
        const std::string faster = concat("ethtool -s ", name, " speed 1000 duplex full");
        if (device.mode.megabitsPerSecond < slowestAvb) {
            find(device.name, "speed", Severity::fault,
                 device.mode.megabitsPerSecond == 0
                     ? std::string{"its speed is unknown: it carries no stream"}
                     : concat("it runs at ", device.mode.megabitsPerSecond,
                              " Mbit/s: it carries no stream below ", slowestAvb),
                 faster);
        } else if (device.mode.halfDuplex) {
            find(device.name, "duplex", Severity::fault, "it runs at half duplex: it carries no stream",
                 faster);
        }
        if (device.mtu < fullFrame) {
            const bool tooSmall = device.mtu < smallestPdu;
            find(device.name, "mtu", tooSmall ? Severity::fault : Severity::warning,
                 concat("its MTU of ", device.mtu, " octets ",
                        tooSmall ? "has no room for the reservation protocol"
                                 : "loses the streams' longer frames"),
                 concat("ip link set dev ", name, " mtu ", fullFrame));
        }
        if (port.flowControl) {
            find(device.name, "flowControl", Severity::warning,
                 "flow control is on: the peer can stop streams, and streams the peer",
                 concat("ethtool -A ", name, " autoneg off rx off tx off"));
        }
    }

    void router(const DoctorFacts::Port& port) {
        if (!port.router) return;
        find(port.device.name, "router", Severity::warning,
             "the kernel takes a multicast router to be behind it: it gets every stream",
             concat("bridge link set dev ", word(port.device.name), " mcast_router 0"));
    }

    void vlan(const DoctorFacts::Port& port) {
        if (!facts_.device->bridgeSettings->vlanFiltering) return;
        const std::uint16_t vid = facts_.srVlan.value();
        const std::string add = concat("bridge vlan add dev ", word(port.device.name), " vid ", vid);
        if (!port.vlans.member.test(vid)) {
            find(port.device.name, "vlan", Severity::fault,
                 concat("it is no member of VLAN ", vid, " of the streams"), add);
        } else if (!port.vlans.tagged.test(vid)) {
            find(port.device.name, "vlan", Severity::fault,
                 concat("streams leave it without the tag of VLAN ", vid), add);
        } else if (port.vlans.blocked.test(vid)) {
            find(port.device.name, "vlan", Severity::note, concat("VLAN ", vid, " is blocked there"));
        }
    }

    void clock() {
        if (facts_.clockProblem.empty()) return;
        find(facts_.bridge, "time", Severity::warning,
             concat(facts_.clockProblem, ": no port is known to keep common time"));
    }

    void time(const DoctorFacts::Port& port) {
        if (!facts_.time) return;
        const auto told = facts_.time->port(IntfId{port.device.name});
        if (!told) {
            find(port.device.name, "time", Severity::note,
                 "ptp4l knows nothing of it: it keeps no common time");
        } else {
            find(port.device.name, "time", told->capable() ? Severity::note : Severity::warning,
                 concat(told->capable() ? "it keeps common time with its neighbour, and is "
                                        : "it keeps no common time with its neighbour: ",
                        told->state()));
        }
    }

    void queues(const DoctorFacts::Port& port) {
        const bool ours = port.queueHandle == facts_.ownQueueHandle &&
                          (port.queueKind == "mqprio" || port.queueKind == "htb");
        if (!port.queueKind.empty() && !ours) {
            find(port.device.name, "queues", Severity::fault,
                 concat("its queues (", port.queueKind, ") are somebody else's: no class gets its bandwidth"),
                 concat("tc qdisc del dev ", word(port.device.name), " root"));
        }
        const ShaperChoice choice = shaping({port.device.txQueues, port.device.inSwitchChip});
        if (port.device.inSwitchChip) {
            find(port.device.name, "fence", Severity::warning,
                 "a switch chip forwards its frames: those from outside the classes' domain may use their "
                 "queues, "
                 "unless its driver's priority table keeps them out");
            find(port.device.name, "switchChip",
                 choice.shaper == Shaper::none ? Severity::fault : Severity::note,
                 choice.shaper == Shaper::none
                     ? concat("a switch chip forwards its frames, and cannot be told to shape them: ",
                              choice.why)
                     : std::string{
                           "a switch chip forwards its frames: it is shaped if its driver takes that, and "
                           "else carries no stream"});
            return;
        }
        if (choice.shaper == shaping(plentyOfQueues).shaper) return;
        const bool none = choice.shaper == Shaper::none;
        find(port.device.name, "transmitQueues", none ? Severity::fault : Severity::warning,
             concat("it has too few transmit queues (", port.device.txQueues, ") for credits, ",
                    none ? "and nothing else can shape it" : "and gets token buckets"));
    }

    void kernel() {
        const Abilities& can = facts_.abilities;
        const ShaperChoice best = shaping(plentyOfQueues);
        const std::string load = "modprobe -a sch_mqprio sch_cbs sch_ingress cls_flower act_skbedit";
        if (best.shaper == Shaper::none) {
            find({}, "shaping", Severity::fault, concat("no class gets its bandwidth: ", best.why), load);
        } else if (best.shaper == Shaper::htb) {
            find({}, "shaping", Severity::warning, concat("queues get token buckets: ", best.why), load);
        }
        if (absent(can.ebpf)) {
            find({}, "fence", Severity::warning,
                 "frames from outside the classes' domain may use their queues: the kernel takes no programs "
                 "that "
                 "change frames, or the daemon may not load them (CAP_BPF)");
        }
        if (absent(can.groups)) {
            find({}, "groups", Severity::fault,
                 "the kernel's bridges keep no groups by MAC address; Linux 5.11 does");
        }
    }

    const DoctorFacts& facts_;
    std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> diagnose(const DoctorFacts& facts) { return Diagnosis{facts}.made(); }

}  // namespace Linux
