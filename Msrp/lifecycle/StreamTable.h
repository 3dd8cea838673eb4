/// The streams that the state machine works on, found by id, by destination address and by VLAN.
#pragma once

#include "Msrp/types/StreamData.h"
#include "Switch/EthAddr.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

namespace Msrp {

class StreamTable {
public:
    using Ids = std::set<U64>;
    using Addresses = std::set<std::pair<EthAddr, U64>>;
    struct Sharers {
        Addresses::const_iterator first;
        Addresses::const_iterator last;
        [[nodiscard]] auto begin() const { return first; }
        [[nodiscard]] auto end() const { return last; }
    };

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

    /// The streams whose talkers send to that address: pairs of address and id.
    [[nodiscard]] Sharers withAddress(EthAddr macDa) const {
        return {byMacDa_.lower_bound({macDa, 0}), byMacDa_.upper_bound({macDa, ~U64{0}})};
    }
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
    Addresses byMacDa_;
    std::map<U16, Ids> byVlan_;
};

}  // namespace Msrp
