/// The ports of one stream whose talker state is to be deleted.
#pragma once

#include "Msrp/types/Enums.h"
#include "State/Maps.h"
#include "Switch/IntfId.h"

namespace Msrp {

class StreamDeleteIntfs {
public:
    explicit StreamDeleteIntfs(U64 streamId) : streamId_{streamId} {}

    [[nodiscard]] U64 streamId() const { return streamId_; }
    [[nodiscard]] const State::FlatMap<IntfId, bool>& deletePendingTalker() const {
        return deletePendingTalker_;
    }
    void deletePendingTalkerIs(IntfId intf, bool v) { deletePendingTalker_.set(intf, v); }
    void deletePendingTalkerDel(IntfId intf) { deletePendingTalker_.erase(intf); }
    void deletePendingTalkerDelAll() { deletePendingTalker_.clear(); }

private:
    U64 streamId_;
    State::FlatMap<IntfId, bool> deletePendingTalker_;
};

}  // namespace Msrp
