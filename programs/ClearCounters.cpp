#include "programs/ClearCounters.h"

#include "Mrp/Records.h"
#include "Msrp/types/Status.h"
#include "Mvrp/Records.h"

void clearCounters(State::Database& database) {
    const auto msrp = database.entityIs<Msrp::Status>("msrp/status");
    for (auto intf = msrp->intfStatus().firstKey(); intf; intf = msrp->intfStatus().nextKey(*intf))
        msrp->peekIntfStatus(*intf)->countersClear();
    for (const char* path : {"mrp/status", "mvrp/mrp/status"}) {
        const auto mrp = database.entityIs<Mrp::MrpStatus>(path);
        for (auto intf = mrp->intf().firstKey(); intf; intf = mrp->intf().nextKey(*intf))
            mrp->intfIs(*intf)->clear();
    }
    const auto mvrp = database.entityIs<Mvrp::Status>("mvrp/status");
    for (auto intf = mvrp->intfStatus().firstKey(); intf; intf = mvrp->intfStatus().nextKey(*intf))
        mvrp->intfStatusIs(*intf)->failedRegistrationsClear();
}
