/// The capture command of msrpctl: the frames of one port, from the daemon into a file.
#pragma once

#include <cstdint>
#include <string>

struct CaptureOptions {
    std::string socket;       ///< the daemon's
    std::string port;         ///< like swp1
    std::string file;         ///< "-": standard output
    std::uint64_t count = 0;  ///< frames after which it ends; 0: none
};

/// Writes a pcapng file, frame by frame as they pass, until SIGINT or SIGTERM comes or so many frames are in
/// it.  The file is not touched before the daemon has agreed, and is complete at any time after that.  Empty
/// on success, else one line that says what went wrong.
std::string capture(const CaptureOptions& options);
