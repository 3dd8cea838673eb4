#include "Linux/queues/PortTrials.h"

#include <algorithm>

namespace Linux {

void PortTrials::gaveUp(Runtime::Time now, ClassRates asked) {
    asked_ = asked;
    if (!due_) putOff(now, first);
}

void PortTrials::failed(Runtime::Time now, const std::string& why) {
    failure_ = why;
    if (!due_) putOff(now, firstPassing);
}

bool PortTrials::mayRepair(Runtime::Time now) {
    if (leftAlone_) return false;
    leftAlone_ = changed_.leftAlone(now);
    if (leftAlone_) {
        putOff(now, first);
    } else {
        changed_.changed(now);
    }
    return !leftAlone_;
}

bool PortTrials::worked() {
    if (leftAlone_) return false;
    due_.reset();
    const bool wasTry = asked_ != ClassRates{};
    asked_ = {};
    return wasTry;
}

std::string PortTrials::problem() const {
    if (leftAlone_) return "somebody else changes the queues again and again";
    return patience_ >= lasting ? failure_ : std::string{};
}

bool PortTrials::begin(Runtime::Time now, bool hopeless) {
    if (!due_ || now < *due_) return false;
    due_.reset();
    tried_ = now;
    leftAlone_ = false;
    refusals_ = {};
    if (hopeless) asked_ = {};
    return true;
}

void PortTrials::beginAnew(bool hopeless) {
    const ClassRates asked = hopeless ? ClassRates{} : asked_;
    *this = {};
    asked_ = asked;
}

void PortTrials::putOff(Runtime::Time now, Runtime::Duration shortest) {
    const bool again = patience_ > Runtime::Duration{0} && now - tried_ <= patience_;
    patience_ = again ? std::clamp(patience_ * 2, shortest, last) : shortest;
    due_ = now + patience_;
}

}  // namespace Linux
