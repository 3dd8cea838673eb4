/// Tells that a module was loaded into the kernel, which may then be able to do more than before.
///
/// The kernel announces modules among many other things; all but them is left out before it wakes anybody.
/// Nothing is heard where the process may not listen, or lives in a container of which the kernel does not
/// tell.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <functional>

namespace Linux {

class ModuleNews {
public:
    /// The loop must outlive it.
    ModuleNews(Runtime::FdLoop& loop, std::function<void()> loaded);

private:
    Runtime::FileDescriptor fd_;
    Runtime::FdLoop::Watch watch_;  ///< after `fd_`: ends before it closes
};

}  // namespace Linux
