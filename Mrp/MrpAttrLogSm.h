/// The attribute log: a bounded queue of what was registered and declared, drained into a sink that may be
/// slow. The stream lifecycle paces itself by it: while the log is clogged nothing is published or withdrawn.
#pragma once

#include "Runtime/Time.h"
#include "Switch/IntfId.h"

#include <cstdint>
#include <deque>
#include <functional>

namespace Mrp {

struct AttrLogRecord {
    enum class What : std::uint8_t { join, leave, declare, withdraw, internalLeave };
    Runtime::Time time{};
    IntfId intf;
    What what = What::join;
    std::uint8_t attributeType = 0;
    std::uint64_t key = 0;
};

class MrpAttrLogSm {
public:
    /// Takes one record, or returns false to have it offered again later.
    using Sink = std::function<bool(const AttrLogRecord&)>;

    /// `capacity`: records that wait before the log counts as clogged; further ones drop the oldest.
    explicit MrpAttrLogSm(Sink sink, std::size_t capacity = 1024)
        : sink_{std::move(sink)}, capacity_{capacity} {}

    void sinkIs(Sink sink) { sink_ = std::move(sink); }
    void record(const AttrLogRecord& record);
    /// Lets the log drain as far as its sink takes records, then tells whether it is still full.
    bool isAttrLogOutClogged();

private:
    void drain();
    Sink sink_;
    std::size_t capacity_;
    std::deque<AttrLogRecord> waiting_;
};

}  // namespace Mrp
