#include "Linux/fence/MeterTable.h"

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

int MeterTable::make() {
    bpf_attr request = bpfAttributes();
    request.map_type = BPF_MAP_TYPE_HASH;
    request.key_size = sizeof(FenceKey);
    request.value_size = sizeof(MeterEntry);
    request.max_entries = room_;
    request.map_flags = BPF_F_NO_PREALLOC;
    table_ = Runtime::FileDescriptor{static_cast<int>(bpfCall(BPF_MAP_CREATE, request))};
    return table_ ? 0 : errno;
}

int MeterTable::enter(const FenceKey& key, const MeterEntry& entry) {
    return ask(BPF_MAP_UPDATE_ELEM, table_.get(), key, &entry);
}

int MeterTable::remove(const FenceKey& key) { return ask(BPF_MAP_DELETE_ELEM, table_.get(), key, nullptr); }

std::optional<MeterEntry> MeterTable::read(const FenceKey& key) const {
    MeterEntry entry;
    if (ask(BPF_MAP_LOOKUP_ELEM, table_.get(), key, &entry) != 0) return std::nullopt;
    return entry;
}

}  // namespace Linux
