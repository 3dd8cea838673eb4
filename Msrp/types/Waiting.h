/// The streams that wait for something, published for people to see and for another agent to go on with.
#pragma once

#include "Msrp/types/Enums.h"
#include "State/Record.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"

#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Msrp {

/// One stream's place in a queue.
struct FailedStream {
    U64 streamId = 0;
    double since = 0.0;  ///< seconds on the agent's clock
    bool operator==(const FailedStream&) const = default;
};

/// Streams in the order in which they were refused, each entry under an index that only grows.  A stream may
/// stand here twice.
class FailedStreamQueue : public State::Record<FailedStreamQueue> {
public:
    static constexpr std::string_view type = "Msrp::FailedStreamQueue";
    /// A stream that stands here so often already is not taken in again: its owner asks at every repetition
    /// of a declaration, and no peer may make the queue grow without bound.
    static constexpr std::size_t maxEntriesPerStream = 2;

    /// Appends the stream at the tail.
    void failedStreamEnq(U64 streamId, double now);
    /// Removes the head.
    void failedStreamDeq();
    /// Puts a stream under an index, in place of what stood there.
    void failedStreamIs(U32 index, FailedStream stream);
    void failedStreamDel(U32 index);
    void failedStreamDelAll();
    /// Removes the stream's first entry; false when it has none.
    bool failedStreamDelFirst(U64 streamId);
    /// Removes every entry of the stream; false when it has none.
    bool failedStreamDelEvery(U64 streamId);

    [[nodiscard]] bool empty() const { return entry_.empty(); }
    [[nodiscard]] std::size_t size() const { return entry_.size(); }
    [[nodiscard]] bool contains(U64 streamId) const { return index_.contains(streamId); }
    [[nodiscard]] std::optional<U32> head() const { return at(entry_.begin()); }
    [[nodiscard]] std::optional<U32> tail() const {
        return entry_.empty() ? std::nullopt : std::optional<U32>{entry_.rbegin()->first};
    }
    /// The first index from `index` on.
    [[nodiscard]] std::optional<U32> from(U32 index) const { return at(entry_.lower_bound(index)); }
    /// The first index above `index`.
    [[nodiscard]] std::optional<U32> after(U32 index) const { return at(entry_.upper_bound(index)); }
    /// The stream under `index`, which must be there.
    [[nodiscard]] U64 stream(U32 index) const { return entry_.at(index).streamId; }
    [[nodiscard]] const std::map<U32, FailedStream>& entry() const { return entry_; }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::derivedEntries<FailedStreamQueue, Entries>(
            "failedStream",
            [](const FailedStreamQueue& q, const State::From& from, std::size_t most) {
                return q.entries(from, most);
            },
            entriesSchema));
    }

private:
    struct Entries {
        static std::optional<std::string> keyText(const State::Change& change);
        static State::MaybeProblem restore(FailedStreamQueue& queue, std::string_view key,
                                           const State::Value& value, double shift);
    };
    [[nodiscard]] std::optional<U32> at(std::map<U32, FailedStream>::const_iterator it) const {
        return it == entry_.end() ? std::nullopt : std::optional<U32>{it->first};
    }
    [[nodiscard]] State::Object entries(const State::From& from, std::size_t most) const;
    static State::Schema entriesSchema() {
        return State::mapOf(State::KeyText<U32>::schema(),
                            State::objectOf({{"stream", State::HexKey::schema()},
                                             {"since", State::Codec<double>::schema()}}));
    }

    std::map<U32, FailedStream> entry_;  ///< by index
    std::multimap<U64, U32> index_;      ///< indices by stream, ascending for one stream
    U32 nextIndex_ = 0;
};

/// Streams refused for bandwidth on one port.
class BwFailedIntf : public FailedStreamQueue {
public:
    explicit BwFailedIntf(IntfId) {}
};

/// Streams whose destination address another stream holds.
class MacDaBlocked : public FailedStreamQueue {
public:
    explicit MacDaBlocked(EthAddr) {}
};

/// "msrp/waiting".  A queue without streams goes at the next retry.
class Waiting : public State::Record<Waiting> {
public:
    static constexpr std::string_view type = "Msrp::Waiting";

    [[nodiscard]] const State::Collection<IntfId, BwFailedIntf>& bandwidthFailedIntf() const {
        return bandwidthFailedIntf_;
    }
    [[nodiscard]] std::shared_ptr<BwFailedIntf> bandwidthFailedIntf(IntfId intf) {
        return bandwidthFailedIntf_.get(intf);
    }
    std::shared_ptr<BwFailedIntf> bandwidthFailedIntfIs(IntfId intf) {
        return makeChild(bandwidthFailedIntf_, intf, "bandwidthFailedIntf");
    }
    void bandwidthFailedIntfDel(IntfId intf) { delChild(bandwidthFailedIntf_, intf, "bandwidthFailedIntf"); }
    void bandwidthFailedIntfDelAll() { delChildren(bandwidthFailedIntf_, "bandwidthFailedIntf"); }

    [[nodiscard]] const State::Collection<EthAddr, MacDaBlocked>& macDaBlocked() const {
        return macDaBlocked_;
    }
    [[nodiscard]] std::shared_ptr<MacDaBlocked> macDaBlocked(EthAddr macDa) {
        return macDaBlocked_.get(macDa);
    }
    std::shared_ptr<MacDaBlocked> macDaBlockedIs(EthAddr macDa) {
        return makeChild(macDaBlocked_, macDa, "macDaBlocked");
    }
    void macDaBlockedDel(EthAddr macDa) { delChild(macDaBlocked_, macDa, "macDaBlocked"); }
    void macDaBlockedDelAll() { delChildren(macDaBlocked_, "macDaBlocked"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("bandwidthFailedIntf", &Waiting::bandwidthFailedIntf_));
        each(State::collection("macDaBlocked", &Waiting::macDaBlocked_));
    }

private:
    State::Collection<IntfId, BwFailedIntf> bandwidthFailedIntf_;
    State::Collection<EthAddr, MacDaBlocked> macDaBlocked_;
};

}  // namespace Msrp

// Made once, in the source file beside this header.
extern template class State::Record<Msrp::FailedStreamQueue>;
extern template class State::Record<Msrp::Waiting>;
