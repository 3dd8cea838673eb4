#include "Linux/groups/GroupReaction.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

namespace Linux {

namespace {

/// What the kernel says of a port or a bridge that is just changing.
constexpr std::array<std::string_view, 3> passingReasons{"not a bridge port", "not running",
                                                         "processing is disabled"};

}  // namespace

GroupReaction reactionToAdd(const NetlinkAnswer& answer) {
    switch (answer.error) {
        case 0:
            return GroupReaction::done;
        case EEXIST:
            return GroupReaction::reread;
        case E2BIG:
            return GroupReaction::full;
        case EINVAL:
            if (answer.text == "Unknown attribute type") return GroupReaction::unmarked;
            return std::ranges::any_of(passingReasons,
                                       [&](auto part) { return answer.text.find(part) != answer.text.npos; })
                       ? GroupReaction::passing
                       : GroupReaction::refused;
        case EAGAIN:
        case EINTR:
        case ENOBUFS:
        case ENODEV:
            return GroupReaction::passing;
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
