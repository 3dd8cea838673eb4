#include "Linux/fence/FenceTable.h"

#include "Linux/fence/BpfCall.h"
#include "Runtime/Text.h"

#include <cerrno>

namespace Linux {

namespace {

int writeKey(int descriptor, const FenceKey& key, bool enter) {
    const std::uint8_t value = 1;
    bpf_attr change = bpfAttributes();
    change.map_fd = static_cast<std::uint32_t>(descriptor);
    change.key = bpfAddress(&key);
    if (enter) change.value = bpfAddress(&value);
    return bpfCall(enter ? BPF_MAP_UPDATE_ELEM : BPF_MAP_DELETE_ELEM, change) < 0 ? errno : 0;
}

}  // namespace

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
    if (!table_) {
        bpf_attr make = bpfAttributes();
        make.map_type = BPF_MAP_TYPE_HASH;
        make.key_size = sizeof(FenceKey);
        make.value_size = 1;
        make.max_entries = room_;
        make.map_flags = BPF_F_NO_PREALLOC;
        table_ = Runtime::FileDescriptor{static_cast<int>(bpfCall(BPF_MAP_CREATE, make))};
        if (!table_) problem_ = bpfProblem("the kernel makes no table of streams", errno);
    }
    for (; problem_.empty() && !due_.empty() && changes > 0; --changes) {
        const FenceKey key = *due_.begin();
        const bool enter = wanted_.contains(key);
        const int error = writeKey(table_.get(), key, enter);
        if (error == E2BIG) {
            problem_ = Runtime::concat("there are more than ", room_, " streams and groups");
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
    table_ = {};
    filled_ = false;
    held_.clear();
    due_ = wanted_;
    return true;
}

}  // namespace Linux
