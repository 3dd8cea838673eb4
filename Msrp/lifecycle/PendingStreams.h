/// Streams, and talker states of single ports, on their way into and out of the published status: a review
/// machine carries them out.
#pragma once

#include "Msrp/types/Enums.h"
#include "State/Maps.h"
#include "Switch/IntfId.h"

#include <map>
#include <memory>

namespace Msrp {

/// The ports of one stream whose talker state is to be deleted.
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

struct PendingStreams {
    std::map<U64, bool> add;
    std::map<U64, bool> remove;
    std::map<U64, std::shared_ptr<StreamDeleteIntfs>> removeTalker;

    /// Something is still published that is to go.
    [[nodiscard]] bool removes() const { return !remove.empty() || !removeTalker.empty(); }
    [[nodiscard]] bool removesTalker(U64 id, IntfId intf) const {
        const auto at = removeTalker.find(id);
        return at != removeTalker.end() && at->second->deletePendingTalker().contains(intf);
    }
    std::shared_ptr<StreamDeleteIntfs> removeTalkerIs(U64 id) {
        auto& intfs = removeTalker[id];
        if (!intfs) intfs = std::make_shared<StreamDeleteIntfs>(id);
        return intfs;
    }
    void keepTalker(U64 id, IntfId intf) {
        const auto at = removeTalker.find(id);
        if (at == removeTalker.end()) return;
        at->second->deletePendingTalkerDel(intf);
        if (at->second->deletePendingTalker().empty()) removeTalker.erase(at);
    }
};

}  // namespace Msrp
