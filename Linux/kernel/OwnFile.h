/// A small file that only this user and root can have written: what stands in it may be believed.
///
/// It is never reached through a symbolic link, never opened where it is no plain file, and neither read nor
/// written where others may write it or its folder.
#pragma once

#include "Runtime/FileDescriptor.h"

#include <string>
#include <string_view>

namespace Linux {

class OwnFile {
public:
    explicit OwnFile(std::string path) : path_{std::move(path)} {}

    /// The whole of it into `text`; empty where there is none.  Empty on success; else why it is not read.
    [[nodiscard]] std::string read(std::string& text) const;
    /// Puts a fresh file with that text in its place: who is interrupted leaves the old one.  Empty on
    /// success; else what went wrong.
    std::string replace(std::string_view text);
    /// Appends to what this object has put in place.  As `replace`.
    std::string append(std::string_view text);
    /// Whether `append` can be used.
    [[nodiscard]] bool isOpen() const { return bool{fd_}; }
    /// Removes it, where it may be touched at all.
    void remove();

private:
    /// The folder, if only we and root write there.
    Runtime::FileDescriptor folder(std::string& problem) const;
    [[nodiscard]] std::string name() const;
    [[nodiscard]] std::string cannot(std::string_view what, int error) const;

    const std::string path_;
    Runtime::FileDescriptor fd_;
};

}  // namespace Linux
