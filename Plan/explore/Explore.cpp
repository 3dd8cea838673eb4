#include "Plan/explore/Explore.h"

#include "Plan/explore/Copies.h"
#include "Plan/explore/Oracle.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Plan {

using Runtime::concat;

namespace {

/// Where no frame is lost or late nothing has to wait for a LeaveAll round.
constexpr Act soon{.kind = Act::Kind::settle, .span = std::chrono::seconds{5}};
constexpr Act settled{.kind = Act::Kind::settle};
/// Time between the acts of a burst: none, and such that their frames have come, and no Leave time has
/// passed.
constexpr std::array<Runtime::Duration, 2> gaps{Runtime::Duration{}, std::chrono::milliseconds{100}};
/// Of one direction of a link, and one burst.
constexpr std::uint64_t mostFrames = 16;

std::uint64_t hashOf(const std::string& text) {
    std::uint64_t hash = 0xCBF2'9CE4'8422'2325;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100'0000'01B3;
    return hash;
}

Story joined(const Story& before, const Story& after) {
    Story all = before;
    all.insert(all.end(), after.begin(), after.end());
    return all;
}

struct Judged {
    std::string fault{};
    std::uint64_t rest = 0;
    std::vector<std::uint64_t> frames{};  ///< that were said, by link and end
};

/// One burst from where the world is, in a copy of it: "HASH FRAMES... fault".
class Trial {
public:
    explicit Trial(const Wrong& wrong) : wrong_{wrong} {}

    Judged operator()(World& world, const Story& burst) {
        bool died = false;
        const std::string answer = copy_.answer([&] { return run(world, burst); }, died);
        Judged judged;
        if (died) {
            judged.fault = answer;
            return judged;
        }
        std::istringstream in{answer};
        in >> judged.rest;
        judged.frames.resize(world.network().links.size() * 2);
        for (std::uint64_t& frames : judged.frames) in >> frames;
        in.get();
        judged.fault.assign(std::istreambuf_iterator<char>{in}, {});
        return judged;
    }

private:
    std::string run(World& world, const Story& burst) {
        std::vector<std::uint64_t> before;
        eachWire(world, [&](const Wire& wire) { before.push_back(wire.frames()); });
        const std::string fault = judge(world, burst, wrong_);
        std::string out = std::to_string(fault.empty() ? hashOf(stateOf(world)) : 0);
        std::size_t at = 0;
        eachWire(world, [&](const Wire& wire) { out += concat(' ', wire.frames() - before[at++]); });
        return concat(out, ' ', fault);
    }
    template <class Visit>
    static void eachWire(const World& world, Visit&& visit) {
        for (std::size_t l = 0; l < world.network().links.size(); ++l) {
            for (int end = 0; end < 2; ++end) visit(world.wire(l, end));
        }
    }

    const Wrong& wrong_;
    Copy copy_;
};

/// A rest, and what is known of what follows it.
struct Rest {
    Story story{};
    std::map<std::uint64_t, std::uint64_t> next{};  ///< bursts by the rest that they lead to
};

using Known = std::unordered_map<std::uint64_t, Rest>;

/// In one line: what it came to is read by the process that shares the work out.
std::string oneLine(std::string text, char from, char to) {
    std::ranges::replace(text, from, to);
    return text;
}
constexpr char lineBreak = '\x01';

/// Everything that can happen next to one rest after the other.
class Expedition {
public:
    Expedition(const Network& network, const ExploreOptions& options, const Wrong& wrong, const Known& known,
               const Deadline& deadline)
        : network_{network}, options_{options}, known_{known}, deadline_{deadline}, trial_{wrong} {}

    /// Lines: "rest NUMBER", and behind it "to REST COUNT", "new REST BURST" and "fault STORY \t FAULT".
    std::string from(const std::vector<std::uint64_t>& rests, Shared& shared) {
        for (std::size_t at = shared.next++; at < rests.size() && !over(shared); at = shared.next++) {
            const Story& story = known_.at(rests[at]).story;
            World world{network_, {}};
            // It has been judged before, so nothing can be wrong.
            (void)judge(world, story, {});
            out_ += concat("rest ", at, '\n');
            next_.clear();
            before_ = &story;
            one(world, shared, {{.kind = Act::Kind::stay}});
            bursts(world, shared, {}, possibleActs(world), 0);
            for (const auto& [rest, count] : next_) out_ += concat("to ", rest, ' ', count, '\n');
        }
        return std::move(out_);
    }

private:
    [[nodiscard]] bool over(Shared& shared) const {
        if (deadline_.passed()) shared.stop = true;
        return shared.stop;
    }

    Judged one(World& world, Shared& shared, const Story& burst) {
        Judged judged = trial_(world, burst);
        if (!judged.fault.empty()) {
            shared.stop = true;
            out_ += concat("fault ", storyText(network_, joined(*before_, burst)), '\t',
                           oneLine(judged.fault, '\n', lineBreak), '\n');
            return judged;
        }
        ++next_[judged.rest];
        if (!known_.contains(judged.rest) && told_.insert(judged.rest).second)
            out_ += concat("new ", judged.rest, ' ', storyText(network_, burst), '\n');
        return judged;
    }

    void bursts(World& world, Shared& shared, const Story& begun, const std::vector<Act>& possible,
                unsigned acts) {
        if (acts != 0) whole(world, shared, begun, acts);
        if (acts == options_.burst) return;
        for (const Act& act : possible) {
            if (std::ranges::count(begun, act) != 0) continue;
            std::vector<Act> then = possible;
            if (const auto back = inverse(act)) then.push_back(*back);
            for (const Runtime::Duration gap : gaps) {
                if (over(shared) || (acts == 0 && gap != gaps[0])) continue;
                Story more = begun;
                if (gap != Runtime::Duration{}) more.push_back({.kind = Act::Kind::wait, .span = gap});
                more.push_back(act);
                bursts(world, shared, more, then, acts + 1);
            }
        }
    }

    void whole(World& world, Shared& shared, Story burst, unsigned acts) {
        burst.push_back(soon);
        const Judged plain = one(world, shared, burst);
        if (acts > options_.mishaps) return;
        burst.back() = settled;
        for (std::size_t way = 0; way < plain.frames.size(); ++way) {
            const std::uint64_t frames = std::min(plain.frames[way], mostFrames);
            for (unsigned frame = 1; frame <= frames; ++frame) {
                for (const Act::Kind kind : {Act::Kind::lose, Act::Kind::late}) {
                    if (over(shared)) return;
                    const Act mishap{
                        .kind = kind, .what = way / 2, .end = static_cast<int>(way % 2), .number = frame};
                    one(world, shared, joined({mishap}, burst));
                }
            }
        }
    }

    const Network& network_;
    const ExploreOptions& options_;
    const Known& known_;
    const Deadline& deadline_;
    Trial trial_;
    const Story* before_ = nullptr;
    std::map<std::uint64_t, std::uint64_t> next_;
    std::unordered_set<std::uint64_t> told_;
    std::string out_;
};

class Explorer {
public:
    Explorer(const Network& network, const ExploreOptions& options, const Wrong& wrong)
        : network_{network}, options_{options}, wrong_{wrong}, deadline_{options.limit} {}

    Explored explore() {
        // Nothing is wanted, and everything.
        Story hushed;
        for (std::size_t s = 0; s < network_.streams.size(); ++s) {
            hushed.push_back({.kind = Act::Kind::hush, .what = s});
            for (const std::size_t station : network_.streams[s].listeners)
                hushed.push_back({.kind = Act::Kind::leave, .what = s, .station = station});
        }
        hushed.push_back(settled);
        for (const Story& story : {hushed, Story{settled}}) begin(story);
        const std::vector<std::uint64_t> roots = fresh_;
        for (unsigned depth = 0; depth < options_.depth && found_.fault.empty() && !fresh_.empty(); ++depth) {
            if (deadline_.passed()) found_.complete = false;
            if (!found_.complete) break;
            further();
        }
        found_.rests = known_.size();
        for (const std::uint64_t root : roots) found_.orders += orders(root, options_.depth);
        if (!found_.fault.empty()) shorten();
        return std::move(found_);
    }

private:
    void begin(const Story& story) {
        World world{network_, {}};
        found_.fault = judge(world, story, wrong_);
        found_.story = story;
        if (!found_.fault.empty()) return;
        const std::uint64_t rest = hashOf(stateOf(world));
        if (known_.emplace(rest, Rest{story}).second) fresh_.push_back(rest);
    }

    /// All bursts from all rests that were met last.
    void further() {
        bool died = false;
        const auto share = [&](unsigned, Shared& shared) {
            return Expedition{network_, options_, wrong_, known_, deadline_}.from(fresh_, shared);
        };
        std::istringstream lines{together(options_.copies, share, died)};
        if (died) {
            found_.fault = lines.str();
            found_.story.clear();
            return;
        }
        // In the order of the rests, whoever has looked at them.
        std::map<std::size_t, std::vector<std::string>> byRest;
        std::size_t rest = 0;
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("rest ")) rest = std::stoul(line.substr(5));
            byRest[rest].push_back(line);
        }
        if (deadline_.passed()) found_.complete = false;
        std::vector<std::uint64_t> met;
        for (const auto& [at, told] : byRest) {
            for (const std::string& line : told) take(fresh_[at], line, met);
        }
        fresh_ = std::move(met);
    }

    void take(std::uint64_t from, const std::string& line, std::vector<std::uint64_t>& met) {
        std::istringstream words{line};
        std::string kind;
        words >> kind;
        if (kind == "fault") {
            if (!found_.fault.empty()) return;
            const std::size_t tab = line.find('\t');
            std::string problem;
            found_.story = parseStory(network_, line.substr(6, tab - 6), problem).value_or(Story{});
            found_.fault = oneLine(line.substr(tab + 1), lineBreak, '\n');
        }
        std::uint64_t rest = 0;
        words >> rest;
        if (kind == "to") {
            std::uint64_t count = 0;
            words >> count;
            known_.at(from).next[rest] = count;
            found_.tried += count;
            found_.pruned += count;
        }
        if (kind == "new") {
            std::string burst;
            std::string problem;
            std::getline(words, burst);
            const auto story = parseStory(network_, burst, problem);
            if (!story || !known_.emplace(rest, Rest{joined(known_.at(from).story, *story)}).second) return;
            met.push_back(rest);
            --found_.pruned;
        }
    }

    /// That so many bursts and fewer make from there on.
    double orders(std::uint64_t rest, unsigned bursts) {
        const auto at = known_.find(rest);
        if (bursts == 0 || at == known_.end()) return 0;
        const auto [memo, isNew] = orders_.try_emplace({rest, bursts}, 0);
        if (!isNew) return memo->second;
        double sum = 0;
        for (const auto& [next, count] : at->second.next)
            sum += static_cast<double>(count) * (1 + orders(next, bursts - 1));
        return orders_[{rest, bursts}] = sum;
    }

    void shorten() {
        if (found_.story.empty()) return;
        found_.story = shortestFailing(network_, found_.story, wrong_, found_.fault);
    }

    const Network& network_;
    const ExploreOptions& options_;
    const Wrong& wrong_;
    const Deadline deadline_;
    Known known_;
    std::vector<std::uint64_t> fresh_;  ///< not gone on from yet
    std::map<std::pair<std::uint64_t, unsigned>, double> orders_;
    Explored found_;
};

}  // namespace

std::string judge(World& world, const Story& story, const Wrong& wrong) {
    for (const Act& act : story) {
        std::string fault = perform(world, act);
        const bool rest = act.kind == Act::Kind::settle || act.kind == Act::Kind::stay;
        if (fault.empty() && rest && wrong) fault = wrong(world);
        if (!fault.empty()) return fault;
    }
    return {};
}

std::string judge(const Network& network, const Story& story, const Wrong& wrong) {
    World world{network, {}};
    return judge(world, story, wrong);
}

Explored explore(const Network& network, const ExploreOptions& options, const Wrong& wrong) {
    return Explorer{network, options, wrong}.explore();
}

Story shortestFailing(const Network& network, const Story& story, const Wrong& wrong, std::string& fault) {
    Copy copy;
    const auto fails = [&](const Story& less) {
        bool died = false;
        std::string answer = copy.answer([&] { return judge(network, less, wrong); }, died);
        if (answer.empty()) return false;
        fault = std::move(answer);
        return true;
    };
    return shortest(story, fails);
}

std::string exploredText(const Network& network, const Explored& explored) {
    std::array<char, 32> orders{};
    (void)std::snprintf(orders.data(), orders.size(), "%.15g", explored.orders);
    std::string out = concat(explored.tried, " bursts tried, ", explored.rests, " different rests, ",
                             explored.pruned, " led to one that was known, ", orders.data(),
                             " orders decided", explored.complete ? "" : " before the time was over", '\n');
    if (!explored.fault.empty())
        out += concat("wrong after: ", storyText(network, explored.story), '\n', explored.fault);
    return out;
}

}  // namespace Plan
