/// A file that remembers which memberships are ours: the kernel cannot mark them, and who dies cannot take
/// them back.
///
/// It is written before the kernel is asked, and belongs into a directory that a boot empties.
#pragma once

#include "Linux/kernel/OwnFile.h"
#include "Switch/VlanSet.h"

#include <map>
#include <string>

namespace Linux {

class OwnedVlans {
public:
    struct Port {
        std::string name;  ///< an index may be given to another device
        VlanSet vlans;
        bool operator==(const Port&) const = default;
    };
    /// By the port's index.
    using Ports = std::map<unsigned, Port>;

    explicit OwnedVlans(std::string path) : file_{std::move(path)} {}

    /// What an earlier life wrote in this network namespace.  Empty on success, else why it cannot be read.
    std::string read();
    [[nodiscard]] const Ports& ports() const { return ports_; }
    /// What is ours from now on; `flush` writes it.
    void portIs(unsigned port, const std::string& name, const VlanSet& vlans);
    /// Empty on success; else what went wrong, and it is tried again with the next.
    std::string flush();

private:
    OwnFile file_;
    Ports ports_;
    Ports written_;
};

}  // namespace Linux
