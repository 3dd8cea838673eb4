/// Trying things out in copies of this process: a copy has all that this one has at that moment, and whatever
/// becomes of it, its end included, this one goes on as it was.  No other threads may run.
#pragma once

#include "Runtime/Time.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace Plan {

/// When the time that something may take is over.
class Deadline {
public:
    /// 0: it never is.
    explicit Deadline(Runtime::Duration span)
        : at_{span == Runtime::Duration{}
                  ? Clock::time_point::max()
                  : Clock::now() + std::chrono::duration_cast<Clock::duration>(span)} {}
    [[nodiscard]] bool passed() const { return Clock::now() >= at_; }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point at_;
};

/// Memory of this process and all of its copies.
struct Shared {
    std::atomic<std::uint64_t> next{0};  ///< the next thing to do, of those that share the work
    std::atomic<std::uint64_t> done{0};  ///< for whoever counts
    std::atomic<bool> stop{false};
};

/// A place where a copy leaves its answer.
class Copy {
public:
    Copy();
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    ~Copy();

    /// What `body` gives, done in a copy, cut off at some 60,000 octets; with `died` set, how the copy ended
    /// instead, in words.  Throws std::system_error when there can be no copy.
    std::string answer(const std::function<std::string()>& body, bool& died);

private:
    struct Page;
    Page* page_;
};

/// Does `body(number, shared)` in so many copies at once, and gives what they wrote, one behind the other;
/// with `died` set, how one of them ended.  With one copy there is none: it is done right here.
std::string together(unsigned copies, const std::function<std::string(unsigned, Shared&)>& body, bool& died);

}  // namespace Plan
