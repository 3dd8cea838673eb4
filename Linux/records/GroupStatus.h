/// "linux/groups": how the wanted groups fare in the bridge's multicast table.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Linux {

class GroupStatus : public State::Record<GroupStatus> {
public:
    static constexpr std::string_view type = "Linux::GroupStatus";

    /// Pairs of group and port that are asked for, on ports that the bridge has.
    [[nodiscard]] std::uint32_t wanted() const { return wanted_; }
    void wantedIs(std::uint32_t v) { assign(wanted_, v, "wanted"); }
    /// Those of them that the bridge's table holds.
    [[nodiscard]] std::uint32_t programmed() const { return programmed_; }
    void programmedIs(std::uint32_t v) { assign(programmed_, v, "programmed"); }
    /// Those of the programmed that somebody else made.
    [[nodiscard]] std::uint32_t foreign() const { return foreign_; }
    void foreignIs(std::uint32_t v) { assign(foreign_, v, "foreign"); }
    /// Groups in the table, whoever made them.
    [[nodiscard]] std::uint32_t tableUsed() const { return tableUsed_; }
    void tableUsedIs(std::uint32_t v) { assign(tableUsed_, v, "tableUsed"); }
    /// Groups for which the table has room; some of it is left to others.  0: not known.
    [[nodiscard]] std::uint32_t tableSize() const { return tableSize_; }
    void tableSizeIs(std::uint32_t v) { assign(tableSize_, v, "tableSize"); }
    /// How many more groups with listeners would get a place now, without taking that of another one with
    /// listeners; means nothing while the size is not known.
    [[nodiscard]] std::uint32_t tableRoom() const { return tableRoom_; }
    void tableRoomIs(std::uint32_t v) { assign(tableRoom_, v, "tableRoom"); }
    /// Why every stream goes to every port; empty: it does not.
    [[nodiscard]] const std::string& flooded() const { return flooded_; }
    void floodedIs(const std::string& v) { assign(flooded_, v, "flooded"); }
    /// Ports that get every stream, since the kernel takes them for those of multicast routers.
    [[nodiscard]] const State::FlatMap<IntfId, bool>& routerPorts() const { return routerPorts_; }
    void routerPortIs(IntfId id) { setEntry(routerPorts_, id, true, "routerPorts"); }
    void routerPortDel(IntfId id) { delEntry(routerPorts_, id, "routerPorts"); }
    /// Entries that the bridge has and its switch chip has not, "VLAN/ADDRESS/PORT": looked for by the audit,
    /// and at most `listed` of them.
    [[nodiscard]] const State::FlatMap<std::string, bool>& notOffloaded() const { return notOffloaded_; }
    void notOffloadedIs(const std::string& entry) { setEntry(notOffloaded_, entry, true, "notOffloaded"); }
    void notOffloadedDel(const std::string& entry) { delEntry(notOffloaded_, entry, "notOffloaded"); }
    /// Entries that are wanted and not there.
    [[nodiscard]] std::uint32_t missing() const { return missing_; }
    void missingIs(std::uint32_t v) { assign(missing_, v, "missing"); }
    /// Some of these, at most `listed`: "VLAN/ADDRESS/PORT", and why.
    static constexpr std::size_t listed = 256;
    [[nodiscard]] const State::FlatMap<std::string, std::string>& failed() const { return failed_; }
    void failedIs(const std::string& entry, const std::string& why) {
        setEntry(failed_, entry, why, "failed");
    }
    void failedDel(const std::string& entry) { delEntry(failed_, entry, "failed"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("wanted", &GroupStatus::wanted_));
        each(State::scalar("programmed", &GroupStatus::programmed_));
        each(State::scalar("foreign", &GroupStatus::foreign_));
        each(State::scalar("tableUsed", &GroupStatus::tableUsed_));
        each(State::scalar("tableSize", &GroupStatus::tableSize_));
        each(State::scalar("tableRoom", &GroupStatus::tableRoom_));
        each(State::scalar("flooded", &GroupStatus::flooded_));
        each(State::map("routerPorts", &GroupStatus::routerPorts_));
        each(State::map("notOffloaded", &GroupStatus::notOffloaded_));
        each(State::scalar("missing", &GroupStatus::missing_));
        each(State::map("failed", &GroupStatus::failed_));
    }

private:
    std::uint32_t wanted_ = 0;
    std::uint32_t programmed_ = 0;
    std::uint32_t foreign_ = 0;
    std::uint32_t tableUsed_ = 0;
    std::uint32_t tableSize_ = 0;
    std::uint32_t tableRoom_ = 0;
    std::string flooded_;
    State::FlatMap<IntfId, bool> routerPorts_;
    State::FlatMap<std::string, bool> notOffloaded_;
    std::uint32_t missing_ = 0;
    State::FlatMap<std::string, std::string> failed_;
};

}  // namespace Linux

// Made once, in the source file beside this header.
extern template class State::Record<Linux::GroupStatus>;
