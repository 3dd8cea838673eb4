/// What happens to a network, act by act: written down, done, and cut down to what a fault needs.
///
/// In a story's text acts stand between semicolons or in lines of their own:
///
///     talk s1; hush s1               its talker begins or stops
///     listen s1 at b3; leave s1 at b3
///     cut sw1--sw2; mend sw1--sw2    a link, by the names at its ends
///     restart sw1                    off, and on again 50 ms later with nothing of what it knew
///     takeover sw1                   its standby goes on where its agent stopped
///     leaveall sw1                   every port of a bridge sends a LeaveAll
///     lose 2 sw1>sw2                 the second frame from now on that way is lost
///     late 2 sw1>sw2                 it comes 200 ms later, behind those that follow it
///     loss 5%                        on every link, from now on
///     wait 100ms
///     settle                         time runs until all is as it should be, or it is told what is not,
///     after
///                                    two LeaveAll rounds at the latest, or after the time that follows
///     stay                           two LeaveAll rounds pass, and nothing may change
#pragma once

#include "Plan/World.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Plan {

struct Act {
    enum class Kind : std::uint8_t {
        talk,
        hush,
        listen,
        leave,
        cut,
        mend,
        restart,
        takeover,
        leaveall,
        lose,
        late,
        loss,
        wait,
        settle,
        stay
    };
    Kind kind = Kind::settle;
    std::size_t what = 0;      ///< stream, link or device
    std::size_t station = 0;   ///< of `listen` and `leave`
    int end = 0;               ///< of the link at which the way begins
    unsigned number = 0;       ///< of the frame; per cent of `loss`
    Runtime::Duration span{};  ///< of `wait`; of `settle`, 0 for two LeaveAll rounds
    bool operator==(const Act&) const = default;
};
using Story = std::vector<Act>;

std::string storyText(const Network& network, const Story& story);
/// Nothing, and what is wrong with which act, for a text that is none.
std::optional<Story> parseStory(const Network& network, const std::string& text, std::string& problem);

/// Does it; tells what is wrong with the network after a `settle` or `stay`, else nothing.
std::string perform(World& world, const Act& act);

/// Acts that would change something now, `restart`, `takeover` and `leaveall` of every bridge included.
std::vector<Act> possibleActs(const World& world);
/// The act that takes it back; nothing for those that do not last.
std::optional<Act> inverse(const Act& act);

/// The shortest story that can be had by leaving out acts, while `fails` says of what is left that it still
/// fails.
Story shortest(Story story, const std::function<bool(const Story&)>& fails);

}  // namespace Plan
