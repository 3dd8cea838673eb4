#include "Linux/doctor/Capabilities.h"

#include "Linux/fence/FencePlan.h"
#include "Linux/fence/FenceProgram.h"
#include "Linux/groups/GroupMessage.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/kernel/NewerKernel.h"
#include "Linux/links/Ethtool.h"
#include "Linux/queues/TrafficControl.h"
#include "Linux/queues/TrafficFilters.h"
#include "Runtime/Text.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace Linux {

namespace {

/// Of a fresh namespace: its loopback, which has one transmit queue.
constexpr unsigned loopback = 1;
constexpr unsigned triedBridge = 10;
constexpr unsigned triedPort = 11;
constexpr std::uint16_t anyMajor = 0x100;
const FenceRules triedFence{.closed = 1U << 3};
/// A group owner that is none of the kernel's own.
constexpr std::uint8_t anyOwner = 78;

constexpr Ability abilityIf(bool there) { return there ? Ability::present : Ability::absent; }

/// Tries one thing after the other in this process's network namespace.
class Probe {
public:
    /// `program`: the fence's, where the kernel has taken that.
    explicit Probe(LoadedProgram program) : program_{std::move(program)} {}

    Abilities abilities() {
        Abilities found;
        if (!kernel_.open().empty()) return found;
        queues(found);
        filters(found);
        bridges(found);
        NetlinkRequests generic;
        EthtoolFamily family;
        if (generic.open(NETLINK_GENERIC).empty()) found.ethtool = abilityIf(bool{family.resolve(generic)});
        return found;
    }

private:
    bool done(NetlinkMessage request) { return bool{kernel_.carryOut(std::move(request))}; }

    /// A kind is unknown to the kernel if it says so; any other refusal comes from the kind itself.
    Ability kindOf(NetlinkMessage request) {
        const NetlinkAnswer answer = kernel_.carryOut(std::move(request));
        return answer.error == EPERM ? Ability::unknown : abilityIf(answer.error != ENOENT);
    }

    Ability root(std::string kind, decltype(Qdisc::options) options) {
        const Qdisc qdisc{loopback, queueId(anyMajor), TC_H_ROOT, std::move(kind), std::move(options)};
        const Ability found = kindOf(newQdisc(qdisc, requestAdd));
        (void)done(deleteQdisc(qdisc));
        return found;
    }

    void queues(Abilities& found) {
        PriorityQueues byPriority;
        byPriority.queues = {{1, 0}, {1, 1}, {1, 2}};
        found.mqprio = root("mqprio", byPriority);
        found.cbs = root("cbs", CreditShaper{{1000, -999'000, 1600, -1600}, false});
        found.htb = root("htb", TokenBuckets{1});
    }

    void filters(Abilities& found) {
        found.clsact =
            kindOf(newQdisc({loopback, TC_H_MAJ(TC_H_CLSACT), TC_H_CLSACT, "clsact", {}}, requestAdd));
        // Each with a preference of its own: of one preference, all filters have one kind.
        const auto filter = [&](std::uint16_t preference, std::uint16_t protocol, std::string kind,
                                auto options) {
            const std::uint32_t parent = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS);
            return kindOf(
                newFilter({loopback, 1, parent, preference, protocol, std::move(kind), options}, requestAdd));
        };
        // There is no place for these; the other kind is also used elsewhere.
        if (found.clsact == Ability::absent) found.flower = found.ebpf = Ability::absent;
        if (found.clsact != Ability::present) return;
        constexpr std::uint16_t result = BPF_RET | BPF_K;
        found.bpf = filter(1, ETH_P_ALL, "bpf", ClassProgram{{{result, 0, 0, 0}}});
        found.flower = filter(2, ETH_P_8021Q, "flower", TagPriorityRule{3, 3});
        found.ebpf = abilityIf(fence());
    }

    bool fence() {
        if (!program_.descriptor) return false;
        const FrameProgram wanted{triedFence.name(), program_.id, program_.descriptor.get()};
        return done(newFilter(fenceFilter(loopback, wanted), requestAdd));
    }

    /// A device of that kind; `data` appends what the kind needs.
    template <class F>
    bool made(std::string_view kind, unsigned ifindex, std::string_view name, unsigned master, F&& data) {
        ifinfomsg info{};
        info.ifi_index = static_cast<int>(ifindex);
        info.ifi_flags = info.ifi_change = IFF_UP;
        NetlinkMessage request{RTM_NEWLINK, requestAdd};
        request.part(info).text(IFLA_IFNAME, name);
        if (master != 0) request.attribute(IFLA_MASTER, master);
        request.nest(IFLA_LINKINFO,
                     [&](NetlinkMessage& m) { m.text(IFLA_INFO_KIND, kind).nest(IFLA_INFO_DATA, data); });
        return done(std::move(request));
    }

    void bridges(Abilities& found) {
        if (!made("bridge", triedBridge, "br", 0, [](NetlinkMessage&) {})) {
            found.vlanFiltering = found.groups = found.groupOwner = Ability::absent;
            return;
        }
        // On a bridge without ports, whose groups have no VLANs afterwards either.
        found.vlanFiltering = abilityIf(vlanFiltering(1) && vlanFiltering(0));
        const bool ready = made("veth", triedPort, "p", triedBridge, [](NetlinkMessage& data) {
            data.nest(VETH_INFO_PEER,
                      [](NetlinkMessage& peer) { peer.part(ifinfomsg{}).text(IFLA_IFNAME, "q"); });
        });
        if (!ready) return;
        found.groupOwner = abilityIf(group(anyOwner));
        found.groups = abilityIf(found.groupOwner == Ability::present || group(0));
    }

    /// Puts the port into a group; an owner of 0 is none.
    bool group(std::uint8_t owner) {
        br_port_msg table{};
        table.family = AF_BRIDGE;
        table.ifindex = triedBridge;
        br_mdb_entry entry{};
        entry.ifindex = triedPort;
        entry.state = MDB_PERMANENT;
        entry.addr.u.mac_addr[0] = 0x91;
        NetlinkMessage request{RTM_NEWMDB, requestAdd};
        request.part(table).attribute(MDBA_SET_ENTRY, entry);
        if (owner != 0) {
            request.nest(MDBA_SET_ENTRY_ATTRS | NLA_F_NESTED,
                         [&](NetlinkMessage& attributes) { attributes.attribute(mdbeAttrRtprot, owner); });
        }
        return done(std::move(request));
    }

    bool vlanFiltering(std::uint8_t on) {
        ifinfomsg info{};
        info.ifi_index = static_cast<int>(triedBridge);
        NetlinkMessage request{RTM_NEWLINK, requestAck};
        request.part(info).nest(IFLA_LINKINFO, [&](NetlinkMessage& m) {
            m.text(IFLA_INFO_KIND, "bridge").nest(IFLA_INFO_DATA, [&](NetlinkMessage& data) {
                data.attribute(IFLA_BR_VLAN_FILTERING, on);
            });
        });
        return done(std::move(request));
    }

    const LoadedProgram program_;
    NetlinkRequests kernel_;
};

static_assert(std::is_trivially_copyable_v<Abilities>);

/// Keeps this child from outliving its parent, and from holding anything of the parent's but the end of a
/// pipe, which is `in` before and the result afterwards: a name or a lock that it held would stay taken when
/// the parent is killed.
int becomeIndependent(int in, pid_t parent) {
    constexpr int own = STDERR_FILENO + 1;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);  // it was killed before that
    if (dup2(in, own) != own) _exit(1);
    close_range(own + 1, ~0U, 0);
    return own;
}

/// A child that writes what it finds into the other end of `answer`; its number, or -1.  `flags` as for a
/// pipe.
pid_t startProbe(Runtime::FileDescriptor& answer, int flags) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | flags) != 0) return -1;
    answer = Runtime::FileDescriptor{ends[0]};
    const Runtime::FileDescriptor in{ends[1]};
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child == 0) {
        const int out = becomeIndependent(in.get(), self);
        Abilities found;
        // As this process: in a user namespace no program would be taken.
        LoadedProgram program;
        (void)loadProgram(fenceProgram(triedFence, {}), program);
        // Without CAP_SYS_ADMIN a network namespace belongs into a user namespace, where the child may do
        // anything.
        if (unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0)
            found = Probe{std::move(program)}.abilities();
        const ssize_t written = write(out, &found, sizeof found);
        _exit(written == sizeof found ? 0 : 1);
    }
    return child;
}

struct Limitation {
    Ability Abilities::*ability;
    std::string_view line;
};
constexpr auto allLimitations = std::to_array<Limitation>({
    {&Abilities::mqprio, "no mqprio: class A and B get no transmit queues of their own"},
    {&Abilities::cbs, "no cbs: queues cannot be shaped by credits"},
    {&Abilities::htb, "no htb: queues cannot be shaped by token buckets"},
    {&Abilities::bpf, "no bpf filters: queues cannot be shaped by token buckets"},
    {&Abilities::clsact,
     "no clsact: forwarded frames cannot be sorted into queues that are shaped by credits"},
    {&Abilities::flower,
     "no flower filters: forwarded frames cannot be sorted into queues that are shaped by credits"},
    {&Abilities::ebpf,
     "no programs that change incoming frames: those from outside the classes' domain may use their queues, "
     "and streams are not measured"},
    {&Abilities::vlanFiltering, "bridges do not filter VLANs: all ports are members of all VLANs"},
    {&Abilities::groups, "bridges take no groups of MAC addresses: streams go to all ports"},
    {&Abilities::groupOwner, "bridges do not note whose a group is: a file tells ours after a restart"},
    {&Abilities::ethtool, "no ethtool messages: a speed that changes while its link is up is not noticed"},
});

}  // namespace

Abilities probeAbilities() {
    Abilities found;
    Runtime::FileDescriptor answer;
    const pid_t child = startProbe(answer, 0);
    Abilities told;
    if (child > 0 && read(answer.get(), &told, sizeof told) == sizeof told) found = told;
    if (child > 0) waitpid(child, nullptr, 0);
    return found;
}

AbilityProbe::AbilityProbe(Runtime::FdLoop& loop, std::function<void(const Abilities&)> found)
    : loop_{loop}, found_{std::move(found)} {}

AbilityProbe::~AbilityProbe() {
    if (child_ == 0) return;
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
}

void AbilityProbe::start() {
    if (child_ != 0) return;
    const pid_t child = startProbe(answer_, O_NONBLOCK);
    if (child <= 0) return;
    child_ = child;
    abilities_ = {};
    watch_ = loop_.watch(answer_.get(), Runtime::FdLoop::Ready::readable, [this] { hear(); });
}

void AbilityProbe::hear() {
    Abilities told;
    const ssize_t size = read(answer_.get(), &told, sizeof told);
    if (size == sizeof told) abilities_ = told;
    if (size != 0) return;
    // The child has closed its end, and with that it is gone but for its exit code.
    watch_ = {};
    answer_ = Runtime::FileDescriptor{};
    waitpid(std::exchange(child_, 0), nullptr, 0);
    found_(abilities_);
}

std::vector<std::string> limitations(const Abilities& abilities) {
    std::vector<std::string> lines;
    for (const auto& [ability, line] : allLimitations) {
        if (abilities.*ability == Ability::absent)
            lines.push_back(Runtime::concat("this kernel has limits: ", line));
    }
    return lines;
}

std::string packetSocketProblem() {
    const Runtime::FileDescriptor probe{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
    if (probe) return {};
    const int error = errno;
    std::string text = "cannot open packet sockets: " + std::generic_category().message(error);
    if (error == EPERM) text += " (run as root or with CAP_NET_RAW and CAP_NET_ADMIN)";
    if (error == EAFNOSUPPORT) text += " (the kernel lacks CONFIG_PACKET)";
    return text;
}

std::string netAdminProblem() {
    NetlinkRequests kernel;
    std::string problem = kernel.open();
    if (!problem.empty()) return problem;
    // Of no bridge: whoever may ask at all is told so.
    const NetlinkAnswer answer = kernel.carryOut(groupDelete(0, {}));
    if (answer.error != EPERM) return {};
    return "cannot change the bridge: " + answer.problem() + " (run as root or with CAP_NET_ADMIN)";
}

}  // namespace Linux
