#include "Msrp/talker/StreamPublisher.h"

#include <utility>

namespace Msrp {

namespace {

/// Class measurement intervals (IEEE 802.1Q 34.3), in nanoseconds.
constexpr U32 intervalOf(SrClassId srClass) { return srClass == SrClassId::SrClassA ? 125'000 : 250'000; }

}  // namespace

StreamPublisher::StreamPublisher(std::shared_ptr<const Status> status,
                                 std::shared_ptr<Switch::Streams> streams)
    : status_{std::move(status)}, streams_{std::move(streams)} {
    wantedChanged_ = streams_->react([this](const State::Change& change) {
        if (change.field == State::fieldName<Switch::Streams>("wanted")) follow();
    });
}

StreamPublisher::~StreamPublisher() { standbyModeIs(true); }

void StreamPublisher::standbyModeIs(bool standby) {
    if (std::exchange(standby_, standby) == standby) return;
    // What another agent wrote meanwhile is not left beside ours.
    if (!standby) streams_->streamDelAll();
    follow();
}

void StreamPublisher::follow() {
    if (standby_ || !streams_->wanted()) {
        if (statusChanged_) streams_->streamDelAll();
        statusChanged_ = {};
    } else if (!statusChanged_) {
        statusChanged_ = status_->watch([this](const State::Change& change) { statusChanged(change); });
        status_->registeredStreams().each([this](U64 id, const auto&) { publish(id); });
    }
}

void StreamPublisher::statusChanged(const State::Change& change) {
    if (const auto* stream = dynamic_cast<const StreamData*>(&change.entity)) {
        publish(stream->streamId());
    } else if (change.field == State::fieldName<Status>("registeredStreams")) {
        publish(*change.key<U64>());
    }
}

void StreamPublisher::publish(U64 streamId) {
    const auto registered = status_->registeredStreams(streamId);
    // A stream without a group is not the one that frames to its address belong to.
    if (!registered || !registered->ingressIntf() || !registered->ethGroup())
        return streams_->streamDel(streamId);
    const auto stream = streams_->streamIs(streamId);
    stream->macDaIs(registered->macDa());
    stream->vlanIdIs(registered->vlanId());
    stream->priorityIs(registered->dataFramePriority());
    stream->maxFrameSizeIs(registered->maxFrameSize());
    stream->kbpsIs(registered->bandwidth());
    stream->intervalIs(intervalOf(registered->srClass()));
    stream->talkerIntfIs(registered->ingressIntf());
}

}  // namespace Msrp
