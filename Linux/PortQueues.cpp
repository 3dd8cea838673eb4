#include "Linux/PortQueues.h"

#include "Linux/NetlinkAttributes.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <utility>

namespace Linux {

namespace {

/// Puts `value` in the place of the one that `same` finds, or takes that one out.
template <class T, class Same>
void replace(std::vector<T>& all, const T& value, bool deleted, Same&& same) {
    const auto at = std::ranges::find_if(all, same);
    if (deleted) {
        if (at != all.end()) all.erase(at);
    } else if (at != all.end()) {
        *at = value;
    } else {
        all.push_back(value);
    }
}

std::array<std::byte, sizeof(tcmsg)> about(unsigned ifindex, std::uint32_t parent) {
    tcmsg target{};
    target.tcm_ifindex = static_cast<int>(ifindex);
    target.tcm_parent = parent;
    return std::bit_cast<std::array<std::byte, sizeof(tcmsg)>>(target);
}

}  // namespace

unsigned queueDevice(const nlmsghdr& message) {
    constexpr std::array kinds{RTM_NEWQDISC,  RTM_DELQDISC,   RTM_NEWTCLASS,
                               RTM_DELTCLASS, RTM_NEWTFILTER, RTM_DELTFILTER};
    if (std::ranges::find(kinds, message.nlmsg_type) == kinds.end() ||
        mnl_nlmsg_get_payload_len(&message) < sizeof(tcmsg)) {
        return 0;
    }
    const auto* target = static_cast<const tcmsg*>(mnl_nlmsg_get_payload(&message));
    return target->tcm_ifindex > 0 ? static_cast<unsigned>(target->tcm_ifindex) : 0;
}

const Qdisc* PortQueues::child(std::uint32_t parent) const {
    const auto at = std::ranges::find(children, parent, &Qdisc::parent);
    return at != children.end() ? &*at : nullptr;
}

const TokenBucketClass* PortQueues::findClass(std::uint32_t id) const {
    const auto at = std::ranges::find(classes, id, &TokenBucketClass::id);
    return at != classes.end() ? &*at : nullptr;
}

void PortQueues::take(const nlmsghdr& message) {
    if (const auto qdisc = decodeQdisc(message)) take(*qdisc, message.nlmsg_type == RTM_DELQDISC);
    if (const auto change = decodeClass(message)) take(*change, message.nlmsg_type == RTM_DELTCLASS);
    if (const auto filter = decodeFilter(message)) take(*filter, message.nlmsg_type == RTM_DELTFILTER);
}

void PortQueues::take(const Qdisc& qdisc, bool deleted) {
    if (qdisc.handle == 0) return;  // the kernel's own, which is there where there is no other
    if (qdisc.parent == TC_H_ROOT) {
        const bool same = root && root->handle == qdisc.handle && root->kind == qdisc.kind;
        if (same ? deleted : !deleted) rootDel();
        if (!deleted) root = qdisc;
    } else if (qdisc.parent == TC_H_CLSACT) {
        ingress = deleted ? std::nullopt : std::optional{qdisc};
        if (deleted)
            std::erase_if(filters,
                          [](const Filter& f) { return TC_H_MAJ(f.parent) == TC_H_MAJ(TC_H_CLSACT); });
    } else {
        replace(children, qdisc, deleted, [&](const Qdisc& q) {
            return q.parent == qdisc.parent && (!deleted || q.handle == qdisc.handle);
        });
    }
}

void PortQueues::rootDel() {
    root.reset();
    children.clear();
    classes.clear();
    std::erase_if(filters, [](const Filter& f) { return TC_H_MAJ(f.parent) != TC_H_MAJ(TC_H_CLSACT); });
}

void PortQueues::take(const TokenBucketClass& change, bool deleted) {
    replace(classes, change, deleted, [&](const TokenBucketClass& c) { return c.id == change.id; });
    if (deleted) std::erase_if(children, [&](const Qdisc& q) { return q.parent == change.id; });
}

void PortQueues::take(const Filter& filter, bool deleted) {
    replace(filters, filter, deleted, [&](const Filter& f) {
        return f.parent == filter.parent && f.preference == filter.preference &&
               f.protocol == filter.protocol && f.handle == filter.handle;
    });
}

std::string readQueues(NetlinkChannel& kernel, const std::set<unsigned>& devices,
                       std::map<unsigned, PortQueues>& queues) {
    const auto read = [&](std::uint16_t request, unsigned ifindex, std::uint32_t parent, auto&& begin) {
        const NetlinkAnswer answer =
            kernel.dump(request, about(ifindex, parent), begin, [&](const nlmsghdr& message) {
                const auto held = queues.find(queueDevice(message));
                if (held != queues.end()) held->second.take(message);
            });
        return answer ? std::string{}
                      : Runtime::concat("cannot read the queues of the interfaces: ", answer.problem());
    };
    // The kernel tells of all devices, whichever is asked for.
    std::string problem = read(RTM_GETQDISC, 0, 0, [&] {
        queues.clear();
        for (const unsigned device : devices) queues[device];
    });
    for (auto& [device, held] : queues) {
        if (!problem.empty()) return problem;
        PortQueues& port = held;
        const PortQueues disciplines = port;
        const auto begin = [&] { port = disciplines; };
        const auto again = [&port](std::uint32_t parent) {
            return [&port, parent] {
                std::erase_if(port.filters, [parent](const Filter& f) { return f.parent == parent; });
            };
        };
        if (port.root && port.root->kind == "htb") {
            problem = read(RTM_GETTCLASS, device, 0, begin);
            const std::uint32_t root = port.root->handle;
            if (problem.empty()) problem = read(RTM_GETTFILTER, device, root, again(root));
        }
        if (port.ingress && problem.empty())
            problem = read(RTM_GETTFILTER, device, ingressFilters, again(ingressFilters));
        if (port.ingress && port.ingress->kind == "clsact" && problem.empty())
            problem = read(RTM_GETTFILTER, device, egressFilters, again(egressFilters));
    }
    return problem;
}

}  // namespace Linux
