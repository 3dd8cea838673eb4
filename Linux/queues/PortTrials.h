/// What was learnt about one port by trying: which ways of shaping the kernel refused, what failed for the
/// moment, that somebody else keeps changing its queues; and when it is worth another try.
///
/// A refusal that was found by trying would be found again at once if it were forgotten too early: whoever
/// relies on it would promise and take back, over and over.  So it is kept until something changes or its
/// time has come, and then what was asked for when it was found is tried before anybody relies on it.
#pragma once

#include "Linux/kernel/Contention.h"
#include "Linux/queues/Credits.h"
#include "Linux/queues/ShaperChoice.h"
#include "Runtime/Time.h"

#include <chrono>
#include <optional>
#include <string>

namespace Linux {

class PortTrials {
public:
    /// Tries follow one another in growing distance, while they fail.
    static constexpr Runtime::Duration first = std::chrono::seconds{60};
    static constexpr Runtime::Duration last = std::chrono::hours{1};
    /// The same for what is likely to pass; it is no refusal until it has lasted for so long.
    static constexpr Runtime::Duration firstPassing = std::chrono::seconds{1};
    static constexpr Runtime::Duration lasting = std::chrono::seconds{8};

    /// The kernel refuses that way of shaping.
    void wayRefused(Shaper way, const std::string& why) { refusals_.at(static_cast<std::size_t>(way)) = why; }
    [[nodiscard]] const ShaperRefusals& refusals() const { return refusals_; }

    /// No way gives these rates.
    void gaveUp(Runtime::Time now, ClassRates asked);
    /// Something failed that says nothing about what the port can do.
    void failed(Runtime::Time now, const std::string& why);
    /// Somebody else changed the queues; false when they are not to be repaired.
    bool mayRepair(Runtime::Time now);
    /// Nothing failed this time.
    void passed() { failure_.clear(); }
    /// The port is shaped as it should be.  True when that was for rates that only a try asked for.
    bool worked();

    /// To be tried in addition to what is asked for.
    [[nodiscard]] ClassRates asked() const { return asked_; }
    [[nodiscard]] bool leftAlone() const { return leftAlone_; }
    /// Why the port cannot be relied upon, apart from what it refused; empty: it can.
    [[nodiscard]] std::string problem() const;

    /// Whether nothing is to be tried before the next try is due.
    [[nodiscard]] bool failing() const { return due_ && !failure_.empty(); }
    /// When another try is due; nothing while none is needed.
    [[nodiscard]] std::optional<Runtime::Time> due() const { return due_; }
    /// Begins another try if one is due.  `hopeless`: the one with the same rates need not be made, only
    /// others.
    bool begin(Runtime::Time now, bool hopeless);
    /// Something changed: begins another try, as if there had been none.
    void beginAnew(bool hopeless = false);

private:
    void putOff(Runtime::Time now, Runtime::Duration shortest);

    ShaperRefusals refusals_;
    ClassRates asked_;
    bool leftAlone_ = false;
    std::string failure_;
    Contention changed_;  ///< by somebody else
    std::optional<Runtime::Time> due_;
    Runtime::Time tried_{};          ///< when the latest try began
    Runtime::Duration patience_{0};  ///< between the latest two; 0: there were none
};

}  // namespace Linux
