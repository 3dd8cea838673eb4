#include "Linux/GroupAnswer.h"

#include <cerrno>

namespace Linux {

GroupReaction reactionToAdd(const NetlinkAnswer& answer) {
    switch (answer.error) {
        case 0:
            return GroupReaction::done;
        case EEXIST:
            return GroupReaction::reread;
        case E2BIG:
            return GroupReaction::full;
        case EINVAL:
            return answer.text == "Unknown attribute type" ? GroupReaction::unmarked : GroupReaction::refused;
        default:
            return GroupReaction::refused;
    }
}

GroupReaction reactionToDelete(const NetlinkAnswer& answer) {
    switch (answer.error) {
        case 0:
            return GroupReaction::done;
        case EINVAL:
            // Silent, it means that there is no such group, port or VLAN.
            return answer.text.empty() ? GroupReaction::reread : GroupReaction::refused;
        case ENODEV:
        case ENOENT:
            return GroupReaction::reread;
        default:
            return GroupReaction::refused;
    }
}

}  // namespace Linux
