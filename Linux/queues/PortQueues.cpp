#include "Linux/queues/PortQueues.h"

#include "Linux/kernel/NetlinkAttributes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cerrno>
#include <functional>
#include <linux/if_ether.h>
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

/// `place` narrows a dump of filters down; 0: all of them.
std::array<std::byte, sizeof(tcmsg)> about(unsigned ifindex, std::uint32_t parent, std::uint32_t place = 0) {
    tcmsg target{};
    target.tcm_ifindex = static_cast<int>(ifindex);
    target.tcm_parent = parent;
    target.tcm_info = place;
    return std::bit_cast<std::array<std::byte, sizeof(tcmsg)>>(target);
}

/// Classes below a root of ours that are looked at for their queues.
constexpr std::size_t ownClasses = 8;

std::uint32_t placeOf(std::uint16_t preference, std::uint16_t protocol) {
    return std::uint32_t{preference} << 16 | htons(protocol);
}

bool ofPackets(const Filter& filter) { return TC_H_MAJ(filter.parent) == TC_H_MAJ(TC_H_CLSACT); }

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
        if (deleted) std::erase_if(filters, ofPackets);
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
    std::erase_if(filters, std::not_fn(ofPackets));
}

void PortQueues::take(const TokenBucketClass& change, bool deleted) {
    replace(classes, change, deleted, [&](const TokenBucketClass& c) { return c.id == change.id; });
    if (deleted) std::erase_if(children, [&](const Qdisc& q) { return q.parent == change.id; });
}

void PortQueues::take(const Filter& filter, bool deleted) {
    const bool here = ofPackets(filter)
                          ? filter.parent == ingressFilters && filter.preference == ingressPreference &&
                                filter.protocol == ETH_P_8021Q
                          : filter.preference == queuePreference;
    if (!here) return;
    if (deleted && filter.handle == 0) {
        std::erase_if(filters, [&](const Filter& f) { return f.parent == filter.parent; });
        return;
    }
    replace(filters, filter, deleted,
            [&](const Filter& f) { return f.parent == filter.parent && f.handle == filter.handle; });
}

NetlinkAnswer readQueues(NetlinkChannel& kernel, unsigned ifindex, std::uint16_t major, PortQueues& queues) {
    PortQueues read;
    NetlinkAnswer answer;
    const auto take = [&](const nlmsghdr& message) {
        if (queueDevice(message) == ifindex) read.take(message);
    };
    // One by one: a dump would tell of all devices, whichever is asked for.
    const auto get = [&](std::uint32_t parent) {
        if (!answer) return;
        NetlinkMessage request{RTM_GETQDISC, requestAck | NLM_F_ECHO};
        request.raw(about(ifindex, parent));
        answer = kernel.ask(std::move(request), take);
        if (answer.error == ENOENT) answer = {};  // nothing is there
    };
    const auto dump = [&](std::uint16_t request, std::uint32_t parent, std::uint32_t place) {
        if (!answer) return;
        const PortQueues before = read;
        answer = kernel.dump(
            request, about(ifindex, parent, place), [&] { read = before; }, take);
    };
    get(TC_H_ROOT);
    get(TC_H_CLSACT);
    if (read.root && read.root->handle == queueId(major)) {
        const Qdisc root = *read.root;
        if (root.kind == "htb") {
            dump(RTM_GETTCLASS, 0, 0);
            std::vector<TokenBucketClass> classes = read.classes;
            // Where there are more they are not ours, and the root is another one than we made.
            classes.resize(std::min(classes.size(), ownClasses));
            for (const TokenBucketClass& held : classes) get(held.id);
            dump(RTM_GETTFILTER, root.handle, placeOf(queuePreference, ETH_P_ALL));
        } else if (const auto* byPriority = std::get_if<PriorityQueues>(&root.options)) {
            for (const PriorityQueues::Range& range : byPriority->queues)
                get(root.handle | (range.offset + 1U));
        }
    }
    if (read.ingress) dump(RTM_GETTFILTER, ingressFilters, placeOf(ingressPreference, ETH_P_8021Q));
    if (answer) queues = std::move(read);
    return answer;
}

bool hasFilters(NetlinkChannel& kernel, unsigned ifindex) {
    bool found = false;
    for (const std::uint32_t parent : {ingressFilters, egressFilters}) {
        const NetlinkAnswer answer = kernel.dump(
            RTM_GETTFILTER, about(ifindex, parent), [] {}, [&](const nlmsghdr&) { found = true; });
        if (found || !answer) return true;
    }
    return false;
}

}  // namespace Linux
