/// Tells the rest of the switch, in "switch/streams", which frames the talkers of streams may send.
#pragma once

#include "Msrp/types/Status.h"
#include "Switch/Streams.h"

#include <memory>

namespace Msrp {

/// Does nothing in standby, as it begins, and while nobody wants the record.
class StreamPublisher {
public:
    StreamPublisher(std::shared_ptr<const Status> status, std::shared_ptr<Switch::Streams> streams);
    StreamPublisher(const StreamPublisher&) = delete;
    StreamPublisher& operator=(const StreamPublisher&) = delete;
    /// Leaves no stream behind.
    ~StreamPublisher();

    void standbyModeIs(bool standby);

private:
    void follow();
    void statusChanged(const State::Change& change);
    void publish(U64 streamId);

    const std::shared_ptr<const Status> status_;
    const std::shared_ptr<Switch::Streams> streams_;
    bool standby_ = true;
    State::Reactor wantedChanged_;
    State::Reactor statusChanged_;
};

}  // namespace Msrp
