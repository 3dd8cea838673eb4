/// Numbers of the kernel's interface that are younger than the headers this is built with.
#pragma once

#include <cstdint>

namespace Linux {

/// In MDBA_SET_ENTRY_ATTRS: who made the entry (u8).  Kernel 6.2.
inline constexpr std::uint16_t mdbeAttrRtprot = 4;

}  // namespace Linux
