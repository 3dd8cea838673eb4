#include "Msrp/types/Census.h"

#include "Msrp/types/StreamData.h"

#include <utility>

namespace Msrp {

StreamCase streamCase(const StreamData& stream) {
    StreamCase found;
    std::size_t asking = 0;
    std::size_t getting = 0;
    bool failedThere = false;
    for (const StreamPort& port : stream.port()) {
        const bool failed = port.talkerFailureCode != TalkerFailureCode::noFailure;
        if (failed) {
            const U8 code = static_cast<U8>(port.talkerFailureCode);
            found.failures |= U32{1} << (code < knownFailures ? code : otherFailure);
        }
        if (port.intf == stream.ingressIntf()) {
            failedThere = failed || port.talkerState == TalkerState::Failed;
        } else if (port.hasListenerStateOrig && port.listenerStateOrig != ListenerState::Ignore) {
            ++asking;
            if (wantsStream(port.listenerState) && port.talkerState == TalkerState::Advertise) ++getting;
        }
    }
    using enum StreamStanding;
    if (!stream.ingressIntf()) {
        found.standing = noTalker;
    } else if (failedThere) {
        found.standing = talkerFailed;
    } else if (asking == 0) {
        found.standing = offered;
    } else if (getting == asking) {
        found.standing = reserved;
    } else {
        found.standing = getting == 0 ? refused : partlyReserved;
    }
    return found;
}

Census::Census() {
    for (const auto& standing : streamStandingNames) streams_.set(standing.value, 0);
    for (U8 code = 0; code < knownFailures; ++code) failure_.set(code, 0);
}

void Census::count(const StreamCase& stream, U64 more) {
    setEntry(streams_, stream.standing, streams_.get(stream.standing) + more, "streams");
    for (U8 code = 0; code < knownFailures; ++code) {
        if ((stream.failures >> code & 1U) != 0)
            setEntry(failure_, code, failure_.get(code) + more, "failure");
    }
}

}  // namespace Msrp

template class State::Record<Msrp::Census>;
