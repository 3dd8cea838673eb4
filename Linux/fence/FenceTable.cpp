#include "Linux/fence/FenceTable.h"

#include "Linux/fence/BpfCall.h"
#include "Runtime/Text.h"

#include <cerrno>

namespace Linux {

void FenceTable::want(const FenceKey& key, bool wanted) {
    if (wanted ? !wanted_.insert(key).second : wanted_.erase(key) == 0) return;
    if (held_.contains(key) == wanted) {
        due_.erase(key);
    } else {
        due_.insert(key);
    }
}

bool FenceTable::carryOut(std::size_t changes) {
    if (!problem_.empty()) return true;
    if (!table_.made()) {
        if (const int error = table_.make(); error != 0)
            problem_ = bpfProblem("the kernel makes no table of streams", error);
    }
    for (; problem_.empty() && !due_.empty() && changes > 0; --changes) {
        const FenceKey key = *due_.begin();
        const bool enter = wanted_.contains(key);
        const int error = enter ? table_.enter(key, 1) : table_.remove(key);
        if (error == E2BIG) {
            problem_ = Runtime::concat("there are more than ", table_.room(), " streams and groups");
        } else if (error != 0 && error != ENOENT) {
            problem_ = bpfProblem("the kernel does not take a stream into the table", error);
        } else {
            due_.erase(due_.begin());
            if (enter) {
                held_.insert(key);
            } else {
                held_.erase(key);
            }
        }
    }
    filled_ = filled_ || due_.empty();
    return due_.empty() || !problem_.empty();
}

bool FenceTable::retry() {
    if (problem_.empty()) return false;
    problem_.clear();
    table_.close();
    filled_ = false;
    held_.clear();
    due_ = wanted_;
    return true;
}

}  // namespace Linux
