#include "Msrp/lifecycle/StreamCensus.h"

#include <optional>
#include <utility>

namespace Msrp {

StreamCensus::StreamCensus(Runtime::Loop& loop, std::shared_ptr<const Status> status,
                           std::shared_ptr<Census> census)
    : loop_{loop}, status_{std::move(status)}, census_{std::move(census)} {
    status_->registeredStreams().each([this](U64 id, const auto&) { mark(id); });
    reactor_ = status_->watch([this](const State::Change& change) { statusChanged(change); });
}

void StreamCensus::statusChanged(const State::Change& change) {
    if (const auto* stream = dynamic_cast<const StreamData*>(&change.entity)) {
        mark(stream->streamId());
    } else if (change.field == State::fieldName<Status>("registeredStreams")) {
        mark(*change.key<U64>());
    }
}

void StreamCensus::mark(U64 streamId) {
    // A handler changes one stream in many ways, one after the other.
    if (changed_.empty() || changed_.back() != streamId) changed_.push_back(streamId);
    if (std::exchange(posted_, true)) return;
    loop_.post([this, alive = alive_] {
        if (*alive) recount();
    });
}

void StreamCensus::recount() {
    posted_ = false;
    for (const U64 id : std::exchange(changed_, {})) {
        const auto stream = status_->registeredStreams(id);
        const auto before = counted_.find(id);
        const std::optional<StreamCase> now = stream ? std::optional{streamCase(*stream)} : std::nullopt;
        if (before != counted_.end() && now == before->second) continue;
        if (before != counted_.end()) census_->remove(before->second);
        if (now) {
            census_->add(*now);
            counted_[id] = *now;
        } else if (before != counted_.end()) {
            counted_.erase(before);
        }
    }
}

}  // namespace Msrp
