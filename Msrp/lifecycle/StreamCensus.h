/// Keeps "msrp/census" true: what changes of a stream is counted once, at the end of the handler that changed
/// it.
#pragma once

#include "Msrp/types/Census.h"
#include "Msrp/types/Status.h"
#include "Runtime/Loop.h"

#include <memory>
#include <unordered_map>
#include <vector>

namespace Msrp {

class StreamCensus {
public:
    /// The loop must outlive it.
    StreamCensus(Runtime::Loop& loop, std::shared_ptr<const Status> status, std::shared_ptr<Census> census);
    StreamCensus(const StreamCensus&) = delete;
    StreamCensus& operator=(const StreamCensus&) = delete;
    ~StreamCensus() { *alive_ = false; }

private:
    void statusChanged(const State::Change& change);
    void mark(U64 streamId);
    void recount();

    Runtime::Loop& loop_;
    const std::shared_ptr<const Status> status_;
    const std::shared_ptr<Census> census_;
    std::unordered_map<U64, StreamCase> counted_;
    std::vector<U64> changed_;
    bool posted_ = false;
    const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    State::Reactor reactor_;
};

}  // namespace Msrp
