/// The table in which the fence's programs count the frames of streams.
#pragma once

#include "Linux/fence/FenceProgram.h"
#include "Runtime/FileDescriptor.h"

#include <cstdint>
#include <optional>

namespace Linux {

class MeterTable {
public:
    static constexpr std::uint32_t defaultRoom = 16'384;

    /// `room`: streams that fit.
    explicit MeterTable(std::uint32_t room = defaultRoom) : room_{room} {}

    /// Makes it; `errno` of what the kernel refuses, 0 on success.
    int make();
    /// For programs; -1 before `make`.
    [[nodiscard]] int descriptor() const { return table_.get(); }
    [[nodiscard]] std::uint32_t room() const { return room_; }

    /// Enters it in place of what was there.  `errno` of what the kernel refuses (E2BIG: it is full), else 0.
    int enter(const FenceKey& key, const MeterEntry& entry);
    int remove(const FenceKey& key);
    /// Nothing for a stream that is not in it.
    [[nodiscard]] std::optional<MeterEntry> read(const FenceKey& key) const;

private:
    const std::uint32_t room_;
    Runtime::FileDescriptor table_;
};

}  // namespace Linux
