/// What people call bridges and stations, by the addresses under which the protocol knows them.
#pragma once

#include "Show/Snapshot.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace Show {

class BridgeNames {
public:
    /// Lines like "00:11:22:33:44:55 name", where '#' begins a comment: names that go before all others.
    /// Gives what is wrong with the first line that is none, with its number; then nothing is taken.
    std::string read(std::string_view hosts);
    /// What lldpd tells of the neighbours (`lldpctl -f json`, arrays as numbered objects): their names behind
    /// our ports, and by their addresses.  What is not as expected is passed over.
    void neighboursAre(const State::Value& lldp);

    /// Of an address that is heard of from a port, empty for one that has no name.  A neighbour can claim any
    /// address, so it names that one only where it is itself.
    [[nodiscard]] std::string of(std::uint64_t address, const std::string& port = {}) const;
    /// The neighbour behind a port; empty where lldpd knows none.
    [[nodiscard]] std::string behind(const std::string& port) const;

    /// Of 64 bits: "8000.02:00:00:00:00:01", priority and address as bridges are named (IEEE 802.1Q 14.2.5),
    /// and the name behind it: "sw1 (8000.02:00:00:00:00:01)".
    [[nodiscard]] std::string bridge(std::uint64_t id, const std::string& port) const;

private:
    std::map<std::uint64_t, std::string> hosts_;
    std::map<std::pair<std::string, std::uint64_t>, std::string> neighbours_;  ///< by port and address
    std::map<std::string, std::string> behind_;
};

/// "8000.02:00:00:00:00:01"
std::string bridgeIdText(std::uint64_t id);
/// The address of a bridge id, without its priority.
std::uint64_t bridgeAddress(std::uint64_t id);

}  // namespace Show
