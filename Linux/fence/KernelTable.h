/// A table in the kernel, from streams and addresses to entries, that programs look into.
#pragma once

#include "Linux/fence/FenceProgram.h"
#include "Runtime/FileDescriptor.h"

#include <cstdint>
#include <optional>

namespace Linux {

/// Without the type of its entries.
class RawKernelTable {
protected:
    RawKernelTable(std::uint32_t entrySize, std::uint32_t room) : entrySize_{entrySize}, room_{room} {}

    [[nodiscard]] int enterRaw(const FenceKey& key, const void* entry);
    [[nodiscard]] int readRaw(const FenceKey& key, void* entry) const;

public:
    /// Makes it anew, empty.  `errno` of what the kernel refuses, 0 on success; so do those below.
    [[nodiscard]] int make();
    void close() { table_ = {}; }
    [[nodiscard]] bool made() const { return static_cast<bool>(table_); }
    /// For programs; -1 when it is not made.
    [[nodiscard]] int descriptor() const { return table_.get(); }
    /// Entries that fit.
    [[nodiscard]] std::uint32_t room() const { return room_; }
    /// ENOENT: it was not in it.
    [[nodiscard]] int remove(const FenceKey& key);

private:
    const std::uint32_t entrySize_;
    const std::uint32_t room_;
    Runtime::FileDescriptor table_;
};

template <typename Entry>
class KernelTable : public RawKernelTable {
public:
    explicit KernelTable(std::uint32_t room) : RawKernelTable{sizeof(Entry), room} {}

    /// In place of what was there.  E2BIG: it is full.
    [[nodiscard]] int enter(const FenceKey& key, const Entry& entry) { return enterRaw(key, &entry); }
    /// Nothing for what is not in it.
    [[nodiscard]] std::optional<Entry> read(const FenceKey& key) const {
        Entry entry;
        if (readRaw(key, &entry) != 0) return std::nullopt;
        return entry;
    }
};

}  // namespace Linux
