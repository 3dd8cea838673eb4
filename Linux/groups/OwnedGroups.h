/// A file that remembers which group entries are ours, for kernels that cannot mark them.
///
/// One line for each entry that is added ("+ INDEX NAME VID ADDRESS") or deleted ("-" and the same), appended
/// before the kernel is asked.  A line that is torn or makes no sense is passed over.  It belongs into a
/// directory that a boot empties, as a boot empties the bridge's table.
#pragma once

#include "Linux/groups/GroupMessage.h"
#include "Linux/kernel/OwnFile.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace Linux {

class OwnedGroups {
public:
    explicit OwnedGroups(std::string path) : file_{std::move(path)} {}

    /// Takes in what an earlier life wrote.  Empty on success, and where it wrote nothing; else why it cannot
    /// be believed or read.
    std::string read();

    /// A port's index may have been given to another device since; its name tells.
    [[nodiscard]] bool lists(const GroupMember& member, std::string_view portName) const;
    void add(const GroupMember& member, std::string_view portName);
    void erase(const GroupMember& member);
    /// The port has another name now.
    void portNameIs(unsigned port, std::string_view name);
    /// Forgets all that is not `there`, in the file too.  Empty on success; else what went wrong.
    std::string keepOnly(const std::set<GroupMember>& there);
    /// Writes what was added and erased.  Empty on success; else what went wrong, and it is tried again with
    /// the next.
    std::string flush();

private:
    void write(char sign, const GroupMember& member, std::string_view portName);
    std::string rewrite();

    OwnFile file_;
    std::map<GroupMember, std::string> ports_;  ///< names of the ports
    std::string pending_;
    std::size_t linesInFile_ = 0;
};

}  // namespace Linux
