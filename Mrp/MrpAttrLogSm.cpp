#include "Mrp/MrpAttrLogSm.h"

namespace Mrp {

void MrpAttrLogSm::record(const AttrLogRecord& record) {
    waiting_.push_back(record);
    drain();
    if (waiting_.size() > capacity_) waiting_.pop_front();
}

bool MrpAttrLogSm::isAttrLogOutClogged() {
    drain();
    return waiting_.size() >= capacity_;
}

void MrpAttrLogSm::drain() {
    while (!waiting_.empty() && (!sink_ || sink_(waiting_.front()))) waiting_.pop_front();
}

}  // namespace Mrp
