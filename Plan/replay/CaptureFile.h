/// Reads capture files: pcapng (draft-ietf-opsawg-pcapng) and classic pcap, of either order of octets.
///
/// A file that is broken or ends early is read as far as it is whole.  The work is in proportion to its
/// octets, and nothing of it is kept but the interfaces.
#pragma once

#include "Show/Pcapng.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Plan {

struct CapturedInterface {
    std::string name{};  ///< empty where the file does not tell
    std::uint16_t linkType = 0;
};

struct CapturedFrame {
    std::size_t interface = 0;  ///< place in the capture's interfaces
    /// The nearest that can be told, for one outside the years 1677 to 2262.
    Pcapng::WallTime time{};
    Pcapng::Direction direction = Pcapng::Direction::unknown;
    std::uint64_t missing = 0;  ///< frames that the capture lost before this one
    std::size_t onWire = 0;     ///< octets that it had there; there are fewer below where it was cut short
    std::span<const std::uint8_t> octets{};  ///< of the file
};

struct CaptureBreak {
    std::size_t at = 0;  ///< octet of the file where that begins which cannot be read
    std::string why{};
};

struct Capture {
    std::string format{};  ///< "pcapng", "pcap", or empty for neither
    std::vector<CapturedInterface> interfaces{};
    std::size_t frames = 0;
    std::optional<CaptureBreak> broken{};
};

/// Interfaces of all sections together; a file with more is read up to there.
inline constexpr std::size_t mostInterfaces = 4096;

/// Calls `each` for every frame in the order of the file; its interface can be looked at meanwhile.
Capture readCapture(std::span<const std::uint8_t> file,
                    const std::function<void(const Capture&, const CapturedFrame&)>& each);

}  // namespace Plan
