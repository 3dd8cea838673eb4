/// Decides which groups get the places of a bridge's table when there are fewer places than groups.
///
/// Groups that somebody listens to go first: they displace those that only keep a talker's frames from being
/// flooded.  Among equals, the talkers' ports get equal shares: a port gets another place only while no port
/// that waits has fewer, and gives one up to a port that has two fewer.  A talker's port is what counts,
/// since nothing limits how many talkers it declares; how many streams a listener's port can ask for is
/// limited by its bandwidth.  Within a port, whoever has waited longest comes first, and whoever came last
/// goes first.
#pragma once

#include "Linux/groups/GroupMessage.h"
#include "Switch/IntfId.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace Linux {

class GroupPlaces {
public:
    struct Claim {
        bool listened = false;  ///< somebody wants to hear it
        IntfId talker;          ///< its talker's port
        bool free = false;      ///< others have made the group: it takes no place of ours
        bool operator==(const Claim&) const = default;
    };

    /// Enters a claim, or changes it.  `held`: its entries are there already, so that it has its place
    /// whatever room there is.
    void claim(const Group& group, const Claim& claim, bool held);
    void release(const Group& group);
    /// Takes the place away; the claim waits again.
    void putBack(const Group& group);
    void clear();

    /// Whether it has a place.
    [[nodiscard]] bool has(const Group& group) const;
    [[nodiscard]] bool knows(const Group& group) const { return entries_.contains(group); }
    /// The groups of that address for which there are claims.
    [[nodiscard]] std::vector<Group> of(EthAddr mac) const;
    /// Places that could be given up to those that listeners want.
    [[nodiscard]] std::size_t idle() const { return tiers_[unwanted].placed; }

    /// Gives and takes `atMost` places, of `capacity` that there are; the groups concerned.  None: all is
    /// settled.  A group with listeners loses its place only to one of another port.
    std::vector<Group> settle(std::size_t capacity, std::size_t atMost);

private:
    enum Tier : std::uint8_t { wanted, unwanted };
    struct Entry {
        Claim claim;
        std::uint64_t order = 0;  ///< since when it waits, or has its place
        bool placed = false;
    };
    /// Groups by their order.
    using Queue = std::map<std::uint64_t, Group>;
    struct Port {
        Queue placed;
        Queue waiting;
    };
    struct TierPorts {
        std::map<IntfId, Port> ports;
        std::size_t placed = 0;
    };

    static Tier tierOf(const Entry& entry) { return entry.claim.listened ? wanted : unwanted; }
    void enter(const Group& group, const Entry& entry);
    void leave(const Group& group, const Entry& entry);
    void move(const Group& group, bool placed);
    /// The first that waits at the port that has fewest places among those where some wait; null: none waits.
    const Port* neediest(Tier tier) const;
    /// The port that has most places; null: none has any.
    const Port* richest(Tier tier) const;

    std::map<Group, Entry> entries_;
    std::array<TierPorts, 2> tiers_;
    std::uint64_t next_ = 1;
};

}  // namespace Linux
