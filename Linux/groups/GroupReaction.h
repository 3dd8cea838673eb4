/// What the kernel's answer to a request about a group calls for.
#pragma once

#include "Linux/kernel/Netlink.h"

namespace Linux {

enum class GroupReaction {
    done,      ///< it is as we asked
    unmarked,  ///< this kernel cannot mark entries: ask again without
    full,      ///< the table is full, and the kernel stopped snooping on the whole bridge because of it
    reread,    ///< the table is not what we took it for
    passing,   ///< not now: what is in the way goes by itself, or will be heard of
    refused,   ///< the answer says why
};

GroupReaction reactionToAdd(const NetlinkAnswer& answer);
GroupReaction reactionToDelete(const NetlinkAnswer& answer);

}  // namespace Linux
