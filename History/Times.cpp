#include "History/Times.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace History {

void Distribution::add(Runtime::Duration took) {
    const double seconds = std::chrono::duration<double>(took).count();
    const auto micros =
        static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::microseconds>(took).count());
    std::size_t bucket = 0;
    while (bucket + 1 < buckets && micros > limit(bucket)) ++bucket;
    ++bucket_[bucket];
    sum_ += seconds;
    max_ = std::max(max_, seconds);
    assign(count_, count_ + 1, "count");
}

double Distribution::within(double share) const {
    const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count_)));
    std::uint64_t counted = 0;
    for (std::size_t i = 0; i + 1 < buckets && wanted > 0; ++i) {
        counted += bucket_[i];
        if (counted >= wanted) return std::min(max_, static_cast<double>(limit(i)) * 1e-6);
    }
    return max_;
}

}  // namespace History

template class State::Record<History::Distribution>;
template class State::Record<History::Times>;
