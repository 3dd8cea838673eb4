/// Who waits for bandwidth or for an address: since when, behind whom, and what is missing.
#pragma once

#include "Msrp/types/Enums.h"
#include "Show/Snapshot.h"
#include "State/Codec.h"

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Show {

/// One stream's place in one line.
struct WaitReport {
    double age = -1.0;  ///< seconds; negative: not known
    /// 1 for the one that is tried first; 0: looked at only when its talker repeats its declaration.
    std::size_t place = 0;
    std::optional<Msrp::U64> behind;  ///< the stream right before it
    std::optional<Msrp::U64> holder;  ///< the stream that has the address; bandwidth has none
    Msrp::U64 missing = 0;            ///< kbit/s that the port lacks; 0 for an address
};

class WaitingLines {
public:
    /// The snapshot must outlive the object.
    explicit WaitingLines(const Snapshot& snapshot);

    /// `stream` is the published record of a stream that was refused on the port for want of bandwidth.
    [[nodiscard]] WaitReport forBandwidth(Msrp::U64 id, const State::Value& stream,
                                          const std::string& port) const;
    /// The same for a stream whose address another one holds.
    [[nodiscard]] WaitReport forAddress(Msrp::U64 id, const State::Value& stream) const;

private:
    struct Place {
        std::size_t number;  ///< from 1; 0 for one that does not compete with the others
        double since;
    };
    struct Line {
        std::vector<Msrp::U64> order;
        std::map<Msrp::U64, Place> place;
    };
    using Lines = std::map<std::string, Line>;

    /// `talkerPorts`: by stream, where the queues are those of ports.
    static Lines linesOf(const State::Value& queues,
                         const std::unordered_map<Msrp::U64, std::string>& talkerPorts);
    /// An empty report when the stream does not stand in that line.
    [[nodiscard]] WaitReport standing(const Lines& lines, const std::string& name, Msrp::U64 id) const;

    const Snapshot& snapshot_;
    Lines bandwidth_;                                                 ///< by port
    Lines address_;                                                   ///< by address
    std::map<std::pair<Msrp::U64, std::string>, Msrp::U64> holders_;  ///< stream by VLAN and address
};

/// ", 120 kbps missing, waiting for 12s behind 00:11:22:33:44:55/1"
std::string waitText(const WaitReport& report);

}  // namespace Show

template <>
struct State::Codec<Show::WaitReport> {
    static Value encode(const Show::WaitReport& report);
    static Schema schema();
};
