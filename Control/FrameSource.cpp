#include "Control/FrameSource.h"

#include <utility>

namespace Control {

FrameSource::FrameSource(Known known, Wanted wanted) : known_{std::move(known)}, wanted_{std::move(wanted)} {}

void FrameSource::pass(std::string_view port, Direction direction,
                       std::span<const std::uint8_t> frame) const {
    for (const Subscription* subscription : subscriptions_) {
        if (subscription->port_ == port) subscription->receiver_(direction, frame);
    }
}

FrameSource::Subscription::Subscription(FrameSource& source, std::string port, Receiver receiver)
    : source_{source}, port_{std::move(port)}, receiver_{std::move(receiver)} {
    source_.subscriptions_.push_back(this);
    if (source_.subscriptions_.size() == 1) source_.wanted_(true);
}

FrameSource::Subscription::~Subscription() {
    std::erase(source_.subscriptions_, this);
    if (source_.subscriptions_.empty()) source_.wanted_(false);
}

}  // namespace Control
