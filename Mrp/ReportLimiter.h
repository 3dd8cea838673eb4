/// Keeps repeated lines about one port and reason apart.
#pragma once

#include "Runtime/Text.h"
#include "Runtime/Time.h"
#include "Switch/IntfId.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

namespace Mrp {

class ReportLimiter {
public:
    using Sink = std::function<void(IntfId intf, const std::string& line)>;
    /// At most one line for each port and reason passes in this time.
    static constexpr Runtime::Duration interval = std::chrono::seconds{10};

    explicit ReportLimiter(Sink sink) : sink_{std::move(sink)} {}

    /// `makeLine` is called only when the line passes; how many were held back since the last one is added to
    /// it.
    template <class F>
    void report(Runtime::Time now, IntfId intf, std::uint32_t reason, F&& makeLine) {
        const auto [at, first] = last_.try_emplace({intf, reason});
        auto& [when, heldBack] = at->second;
        if (!sink_ || (!first && now - when < interval)) {
            ++heldBack;
            return;
        }
        std::string line = makeLine();
        if (heldBack > 0) line += Runtime::concat(" (", heldBack, " more since the last report)");
        when = now;
        heldBack = 0;
        sink_(intf, line);
    }

private:
    Sink sink_;
    std::map<std::pair<IntfId, std::uint32_t>, std::pair<Runtime::Time, std::uint64_t>> last_;
};

}  // namespace Mrp
