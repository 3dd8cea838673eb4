#include "Plan/Wire.h"

#include <algorithm>
#include <utility>

namespace Plan {

namespace {

constexpr std::size_t headers = 14 + 4;        // addresses and EtherType, check sequence
constexpr std::size_t leastFrame = 64;         // with both
constexpr std::size_t betweenFrames = 8 + 12;  // preamble, gap

std::size_t frameOctets(std::size_t pduOctets) { return std::max(leastFrame, pduOctets + headers); }

}  // namespace

Wire::Wire(const Runtime::Loop& sender, Runtime::Loop& receiver, const Quality& quality, std::uint64_t seed,
           std::function<void(const Sim::Pdu&)> deliver)
    : sender_{sender},
      together_{&sender == &receiver},
      quality_{quality},
      deliver_{std::move(deliver)},
      random_{seed},
      arrival_{receiver, [this] { arrive(); }} {}

Runtime::Duration Wire::onWire(std::size_t pduOctets) const {
    return Runtime::Duration{(frameOctets(pduOctets) + betweenFrames) * 8000 / quality_.megabitsPerSecond};
}

void Wire::send(const Sim::Pdu& pdu) {
    if (!up_) return;
    ++frames_;
    octets_ += frameOctets(pdu.size());
    busyUntil_ = std::max(busyUntil_, sender_.now()) + onWire(pdu.size());
    // Drawn for every frame, so that a link's loss is its own matter whatever else differs between two runs.
    const bool lost =
        static_cast<double>(random_()) < quality_.loss * static_cast<double>(std::mt19937_64::max());
    const bool mishap = mishap_ != 0 && --mishap_ == 0;
    if (lost || (mishap && !late_)) {
        ++lost_;
        return;
    }
    sent_.push_back({busyUntil_ + quality_.delay + (mishap ? *late_ : Runtime::Duration{}), pdu});
    if (together_) join();
}

bool Wire::join() {
    if (sent_.empty()) return false;
    const auto later = [](Runtime::Time due, const Travelling& one) { return due < one.due; };
    for (Travelling& one : sent_) {
        const auto at = std::upper_bound(travelling_.begin(), travelling_.end(), one.due, later);
        const bool first = at == travelling_.begin();
        travelling_.insert(at, std::move(one));
        if (first) arrival_.armAt(travelling_.front().due);
    }
    sent_.clear();
    return true;
}

void Wire::arrive() {
    Travelling first = std::move(travelling_.front());
    travelling_.pop_front();
    if (!travelling_.empty()) arrival_.armAt(travelling_.front().due);
    deliver_(first.pdu);
}

void Wire::upIs(bool up) {
    up_ = up;
    if (up) return;
    sent_.clear();
    travelling_.clear();
    arrival_.cancel();
}

}  // namespace Plan
