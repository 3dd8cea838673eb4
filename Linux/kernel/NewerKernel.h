/// Numbers of the kernel's interface that are younger than the headers this is built with.
#pragma once

#include <cstdint>

namespace Linux {

/// In MDBA_SET_ENTRY_ATTRS: who made the entry (u8).  Kernel 6.2.
inline constexpr std::uint16_t mdbeAttrRtprot = 4;
/// In the flags of an entry: no switch chip took it.  Kernel 6.14.
inline constexpr std::uint8_t mdbFlagsOffloadFailed = 1U << 4;
/// Of a request: delete all that match.
inline constexpr std::uint16_t netlinkBulk = 0x200;

}  // namespace Linux
