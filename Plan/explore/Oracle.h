/// What must be true of a network that has come to rest, whatever happened to it before: everybody has what
/// admission allows, neighbours agree on every attribute, and nothing is left of what is gone.
///
/// Who is to have what is worked out from the tree, the wants of the stations and the bandwidth of the links,
/// not from what the agents say.  What the protocol lets differ for a while is over after two LeaveAll rounds
/// (`longestUnrest`); what may differ beyond that, and why:
///
///   - Which of several streams that do not fit all has the bandwidth: who asks first has it (802.1Q 35.2.4),
///     and nobody is moved out.  So each that waits must not fit beside those that have it.
///   - Which of the two shares the code of a refusal names: the one that was short at that moment.
///   - Whether a stream that was refused is still told as failed where nobody asks for it any more: it is
///     promised to nobody, and the next LeaveAll round mends it.
///   - Until a LeaveAll round, a refused stream that does not wait under the listener's port: bandwidth that
///     comes free there is not offered to it.  It waits under the talker's port when the talker came after
///     the listener, and nowhere when bandwidth came free while nobody asked for it.
///   - What is declared to a port that blocks: MSRP does not run there, so nobody hears it.
#pragma once

#include "Plan/World.h"

#include <cstdint>
#include <string>

namespace Plan {

/// One line for each thing that is wrong; empty when all is well.  `early`: no LeaveAll round has passed.
std::string faultsOf(const World& world, bool early = false);

/// Whether nobody has anything to say, and nothing is about to leave.
bool isCalm(const World& world);

/// Two LeaveAll rounds of 15 s at most with the Leave times of so many devices one behind the other.
Runtime::Duration longestUnrest(const Network& network);

/// Lets time run until it is calm and nothing is wrong, at most for `most`; tells what is wrong even then.
std::string settle(World& world, Runtime::Duration most);

/// All that decides what happens next but for the times that timers have left and their random parts: wants,
/// links, records, and the states and values of every attribute of every engine.
std::string stateOf(const World& world);
/// What people see of it: streams with their ways, and what the stations hear of what they ask for.
std::string pictureOf(const World& world);

}  // namespace Plan
