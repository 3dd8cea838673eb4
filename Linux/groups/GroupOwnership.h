/// Which entries of the kernel's tables are ours, and what has to be remembered to know that in the next
/// life.
///
/// Most kernels mark entries with the number of their maker.  Others do not: there a file lists our entries.
/// Another file remembers what else a crash must not lose (BridgeMemory.h).
#pragma once

#include "Linux/groups/BridgeMemory.h"
#include "Linux/groups/GroupTable.h"
#include "Linux/groups/OwnedGroups.h"
#include "Linux/links/DeviceTable.h"
#include "Linux/records/CapabilityStatus.h"

#include <cstdint>
#include <set>
#include <string>

namespace Linux {

class GroupOwnership {
public:
    /// `protocol` is our mark.  `files` is what the paths of both files begin with.  `devices` must outlive
    /// it.
    GroupOwnership(const DeviceTable& devices, std::uint8_t protocol, const std::string& files,
                   Complaint complaint);

    /// Takes in what an earlier life wrote.  Where the kernel marks entries, nothing else is believed.
    void read(Ability marks);
    [[nodiscard]] GroupOwner ownerOf(unsigned bridge, const GroupEntry& entry) const;

    /// The mark to ask for; 0 where the kernel knows none.
    [[nodiscard]] std::uint8_t mark() const { return marksEntries_ ? protocol_ : std::uint8_t{0}; }
    /// All marks that entries of ours bear on that bridge.
    [[nodiscard]] std::set<std::uint8_t> marksOn(unsigned bridge) const;
    /// From now on that bridge has entries with our mark.
    void marked(unsigned bridge) { memory_.markIs({bridge, protocol_}); }
    /// The kernel has refused to mark an entry.
    void cannotMark();

    /// An entry is about to be asked for: first remembered, then done.
    void adding(const GroupMember& member);
    void gone(const GroupMember& member) { entries_.erase(member); }
    void portNameIs(unsigned port, std::string_view name) { entries_.portNameIs(port, name); }
    /// Forgets all entries but those.
    void keepOnly(const std::set<GroupMember>& there);
    /// Forgets all marks on that bridge.
    void bridgeDel(unsigned bridge) { memory_.marksDel(bridge); }
    /// Writes what has changed; what goes wrong is told once.
    void flush();

    [[nodiscard]] BridgeMemory& memory() { return memory_; }
    [[nodiscard]] const BridgeMemory& memory() const { return memory_; }

private:
    [[nodiscard]] std::string portName(unsigned port) const;
    void tell(std::set<std::string> problems);

    const DeviceTable& devices_;
    const std::uint8_t protocol_;
    const Complaint complaint_;
    OwnedGroups entries_;
    BridgeMemory memory_;
    bool marksEntries_ = true;
    std::set<std::string> told_;
};

}  // namespace Linux
