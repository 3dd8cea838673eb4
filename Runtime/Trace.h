/// The debug trace: free text for developers, by level, off by default.  Costs one branch when off.
#pragma once

#include "Runtime/Text.h"

#include <functional>
#include <string_view>

namespace Runtime {

enum class TraceLevel { off = 0, notice = 1, handler = 2, detail = 3 };

class Trace {
public:
    using Sink = std::function<void(std::string_view line)>;

    /// Lines up to `level` go to `sink`.
    void sinkIs(TraceLevel level, Sink sink) {
        level_ = sink ? level : TraceLevel::off;
        sink_ = std::move(sink);
    }
    [[nodiscard]] bool on(TraceLevel level) const { return level <= level_; }

    template <class... Pieces>
    void operator()(TraceLevel level, const Pieces&... pieces) const {
        if (on(level)) [[unlikely]]
            sink_(concat(pieces...));
    }

private:
    TraceLevel level_ = TraceLevel::off;
    Sink sink_;
};

}  // namespace Runtime
