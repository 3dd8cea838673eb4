#include "Linux/fence/KernelTable.h"

#include "Linux/fence/BpfCall.h"

#include <cerrno>

namespace Linux {

namespace {

/// `entry` may be null for commands that have none.
int ask(bpf_cmd command, int table, const FenceKey& key, const void* entry) {
    bpf_attr request = bpfAttributes();
    request.map_fd = static_cast<std::uint32_t>(table);
    request.key = bpfAddress(&key);
    request.value = bpfAddress(entry);
    return bpfCall(command, request) < 0 ? errno : 0;
}

}  // namespace

int RawKernelTable::make() {
    bpf_attr request = bpfAttributes();
    request.map_type = BPF_MAP_TYPE_HASH;
    request.key_size = sizeof(FenceKey);
    request.value_size = entrySize_;
    request.max_entries = room_;
    request.map_flags = BPF_F_NO_PREALLOC;
    table_ = Runtime::FileDescriptor{static_cast<int>(bpfCall(BPF_MAP_CREATE, request))};
    return table_ ? 0 : errno;
}

int RawKernelTable::enterRaw(const FenceKey& key, const void* entry) {
    return ask(BPF_MAP_UPDATE_ELEM, table_.get(), key, entry);
}

int RawKernelTable::readRaw(const FenceKey& key, void* entry) const {
    return ask(BPF_MAP_LOOKUP_ELEM, table_.get(), key, entry);
}

int RawKernelTable::remove(const FenceKey& key) {
    return ask(BPF_MAP_DELETE_ELEM, table_.get(), key, nullptr);
}

}  // namespace Linux
