/// "history/times": how long reservations took, stage by stage, as distributions over fixed buckets.
#pragma once

#include "Runtime/Time.h"
#include "State/Record.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace History {

/// The stages of one reservation, of a stream to a port.  A port has a stage only where it came to it.
enum class Stage : std::uint8_t {
    declared,  ///< from when the talker was heard until it was declared to the port
    asked,     ///< from then until a listener asked; nothing when it had asked before
    admitted,  ///< from when both were there until bandwidth was given
    group,     ///< from then until the kernel forwarded
    queue,     ///< from then until the kernel shaped for it
    whole,     ///< from when both were there until the last of these
};
constexpr auto stageNames = std::to_array<State::EnumName<Stage>>({{Stage::declared, "declared"},
                                                                   {Stage::asked, "asked"},
                                                                   {Stage::admitted, "admitted"},
                                                                   {Stage::group, "group"},
                                                                   {Stage::queue, "queue"},
                                                                   {Stage::whole, "whole"}});
constexpr const auto& enumNames(Stage) { return stageNames; }

/// How often something took how long.
class Distribution : public State::Record<Distribution> {
public:
    static constexpr std::string_view type = "History::Distribution";
    explicit Distribution(Stage) {}

    /// 1, 2 and 5 of each decade from 10 microseconds to 100 seconds; the last bucket has what took longer.
    static constexpr std::size_t buckets = 23;
    /// Microseconds: the longest that a bucket takes in.
    static constexpr std::uint64_t limit(std::size_t bucket) {
        constexpr std::array<std::uint64_t, 3> steps{10, 20, 50};
        std::uint64_t limit = steps[bucket % 3];
        for (std::size_t decade = 0; decade < bucket / 3; ++decade) limit *= 10;
        return limit;
    }

    void add(Runtime::Duration took);
    /// Seconds within which that share of them was done, as exactly as the buckets tell; 0 for none.
    [[nodiscard]] double within(double share) const;
    [[nodiscard]] std::uint64_t count() const { return count_; }

    template <class F>
    static constexpr void fields(F&& each) {
        using D = Distribution;
        each(State::scalar("count", &D::count_));
        each(State::scalar("sum", &D::sum_));
        each(State::scalar("max", &D::max_));
        each(State::derived<D>("median", [](const D& d) { return d.within(0.5); }));
        each(State::derived<D>("p90", [](const D& d) { return d.within(0.9); }));
        each(State::derived<D>("p99", [](const D& d) { return d.within(0.99); }));
        // By the limit in microseconds; what took longer than all of them is the rest of `count`.
        each(State::derived<D>("bucket", [](const D& d) {
            std::vector<std::pair<std::string, std::uint64_t>> all;
            for (std::size_t i = 0; i + 1 < buckets; ++i)
                all.emplace_back(std::to_string(limit(i)), d.bucket_[i]);
            return all;
        }));
    }

private:
    std::uint64_t count_ = 0;
    double sum_ = 0.0;  ///< seconds
    double max_ = 0.0;
    std::array<std::uint64_t, buckets> bucket_{};
};

class Times : public State::Record<Times> {
public:
    static constexpr std::string_view type = "History::Times";
    /// Every stage is there from the start.
    Times() {
        for (const auto& stage : stageNames) makeChild(stage_, stage.value, "stage");
    }

    void add(Stage stage, Runtime::Duration took) { stage_.peek(stage)->add(took); }
    [[nodiscard]] std::shared_ptr<const Distribution> stage(Stage s) const { return stage_.get(s); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("stage", &Times::stage_));
    }

private:
    State::Collection<Stage, Distribution> stage_;
};

}  // namespace History

// Made once, in the source file beside this header.
extern template class State::Record<History::Distribution>;
extern template class State::Record<History::Times>;
