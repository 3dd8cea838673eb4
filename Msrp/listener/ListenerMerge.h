/// The merge of listener declarations towards the talker (IEEE 802.1Q 35.2.4.4.3).
#pragma once

#include "Msrp/types/Enums.h"

namespace Msrp {

/// Folds one port's declaration into what was merged so far; starts with `Ignore`, and no order matters.
constexpr ListenerState mergeListener(ListenerState merged, ListenerState port) {
    using enum ListenerState;
    switch (port) {
        case ReadyFailed:
            return ReadyFailed;
        case Ready:
            return merged == AskingFailed || merged == ReadyFailed ? ReadyFailed : Ready;
        case AskingFailed:
            return merged == Ready || merged == ReadyFailed ? ReadyFailed : AskingFailed;
        case Ignore:
            break;
    }
    return merged;
}

}  // namespace Msrp
