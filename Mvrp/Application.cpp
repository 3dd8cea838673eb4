#include "Mvrp/Application.h"

#include "Runtime/BigEndian.h"
#include "Switch/Ranged.h"

namespace Mvrp {

namespace {

std::uint64_t vidOf(std::span<const std::uint8_t> value) { return Runtime::bigEndian(value.first(2)); }

// 0 and 4095 name no VLAN; what begins with 0 may still go on to those that do.
std::size_t vidSuccessors(std::span<const std::uint8_t> value) {
    const std::uint64_t vid = vidOf(value);
    return vid < VlanId::max ? VlanId::max - vid : 0;
}
void incrementVid(std::span<std::uint8_t> value) { Runtime::bigEndianIs(value.first(2), vidOf(value) + 1); }
bool vidFollows(std::span<const std::uint8_t> previous, std::span<const std::uint8_t> next) {
    return vidOf(previous) + 1 == vidOf(next);
}

constexpr Mrp::AttributeType types[] = {{.type = typeVid,
                                         .valueLength = 2,
                                         .fourPacked = false,
                                         .deliverFirst = false,
                                         .retriesPort = false,
                                         .tellsNew = true,
                                         .replaces = 0,
                                         .key = vidOf,
                                         .successors = vidSuccessors,
                                         .increment = incrementVid,
                                         .follows = vidFollows}};
constexpr Mrp::ApplicationInfo mvrp{.protocolVersion = 0, .listLength = false, .types = types};

}  // namespace

const Mrp::ApplicationInfo& application() { return mvrp; }

}  // namespace Mvrp
