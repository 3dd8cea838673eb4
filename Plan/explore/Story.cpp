#include "Plan/explore/Story.h"

#include "Plan/Fields.h"
#include "Plan/explore/Oracle.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Plan {

using Runtime::concat;
using Runtime::Duration;

namespace {

constexpr auto dark = std::chrono::milliseconds{50};
constexpr auto lateness = std::chrono::milliseconds{200};
constexpr std::size_t longestStory = 100'000;

/// What stands behind an act's name.
enum class Object : std::uint8_t {
    stream,
    streamAtStation,
    link,
    bridge,
    frame,
    share,
    span,
    limit,  ///< a time, or nothing
    nothing
};
struct Form {
    const char* name;
    Object object;
};
/// In the order of the kinds.
constexpr std::array<Form, 15> actForms{{{"talk", Object::stream},
                                         {"hush", Object::stream},
                                         {"listen", Object::streamAtStation},
                                         {"leave", Object::streamAtStation},
                                         {"cut", Object::link},
                                         {"mend", Object::link},
                                         {"restart", Object::bridge},
                                         {"takeover", Object::bridge},
                                         {"leaveall", Object::bridge},
                                         {"lose", Object::frame},
                                         {"late", Object::frame},
                                         {"loss", Object::share},
                                         {"wait", Object::span},
                                         {"settle", Object::limit},
                                         {"stay", Object::nothing}}};

/// With its port where another link joins the same two.
std::string endName(const Network& network, std::size_t link, int end) {
    const LinkEnd& at = network.links[link].ends[end];
    const std::size_t far = network.links[link].ends[1 - end].device;
    const auto same = [&](const Link& other) {
        const std::size_t a = other.ends[0].device;
        const std::size_t b = other.ends[1].device;
        return (a == at.device && b == far) || (a == far && b == at.device);
    };
    const std::string& name = network.devices[at.device].name;
    return std::ranges::count_if(network.links, same) > 1 ? concat(name, ':', at.port) : name;
}

std::string actText(const Network& network, const Act& act) {
    const auto& [name, object] = actForms[static_cast<std::size_t>(act.kind)];
    const std::string opening = concat(name, ' ');
    switch (object) {
        case Object::stream:
            return opening + network.streams[act.what].name;
        case Object::streamAtStation:
            return concat(opening, network.streams[act.what].name, " at ", network.devices[act.station].name);
        case Object::link:
            return concat(opening, endName(network, act.what, 0), "--", endName(network, act.what, 1));
        case Object::bridge:
            return opening + network.devices[act.what].name;
        case Object::frame:
            return concat(opening, act.number, ' ', endName(network, act.what, act.end), '>',
                          endName(network, act.what, 1 - act.end));
        case Object::share:
            return concat(opening, act.number, '%');
        case Object::limit:
            if (act.span == Duration{}) return name;
            [[fallthrough]];
        case Object::span:
            return concat(opening, std::chrono::duration_cast<std::chrono::milliseconds>(act.span).count(),
                          "ms");
        case Object::nothing:
            break;
    }
    return name;
}

class ActReader {
public:
    ActReader(const Network& network, std::string text) : network_{network}, text_{std::move(text)} {
        words_ = wordsOf(text_);
    }
    [[nodiscard]] bool empty() const { return words_.empty(); }

    /// Empty, or what is wrong.
    std::string read(Act& act) {
        const auto form = std::ranges::find(actForms, words_[0], &Form::name);
        if (form == actForms.end()) return bad("no act is called \"" + words_[0] + '"');
        act.kind = static_cast<Act::Kind>(form - actForms.begin());
        const bool known = object(form->object, act);
        if (!known) return bad("nothing here is called so");
        return used_ == words_.size() ? std::string{} : bad("there is more than belongs to it");
    }

private:
    [[nodiscard]] std::string bad(const std::string& what) const {
        return concat("story: \"", text_, "\": ", what);
    }
    std::string next() { return used_ < words_.size() ? words_[used_++] : std::string{}; }

    bool object(Object object, Act& act) {
        switch (object) {
            case Object::stream:
                return stream(act);
            case Object::streamAtStation:
                if (!stream(act) || next() != "at") return false;
                act.station = network_.device(next());
                return std::ranges::count(network_.streams[act.what].listeners, act.station) != 0;
            case Object::link:
                return link(next(), "--", act);
            case Object::bridge:
                act.what = network_.device(next());
                return act.what < network_.devices.size() && network_.devices[act.what].bridge;
            case Object::frame:
                return number(next(), 1, 1'000'000, act) && link(next(), ">", act);
            case Object::share: {
                std::string share = next();
                if (!share.ends_with('%')) return false;
                share.pop_back();
                return number(share, 0, 100, act);
            }
            case Object::limit:
                if (used_ == words_.size()) return true;
                [[fallthrough]];
            case Object::span: {
                const auto span = parseDuration(next());
                act.span = span.value_or(Duration{});
                return span.has_value();
            }
            case Object::nothing:
                break;
        }
        return true;
    }
    bool stream(Act& act) {
        act.what = network_.stream(next());
        return act.what < network_.streams.size();
    }
    static bool number(const std::string& text, std::uint64_t least, std::uint64_t most, Act& act) {
        const auto parsed = State::parseDecimal(text, most);
        act.number = static_cast<unsigned>(parsed.value_or(0));
        return parsed && *parsed >= least;
    }
    bool link(const std::string& text, const std::string& between, Act& act) {
        for (std::size_t l = 0; l < network_.links.size(); ++l) {
            for (int end = 0; end < 2; ++end) {
                if (text != endName(network_, l, end) + between + endName(network_, l, 1 - end)) continue;
                act.what = l;
                // Either way round it is the same link.
                act.end = between == ">" ? end : 0;
                return true;
            }
        }
        return false;
    }

    const Network& network_;
    std::string text_;
    std::vector<std::string> words_;
    std::size_t used_ = 1;  ///< the act's name is
};

void takeOver(Sim::Bridge& bridge) {
    bridge.standbyStart();
    bridge.activeStops();
    bridge.standbyTakesOver();
}

void leaveAll(const World& world, Sim::Bridge& bridge, std::size_t device) {
    for (const std::size_t l : world.network().linksOf(device)) {
        const int end = world.network().links[l].ends[0].device == device ? 0 : 1;
        bridge.agent().mrpSm()->periodicSm().transmitAllLeaveAll(world.port(l, end));
    }
}

std::string stay(World& world) {
    std::string faults = settle(world, longestUnrest(world.network()));
    if (!faults.empty()) return faults;
    const std::string before = pictureOf(world);
    const Duration changed = world.lastChange();
    world.runTo(world.now() + std::chrono::seconds{31});
    faults = settle(world, longestUnrest(world.network()));
    const std::string after = pictureOf(world);
    if (faults.empty() && before != after)
        faults = concat("LeaveAll rounds make a difference: before\n", before, "and after\n", after);
    if (faults.empty() && world.lastChange() != changed) {
        // Once is no fault: a port without room that the listener has left declares the failure until then.
        const Duration healed = world.lastChange();
        world.runTo(world.now() + std::chrono::seconds{31});
        faults = settle(world, longestUnrest(world.network()));
        if (faults.empty() && world.lastChange() != healed)
            faults = "something comes and goes in LeaveAll rounds\n";
    }
    return faults;
}

}  // namespace

std::string storyText(const Network& network, const Story& story) {
    std::string out;
    for (const Act& act : story) out += (out.empty() ? "" : "; ") + actText(network, act);
    return out;
}

std::optional<Story> parseStory(const Network& network, const std::string& text, std::string& problem) {
    Story story;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(";\n", at), text.size());
        ActReader reader{network, text.substr(at, end - at)};
        at = end + 1;
        if (reader.empty()) continue;
        problem = reader.read(story.emplace_back());
        if (problem.empty() && story.size() > longestStory)
            problem = concat("story: more than ", longestStory, " acts");
        if (!problem.empty()) return std::nullopt;
    }
    return story;
}

std::string perform(World& world, const Act& act) {
    switch (act.kind) {
        case Act::Kind::talk:
        case Act::Kind::hush:
            world.talkIs(act.what, act.kind == Act::Kind::talk);
            break;
        case Act::Kind::listen:
        case Act::Kind::leave:
            world.listenIs(act.what, act.station, act.kind == Act::Kind::listen);
            break;
        case Act::Kind::cut:
        case Act::Kind::mend:
            world.linkIs(act.what, act.kind == Act::Kind::mend);
            break;
        case Act::Kind::restart:
            world.powerIs(act.what, false);
            world.runTo(world.now() + dark);
            world.powerIs(act.what, true);
            break;
        case Act::Kind::takeover:
            takeOver(*world.bridge(act.what));
            break;
        case Act::Kind::leaveall:
            leaveAll(world, *world.bridge(act.what), act.what);
            break;
        case Act::Kind::lose:
            world.mishapIs(act.what, act.end, act.number);
            break;
        case Act::Kind::late:
            world.mishapIs(act.what, act.end, act.number, lateness);
            break;
        case Act::Kind::loss:
            for (std::size_t l = 0; l < world.network().links.size(); ++l)
                world.lossIs(l, act.number / 100.0);
            break;
        case Act::Kind::wait:
            world.runTo(world.now() + act.span);
            break;
        case Act::Kind::settle:
        case Act::Kind::stay: {
            std::string faults =
                act.kind == Act::Kind::settle
                    ? settle(world, act.span == Duration{} ? longestUnrest(world.network()) : act.span)
                    : stay(world);
            // A frame that was to be lost and was never sent is not to be lost later.
            for (std::size_t l = 0; l < world.network().links.size(); ++l) {
                for (int end = 0; end < 2; ++end) world.mishapIs(l, end, 0);
            }
            return faults;
        }
    }
    return {};
}

std::vector<Act> possibleActs(const World& world) {
    const Network& network = world.network();
    std::vector<Act> acts;
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        acts.push_back({.kind = world.talks(s) ? Act::Kind::hush : Act::Kind::talk, .what = s});
        for (const std::size_t station : network.streams[s].listeners)
            acts.push_back({.kind = world.listens(s, station) ? Act::Kind::leave : Act::Kind::listen,
                            .what = s,
                            .station = station});
    }
    for (std::size_t l = 0; l < network.links.size(); ++l)
        acts.push_back({.kind = world.carries(l) ? Act::Kind::cut : Act::Kind::mend, .what = l});
    for (std::size_t i = 0; i < network.devices.size(); ++i) {
        if (!network.devices[i].bridge) continue;
        for (const Act::Kind kind : {Act::Kind::restart, Act::Kind::takeover, Act::Kind::leaveall})
            acts.push_back({.kind = kind, .what = i});
    }
    return acts;
}

std::optional<Act> inverse(const Act& act) {
    Act other = act;
    switch (act.kind) {
        case Act::Kind::talk:
            other.kind = Act::Kind::hush;
            return other;
        case Act::Kind::hush:
            other.kind = Act::Kind::talk;
            return other;
        case Act::Kind::listen:
            other.kind = Act::Kind::leave;
            return other;
        case Act::Kind::leave:
            other.kind = Act::Kind::listen;
            return other;
        case Act::Kind::cut:
            other.kind = Act::Kind::mend;
            return other;
        case Act::Kind::mend:
            other.kind = Act::Kind::cut;
            return other;
        default:
            return std::nullopt;
    }
}

Story shortest(Story story, const std::function<bool(const Story&)>& fails) {
    for (std::size_t piece = std::max<std::size_t>(story.size() / 2, 1);;
         piece = std::max<std::size_t>(piece / 2, 1)) {
        bool shorter = false;
        // From the end on: what a fault needs lies there, and what comes before it is mostly of no account.
        for (std::size_t last = story.size(); last > 0;) {
            const std::size_t from = last > piece ? last - piece : 0;
            Story less{story.begin(), story.begin() + static_cast<std::ptrdiff_t>(from)};
            less.insert(less.end(), story.begin() + static_cast<std::ptrdiff_t>(last), story.end());
            if (fails(less)) {
                story = std::move(less);
                shorter = true;
            }
            last = from;
        }
        if (piece == 1 && !shorter) return story;
    }
}

}  // namespace Plan
