/// "process": how the process itself fares.
#pragma once

#include "Runtime/Delays.h"
#include "State/Record.h"

#include <string>
#include <string_view>

namespace Runtime {

class ProcessStatus : public State::Record<ProcessStatus> {
public:
    static constexpr std::string_view type = "Runtime::ProcessStatus";

    void versionIs(const std::string& v) { assign(version_, v, "version"); }
    /// Time of day, seconds since 1970.
    void startTimeIs(WallTime v) { assign(startTime_, sinceEpoch(v), "startTime"); }
    /// When an operator last set the counters of all records to zero; 0: never.
    void countersClearedIs(WallTime v) { assign(countersCleared_, sinceEpoch(v), "countersCleared"); }
    /// The delays are read from there, which must outlive the record's last reader.
    void delaysAre(const LoopDelays& delays) { delays_ = &delays; }

    template <class F>
    static constexpr void fields(F&& each) {
        using P = ProcessStatus;
        each(State::scalar("version", &P::version_));
        each(State::scalar("startTime", &P::startTime_));
        each(State::scalar("countersCleared", &P::countersCleared_));
        each(State::derived<P>("cpuSeconds", [](const P&) { return cpuSeconds(); }));
        each(State::derived<P>("peakMemory", [](const P&) { return peakMemory(); }));
        each(State::derived<P>(
            "late", [](const P& p) { return delays(p, &LoopDelays::late); }, Delays::schema));
        each(State::derived<P>(
            "turns", [](const P& p) { return delays(p, &LoopDelays::turns); }, Delays::schema));
    }

private:
    static double sinceEpoch(WallTime time) {
        return std::chrono::duration<double>(time.time_since_epoch()).count();
    }
    /// Of processor time, so far.
    static double cpuSeconds();
    /// Octets that were in memory at once, at most.
    static std::uint64_t peakMemory();
    static State::Value delays(const ProcessStatus& status, Delays LoopDelays::*which) {
        return status.delays_ != nullptr ? (status.delays_->*which).value() : Delays{}.value();
    }

    std::string version_;
    double startTime_ = 0.0;
    double countersCleared_ = 0.0;
    const LoopDelays* delays_ = nullptr;
};

}  // namespace Runtime

// Made once, in the source file beside this header.
extern template class State::Record<Runtime::ProcessStatus>;
