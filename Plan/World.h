/// A planned network that lives: the agent of every bridge and every station's protocol engine as they are
/// shipped, on links, under a clock of its own.
#pragma once

#include "Plan/Network.h"
#include "Plan/Wire.h"
#include "Plan/Workers.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Station/EndStation.h"

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Plan {

class World {
public:
    struct Options {
        std::uint64_t seed = 1;
        bool loops = false;    ///< without a spanning tree: every port forwards
        unsigned threads = 1;  ///< nothing but the speed depends on it
    };
    /// Everything is switched on at once, at time 0; nothing has happened yet.  The network must outlive it.
    World(const Network& network, const Options& options);
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();

    /// Time since everything was switched on.
    [[nodiscard]] Runtime::Duration now() const { return now_; }
    /// The same moment on the devices' own clocks, in seconds.
    [[nodiscard]] double clock() const;
    /// Lets everything happen up to then, that moment included.
    void runTo(Runtime::Duration end);
    /// Runs until nothing has changed for `quiet`, at most up to `end`; tells whether it has become quiet.
    bool runUntilQuiet(Runtime::Duration quiet, Runtime::Duration end);
    /// When a station last heard anything new, or a bridge last changed what it forwards.
    [[nodiscard]] Runtime::Duration lastChange() const;

    // What somebody does to it
    void linkIs(std::size_t link, bool up);
    void speedIs(std::size_t link, Interface::Speed speed);
    void lossIs(std::size_t link, double loss);
    /// Without a word, and with nothing of what it knew when it comes again.
    void powerIs(std::size_t device, bool on);
    void talkIs(std::size_t stream, bool talks);
    void listenIs(std::size_t stream, std::size_t station, bool listens);
    /// The `nth` frame from now on that way is lost or late: `Wire::mishapIs`.
    void mishapIs(std::size_t link, int end, unsigned nth, std::optional<Runtime::Duration> late = {});

    /// The station declares so many streams that nobody knows, as large as can be.
    void flood(std::size_t station, std::uint64_t count);

    // What there is to see
    [[nodiscard]] const Network& network() const { return network_; }
    /// Null while it is switched off, or where it is none.
    [[nodiscard]] Sim::Bridge* bridge(std::size_t device) const;
    /// The protocol's engine of a bridge or station; null while it is switched off.
    [[nodiscard]] const Mrp::MrpSm* engine(std::size_t device) const;
    /// What the device calls its end of the link.
    [[nodiscard]] IntfId port(std::size_t link, int end) const;
    /// Whether the link is up, with what is at both of its ends.
    [[nodiscard]] bool carries(std::size_t link) const;
    /// What a station is to do whenever it is on.
    [[nodiscard]] bool talks(std::size_t stream) const;
    [[nodiscard]] bool listens(std::size_t stream, std::size_t station) const;
    [[nodiscard]] bool isOn(std::size_t device) const { return engine(device) != nullptr; }
    /// Whether that end of the link forwards; a station's always does while the link is up.
    [[nodiscard]] bool forwards(std::size_t link, int end) const;
    /// What a station was told last of a stream; null for nothing.
    [[nodiscard]] const Station::TalkerEvent* heardTalker(std::size_t station, std::uint64_t stream) const;
    [[nodiscard]] const Station::ListenerEvent* heardListener(std::size_t station,
                                                              std::uint64_t stream) const;
    /// Stations that ask for the stream, switched off or not.
    [[nodiscard]] const std::vector<std::size_t>& listeners(std::size_t stream) const {
        return listeners_[stream];
    }
    /// Of the direction that begins at that end.
    [[nodiscard]] const Wire& wire(std::size_t link, int end) const;
    /// How often the bridges' loops have met, and how many of them had something to do by then.
    [[nodiscard]] std::uint64_t meetings() const { return meetings_; }
    [[nodiscard]] std::uint64_t turns() const { return turns_; }

private:
    struct Cell;
    struct BridgeNode;
    struct StationNode;
    struct Line;

    [[nodiscard]] Cell& cellOf(std::size_t device) const;
    void makeBridge(std::size_t device);
    void makeStation(std::size_t device);
    void plug(std::size_t link, int end);
    void treeIs();
    void follow(std::size_t link);
    void endsFollow(std::size_t device);

    const Network& network_;
    const Options options_;
    Workers workers_;
    Runtime::Duration now_{};
    Runtime::Duration lookahead_{};
    std::uint64_t meetings_ = 0;
    std::uint64_t turns_ = 0;
    std::vector<std::unique_ptr<Cell>> cells_;            ///< a bridge each, with its stations
    std::vector<std::size_t> cellOf_;                     ///< by device
    std::vector<std::unique_ptr<BridgeNode>> bridges_;    ///< by device; null for stations
    std::vector<std::unique_ptr<StationNode>> stations_;  ///< by device; null for bridges
    std::vector<std::unique_ptr<Line>> lines_;            ///< by link
    std::vector<std::vector<std::size_t>> listeners_;     ///< by stream
    std::vector<std::vector<std::size_t>> linksOf_;       ///< by device
};

}  // namespace Plan
