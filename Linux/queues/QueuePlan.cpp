#include "Linux/queues/QueuePlan.h"

#include "Linux/queues/TrafficFilters.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <linux/if_ether.h>
#include <utility>

namespace Linux {

namespace {

using Runtime::concat;

constexpr std::uint8_t trafficClassA = 0;
constexpr std::uint8_t trafficClassB = 1;
constexpr std::uint8_t trafficClassRest = 2;

/// Minor numbers of the token-bucket classes.
constexpr std::uint16_t wholePort = 1;
constexpr std::uint16_t bucketA = 0x10;
constexpr std::uint16_t bucketB = 0x20;
constexpr std::uint16_t bucketRest = 0x30;

/// Octets on the wire around a frame that the kernel does not count: check sequence, preamble and gap.
constexpr std::uint16_t uncounted = 24;
/// Frames that may wait for a class's bucket: as many as a network card hands over at once, several times.
constexpr std::uint32_t bucketFrames = 256;
constexpr std::uint32_t classQuantum = 1600;
constexpr std::uint32_t restQuantum = 60'000;
constexpr std::uint64_t octetsPerKilobit = 125;

/// One SR class on a port.
struct SrClass {
    std::string_view name;
    std::uint32_t rate;    ///< kbit/s; 0: nothing reserved
    std::uint16_t handle;  ///< major number of the discipline that is its own
};

bool ours(const Qdisc& root, std::uint16_t major) {
    return root.handle == queueId(major) && (root.kind == "mqprio" || root.kind == "htb");
}

constexpr std::string_view kindOf(Shaper shaper) { return shaper == Shaper::htb ? "htb" : "mqprio"; }

PriorityQueues priorityQueues(const WantedQueues& wanted) {
    PriorityQueues queues;
    queues.classOf.fill(trafficClassRest);
    for (std::size_t priority = 0; priority < 8; ++priority) {
        if ((wanted.priorities.a >> priority & 1) != 0) queues.classOf[priority] = trafficClassA;
        if ((wanted.priorities.b >> priority & 1) != 0) queues.classOf[priority] = trafficClassB;
    }
    queues.queues = {{1, 0}, {1, 1}, {wanted.otherQueues, 2}};
    queues.hardware = wanted.inSwitchChip;
    return queues;
}

Qdisc rootOf(const WantedQueues& wanted) {
    Qdisc root{wanted.ifindex, queueId(wanted.major), TC_H_ROOT, std::string{kindOf(wanted.shaper)}, {}};
    if (wanted.shaper == Shaper::htb) {
        root.options = TokenBuckets{bucketRest};
    } else {
        root.options = priorityQueues(wanted);
    }
    return root;
}

/// Whether a root does what the wanted one does.  How many queues other traffic has makes no difference.
bool sameRoot(Qdisc held, const Qdisc& wanted) {
    auto* queues = std::get_if<PriorityQueues>(&held.options);
    const auto* wantedQueues = std::get_if<PriorityQueues>(&wanted.options);
    if (queues != nullptr && wantedQueues != nullptr &&
        queues->queues.size() == wantedQueues->queues.size()) {
        auto& rest = queues->queues.back();
        if (rest.count > 0) rest.count = wantedQueues->queues.back().count;
    }
    return held == wanted;
}

Filter classFilter(const WantedQueues& wanted) {
    return {wanted.ifindex,
            1,
            queueId(wanted.major),
            queuePreference,
            ETH_P_ALL,
            "bpf",
            classProgram(wanted.priorities, queueId(wanted.major, bucketA), queueId(wanted.major, bucketB))};
}

/// A class that may take `rate` and, where there is more, `ceiling` (kbit/s).
TokenBucketClass bucket(const WantedQueues& wanted, std::uint16_t minor, std::uint64_t rate,
                        std::uint64_t ceiling) {
    const auto burst = [](std::uint64_t kilobits) {
        // A frame, and what comes together while the kernel's timer is late.
        return burstTicks(largestFrame + kilobits * octetsPerKilobit / 1000, kilobits * octetsPerKilobit);
    };
    TokenBucketClass made;
    made.ifindex = wanted.ifindex;
    made.id = queueId(wanted.major, minor);
    made.parent = queueId(wanted.major, minor == wholePort ? 0 : wholePort);
    made.rate = rate * octetsPerKilobit;
    made.ceiling = ceiling * octetsPerKilobit;
    made.burst = burst(rate);
    made.ceilingBurst = burst(ceiling);
    made.overhead = uncounted;
    return made;
}

std::uint32_t kilobits(const TokenBucketClass& held) {
    return static_cast<std::uint32_t>(held.rate / octetsPerKilobit);
}

/// 0 for one that lets everything pass.
std::uint32_t kilobits(const Qdisc& held) {
    const auto* shaper = std::get_if<CreditShaper>(&held.options);
    const bool shapes = shaper != nullptr && shaper->credits.sendSlope < 0;
    return shapes ? static_cast<std::uint32_t>(std::max(shaper->credits.idleSlope, 0)) : 0;
}

/// What lets everything pass: credit is never spent.  With an idle slope of 0, frames would wait for ever.
CreditShaper openShaper(std::uint64_t portRate) {
    return {{static_cast<std::int32_t>(portRate), 0, 0, 0}, false};
}

/// What is wrong with something that is shaped, but otherwise; `detail` is what it is when the rate is right.
std::string otherRate(std::string_view name, std::uint64_t held, std::uint64_t wanted,
                      std::string_view detail) {
    return held != wanted ? concat(name, " is shaped to ", held, " kbit/s instead of ", wanted)
                          : concat(name, " is shaped to ", held, " kbit/s as it should be, but its ", detail);
}

class Plan {
public:
    Plan(const WantedQueues& wanted, const PortQueues& have) : wanted_{wanted}, have_{have} {}

    std::vector<QueueStep> made() {
        if (root()) {
            // Class B's credits count on class A's share: it grows after A, and shrinks before.
            const ClassRates shaped = shapedRates(have_, wanted_.major);
            const bool grows = wanted_.rates.a > shaped.a || wanted_.rates.b > shaped.b;
            if (wanted_.shaper == Shaper::htb) {
                buckets(grows);
            } else {
                credits(grows);
            }
        }
        return std::move(steps_);
    }

private:
    SrClass a() const { return {"class A", wanted_.rates.a, static_cast<std::uint16_t>(wanted_.major + 1)}; }
    SrClass b() const { return {"class B", wanted_.rates.b, static_cast<std::uint16_t>(wanted_.major + 2)}; }

    void step(std::string difference, NetlinkMessage request) {
        steps_.push_back({std::move(difference), std::move(request)});
    }

    /// Makes the root right; whether there is one.
    bool root() {
        const bool needed =
            wanted_.shaper != Shaper::none && (wanted_.ready || wanted_.rates != ClassRates{});
        if (!have_.root && !needed) return false;
        const Qdisc root = rootOf(wanted_);
        if (have_.root) {
            if (wanted_.shaper != Shaper::none && sameRoot(*have_.root, root) && !strangeClasses())
                return true;
            // A root cannot become another one in place: the old one's end would take the new one's traffic
            // classes with it.  With it go all its children.
            step(wanted_.shaper == Shaper::none ? "the queues are still set up"
                                                : "the queues are set up otherwise",
                 deleteQdisc(*have_.root));
            have_ = {};
        }
        if (needed) step("the queues are not set up", newQdisc(root, requestAdd));
        return needed;
    }

    [[nodiscard]] bool strangeClasses() const {
        constexpr std::array known{wholePort, bucketA, bucketB, bucketRest};
        return std::ranges::any_of(have_.classes, [&](const TokenBucketClass& held) {
            return std::ranges::none_of(known,
                                        [&](auto minor) { return held.id == queueId(wanted_.major, minor); });
        });
    }

    void credits(bool grows) {
        const auto classA = [this] {
            creditShaper(a(), 1, classACredits(wanted_.portRate, wanted_.rates, wanted_.frames));
        };
        const auto classB = [this] {
            creditShaper(b(), 2, classBCredits(wanted_.portRate, wanted_.rates, wanted_.frames));
        };
        if (grows) {
            classA();
            classB();
        } else {
            classB();
            classA();
        }
    }

    void creditShaper(const SrClass& srClass, std::uint16_t queue, Credits credits) {
        // A shaper is there also without a reservation: for another kind of queue in its place, the kernel
        // would stop the whole port for a moment and drop what waits in any of its queues.
        Qdisc wanted{wanted_.ifindex, queueId(srClass.handle), queueId(wanted_.major, queue), "cbs",
                     openShaper(wanted_.portRate)};
        if (srClass.rate != 0) {
            CreditShaper shaper{credits, wanted_.shaper == Shaper::hardware};
            if (!shaper.hardware) {
                // The kernel's timer may be late, and credit above the limit is lost: the limit leaves room
                // for what gathers meanwhile.
                shaper.credits.hiCredit += static_cast<std::int32_t>(largestFrame + lateTimer(srClass.rate));
            }
            wanted.options = shaper;
        }
        child(srClass, wanted);
    }

    void child(const SrClass& srClass, const Qdisc& wanted) {
        const Qdisc* held = have_.child(wanted.parent);
        if (held != nullptr && *held == wanted) return;
        const std::uint32_t rate = held != nullptr ? kilobits(*held) : 0;
        std::string difference =
            rate != 0 && srClass.rate != 0 ? otherRate(srClass.name, rate, srClass.rate, "credits differ")
            : srClass.rate != 0 ? concat(srClass.name, " is not shaped to ", srClass.rate, " kbit/s")
            : rate != 0         ? concat(srClass.name, " is still shaped")
            : held != nullptr   ? concat(srClass.name, " has another queue")
                                : concat(srClass.name, " has no queue");
        if (held != nullptr && held->handle == wanted.handle && held->kind == wanted.kind)
            return step(std::move(difference), newQdisc(wanted, requestReplace));
        if (held != nullptr) step(difference, deleteQdisc(*held));
        step(std::move(difference), newQdisc(wanted, requestAdd));
    }

    void buckets(bool grows) {
        TokenBucketClass port = bucket(wanted_, wholePort, wanted_.portRate, wanted_.portRate);
        port.quantum = restQuantum;
        bucketClass(port, "the port");
        // Promised as good as nothing, all other traffic takes what the two classes leave, and goes after
        // them.
        TokenBucketClass rest = bucket(wanted_, bucketRest, 1, wanted_.portRate);
        rest.quantum = restQuantum;
        rest.priority = 7;
        bucketClass(rest, "other traffic");
        filter();
        if (grows) {
            srBucket(a(), bucketA, 0);
            srBucket(b(), bucketB, 1);
        } else {
            srBucket(b(), bucketB, 1);
            srBucket(a(), bucketA, 0);
        }
    }

    void bucketClass(const TokenBucketClass& wanted, std::string_view name) {
        const TokenBucketClass* held = have_.findClass(wanted.id);
        if (held != nullptr && *held == wanted) return;
        std::string difference =
            held == nullptr ? concat(name, " has no class of its own")
                            : otherRate(name, kilobits(*held), kilobits(wanted), "other settings differ");
        step(std::move(difference), newClass(wanted, held == nullptr ? requestAdd : requestAck));
    }

    void srBucket(const SrClass& srClass, std::uint16_t minor, std::uint32_t priority) {
        const std::uint32_t id = queueId(wanted_.major, minor);
        if (srClass.rate == 0) {
            const TokenBucketClass* held = have_.findClass(id);
            if (held != nullptr)
                step(concat(srClass.name, " is still shaped"),
                     deleteClass(wanted_.ifindex, id, held->parent));
            return;
        }
        TokenBucketClass made = bucket(wanted_, minor, srClass.rate, srClass.rate);
        made.quantum = classQuantum;
        made.priority = priority;
        bucketClass(made, srClass.name);
        leaf(srClass, id);
    }

    /// The queue of a class: the kernel's own would let a thousand frames wait.
    void leaf(const SrClass& srClass, std::uint32_t parent) {
        const Qdisc wanted{wanted_.ifindex, queueId(srClass.handle), parent, "pfifo",
                           FrameFifo{bucketFrames}};
        const Qdisc* held = have_.child(parent);
        if (held != nullptr && *held == wanted) return;
        const std::string difference = concat(srClass.name, " has no queue for ", bucketFrames, " frames");
        if (held != nullptr) step(difference, deleteQdisc(*held));
        step(difference, newQdisc(wanted, requestAdd));
    }

    void filter() {
        const Filter wanted = classFilter(wanted_);
        bool found = false;
        for (const Filter& held : have_.filters) {
            // With another handle it is somebody else's, who sorts what we leave to him.
            if (held.parent != wanted.parent || held.handle != wanted.handle) continue;
            if (held == wanted) {
                found = true;
            } else {
                step("frames are sorted otherwise", deleteFilter(held));
            }
        }
        if (!found) step("frames are not sorted by priority", newFilter(wanted, requestAdd));
    }

    const WantedQueues& wanted_;
    PortQueues have_;
    std::vector<QueueStep> steps_;
};

}  // namespace

bool foreignRoot(const PortQueues& have, std::uint16_t major) {
    return have.root && !ours(*have.root, major);
}

bool madeByUs(const PortQueues& have, std::uint16_t major) {
    if (!have.root || foreignRoot(have, major)) return false;
    if (const auto* buckets = std::get_if<TokenBuckets>(&have.root->options)) {
        const TokenBucketClass* port = have.findClass(queueId(major, wholePort));
        return buckets->defaultMinor == bucketRest && port != nullptr && port->overhead == uncounted;
    }
    // Traffic classes like ours are what everybody makes; what is below them, others leave to be numbered.
    return std::ranges::all_of(std::array<std::uint16_t, 2>{1, 2}, [&](std::uint16_t queue) {
        const Qdisc* held = have.child(queueId(major, queue));
        return held != nullptr && held->handle == queueId(static_cast<std::uint16_t>(major + queue));
    });
}

ClassRates shapedRates(const PortQueues& have, std::uint16_t major) {
    if (!have.root || foreignRoot(have, major)) return {};
    if (have.root->kind == "htb") {
        const auto rate = [&](std::uint16_t minor) {
            const TokenBucketClass* held = have.findClass(queueId(major, minor));
            return held != nullptr ? kilobits(*held) : 0;
        };
        return {rate(bucketA), rate(bucketB)};
    }
    const auto rate = [&](std::uint16_t queue) {
        const Qdisc* held = have.child(queueId(major, queue));
        return held != nullptr ? kilobits(*held) : 0;
    };
    return {rate(1), rate(2)};
}

std::vector<QueueStep> planQueues(const WantedQueues& wanted, const PortQueues& have) {
    if (foreignRoot(have, wanted.major)) return {};
    return Plan{wanted, have}.made();
}

}  // namespace Linux
