/// The streams that the state machine works on, found by id, by destination address and by VLAN.
#pragma once

#include "Msrp/types/StreamData.h"
#include "Switch/EthAddr.h"

#include <map>
#include <memory>
#include <optional>
#include <set>

namespace Msrp {

class StreamTable {
public:
    using Ids = std::set<U64>;

    /// Null when there is none.
    [[nodiscard]] std::shared_ptr<StreamData> find(U64 streamId) const;
    [[nodiscard]] const std::map<U64, std::shared_ptr<StreamData>>& all() const { return streams_; }
    [[nodiscard]] std::size_t size() const { return streams_.size(); }
    /// In place of another of that id.  Throws std::invalid_argument for a null record.
    void put(std::shared_ptr<StreamData> stream);
    void remove(U64 streamId);
    void clear();
    /// Changes where the stream's frames go, also of one that is not in the table.
    void destinationIs(StreamData& stream, EthAddr macDa, U16 vlanId);

    /// The streams whose talkers send to that address, or none.
    [[nodiscard]] const Ids& withAddress(EthAddr macDa) const;
    /// The lowest-numbered other stream with that address.
    [[nodiscard]] std::optional<U64> otherWith(EthAddr macDa, U64 streamId) const;
    /// The streams that have a talker, of each VLAN that has some.
    [[nodiscard]] const std::map<U16, Ids>& byVlan() const { return byVlan_; }
    /// The first stream from that id on, of the VLAN's that have a talker or of all (0).
    [[nodiscard]] std::optional<U64> next(U16 vlanId, U64 from) const;

private:
    struct Sought {
        U64 id;
        const std::shared_ptr<StreamData>* held;  ///< null when there is none of that id
    };
    void learnDestination(const StreamData& stream);
    void forgetDestination(const StreamData& stream);

    std::map<U64, std::shared_ptr<StreamData>> streams_;
    /// The last look-up: whoever handles a stream looks for it again and again.
    mutable std::optional<Sought> sought_;
    // Without those that have no talker.
    std::map<EthAddr, Ids> byMacDa_;
    std::map<U16, Ids> byVlan_;
};

}  // namespace Msrp
