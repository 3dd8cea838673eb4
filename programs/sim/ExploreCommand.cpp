#include "programs/sim/ExploreCommand.h"

#include "Plan/explore/Small.h"
#include "Plan/explore/Walk.h"
#include "programs/sim/NetworkFile.h"

#include <iostream>
#include <random>
#include <utility>

namespace {

/// A network that is built in, or one in a file.
Plan::Network networkCalled(const std::string& name) {
    if (auto network = Plan::networkNamed(name)) return std::move(*network);
    Plan::Network network = networkIn(name);
    for (const Plan::Stream& stream : network.streams) {
        if (stream.name.find_first_of(" \t\n,;") != std::string::npos)
            throw Failure{stream.place.text() + ": stream \"" + stream.name +
                          "\": a story cannot name it, for its blanks, commas or semicolons"};
    }
    return network;
}

/// The story that was given, done once more.
ExitCode again(const std::string& name, const std::string& text) {
    const Plan::Network network = networkCalled(name);
    std::string problem;
    const auto story = Plan::parseStory(network, text, problem);
    demand(problem, usage);
    const std::string fault = Plan::judge(network, *story);
    std::cout << (fault.empty() ? "nothing is wrong\n" : fault);
    return fault.empty() ? done : refused;
}

}  // namespace

void ExploreCommand::addTo(Program& program) {
    program
        .command("explore", "Tries every order in which things may happen to small networks",
                 [this] { return explore(); })
        .texts("--network", "line-1, line-2, line-3, ring-3, random-N or a file; all small ones by default",
               networks_)
        .text("--story", "Does that instead, and tells what is wrong after it", story_)
        .number("--depth", "Bursts of acts with a rest behind each", depth_, {0, 100})
        .number("--burst", "Acts in a burst", burst_, {1, 10})
        .number("--mishaps", "Acts in a burst of which frames are lost or late", mishaps_, {0, 10})
        .number("--jobs", "Processes", jobs_, {1, 1024})
        .text("--for", "Ends then; 0s: not before all is tried", limit_);
    program.command("walk", "Lets random things happen to larger networks", [this] { return walk(); })
        .number("--steps", "Acts", steps_, {1, UINT64_MAX / 2})
        .number("--seed", "Of the first network and what happens to it; 0: any", seed_, {0, UINT64_MAX / 2})
        .number("--jobs", "Processes", jobs_, {1, 1024})
        .text("--for", "Ends then; 0s: not before all is done", limit_);
}

ExitCode ExploreCommand::explore() const {
    const std::vector<std::string>& names = networks_.empty() ? Plan::smallNetworks() : networks_;
    if (!story_.empty() && names.size() > 1 && !networks_.empty())
        throw Failure{"--story goes with one --network", usage};
    if (!story_.empty()) return again(names.front(), story_);
    const Plan::ExploreOptions options{.depth = static_cast<unsigned>(depth_),
                                       .burst = static_cast<unsigned>(burst_),
                                       .mishaps = static_cast<unsigned>(mishaps_),
                                       .copies = static_cast<unsigned>(jobs_),
                                       .limit = spanOf("--for", limit_) / static_cast<int>(names.size())};
    for (const std::string& name : names) {
        const Plan::Network network = networkCalled(name);
        const Plan::Explored explored = Plan::explore(network, options);
        std::cout << name << ": " << Plan::exploredText(network, explored) << std::flush;
        if (!explored.fault.empty()) return refused;
    }
    return done;
}

ExitCode ExploreCommand::walk() const {
    const Plan::WalkOptions options{.steps = steps_,
                                    .seed = seed_ != 0 ? seed_ : 1 + std::random_device{}(),
                                    .copies = static_cast<unsigned>(jobs_),
                                    .limit = spanOf("--for", limit_)};
    const Plan::Walked walked = Plan::walk(options);
    std::cout << Plan::walkedText(options, walked);
    return walked.fault.empty() ? done : refused;
}
