/// What has to be known after a crash to give a bridge back as it was: where we have put marked entries, and
/// what role its ports had before.
///
/// Kept in a file, one line each: "net INODE" (the network namespace that all of it is about), "mark BRIDGE
/// PROTOCOL", "router PORT VALUE"; bridges and ports by the kernel's index.  A line that makes no sense
/// is passed over.  The file goes when there is nothing to remember.
#pragma once

#include "Linux/kernel/OwnFile.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace Linux {

class BridgeMemory {
public:
    /// A bridge and the protocol number that marks our entries there.
    using Mark = std::pair<unsigned, std::uint8_t>;

    explicit BridgeMemory(std::string path) : file_{std::move(path)} {}

    /// Takes in what an earlier life in this network namespace wrote.  Empty on success, and where it wrote
    /// nothing; else why it cannot be believed or read.
    std::string read();

    [[nodiscard]] const std::set<Mark>& marks() const { return marks_; }
    [[nodiscard]] bool marked(unsigned bridge, std::uint8_t protocol) const {
        return marks_.contains({bridge, protocol});
    }
    void markIs(Mark mark) { changed_ = marks_.insert(mark).second || changed_; }
    void markDel(Mark mark) { changed_ = marks_.erase(mark) != 0 || changed_; }
    /// All marks on that bridge.
    void marksDel(unsigned bridge) {
        changed_ = std::erase_if(marks_, [=](const Mark& m) { return m.first == bridge; }) != 0 || changed_;
    }

    /// What IFLA_BRPORT_MULTICAST_ROUTER was on ports from which we took that role, by index.
    [[nodiscard]] const std::map<unsigned, std::uint8_t>& routers() const { return routers_; }
    void routerIs(unsigned port, std::uint8_t was);
    void routerDel(unsigned port) { changed_ = routers_.erase(port) != 0 || changed_; }

    /// Writes what changed.  Empty on success; else what went wrong, and it is tried again with the next
    /// change.
    std::string flush();

private:
    OwnFile file_;
    std::set<Mark> marks_;
    std::map<unsigned, std::uint8_t> routers_;
    bool changed_ = false;
};

}  // namespace Linux
