/// Memory for events, and a file in which each is written at once, so that what was written is there whatever
/// happens to the process.  Nothing is read from the file once it is open, and what cannot be written costs
/// the file, not the events: they are in memory only from then on.  Writing ends in the system's memory, so
/// it waits only where that is crowded.  After a loss of power what the system had not written back yet is
/// missing (some seconds), which the checksums of the slots show.
///
/// File: one header of 256 octets, then slots of 256.  Numbers in the machine's order.
///     header: "MSRPHIS1", u64 number that the next event gets, 36 octets name of the machine's run
///             (its boot id), zeros
///     slot:   see History/Event.cpp
///
/// The file is `history` in a directory.  Only a plain file of this user is touched, in a directory where
/// nobody else may replace files, and while no other process has it (a lock says so): anything else stays as
/// it is, and events are kept in memory only.  What is no file of this form is put aside as `history.aside`;
/// where that name is taken already, it stays in the way.  A file of another size gives its events to a fresh
/// one, which then takes its place.
#pragma once

#include "History/Event.h"
#include "Runtime/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace History {

class SlotFile {
public:
    /// In memory only, until `open`.
    explicit SlotFile(std::size_t slots);
    SlotFile(const SlotFile&) = delete;
    SlotFile& operator=(const SlotFile&) = delete;
    ~SlotFile() = default;

    /// From now on in that directory's file, for which all slots must still be empty.  Empty on success, else
    /// why it stays in memory.
    std::string open(const std::string& directory);
    /// Where it is; empty: in memory only.
    [[nodiscard]] const std::string& path() const { return path_; }
    /// Why the file was given up; empty while it was not.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    [[nodiscard]] std::size_t size() const { return memory_.size() / slotOctets - 1; }
    [[nodiscard]] std::span<const std::byte, slotOctets> slot(std::size_t number) const {
        return std::span{memory_}.subspan((number + 1) * slotOctets).first<slotOctets>();
    }
    void slotIs(std::size_t number, const Event& event);
    /// Left out where the machine was started anew, or may have been: numbers that were given and told before
    /// a loss of power may not have come to the disk.  More than a history ever loses, so that a gap tells
    /// how many leaps are in it.
    static constexpr std::uint64_t leap = std::uint64_t{1} << 32;
    /// The number that the next event gets: never one that an event had before, in this life or an earlier.
    [[nodiscard]] std::uint64_t next() const;
    void nextIs(std::uint64_t number);

private:
    /// Writes that part of the memory; without a file it does nothing.
    void write(std::size_t at, std::size_t size);
    /// Moves the whole events of an older file into this one's slots, the newest where there are too many.
    void adopt(const std::vector<std::byte>& content);

    std::vector<std::byte> memory_;
    std::string path_;
    std::string problem_;
    Runtime::FileDescriptor file_;  ///< holds the lock
};

}  // namespace History
