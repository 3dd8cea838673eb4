#include "Plan/Course.h"

#include "Plan/Report.h"
#include "Runtime/Text.h"
#include "Show/Table.h"

#include <algorithm>
#include <deque>
#include <map>
#include <utility>

namespace Plan {

using Runtime::concat;
using Runtime::Duration;
using State::Value;

namespace {

/// By stream and station.
using Reserved = std::map<std::pair<std::size_t, std::size_t>, bool>;

Reserved reservedOf(const Outcome& outcome) {
    Reserved all;
    for (std::size_t s = 0; s < outcome.streams.size(); ++s) {
        for (const ListenerOutcome& listener : outcome.streams[s].listeners)
            all[{s, listener.station}] = listener.reserved;
    }
    return all;
}

void carryOut(World& world, const Event& event) {
    using enum Deed;
    switch (event.deed) {
        case cut:
        case mend:
            return world.linkIs(event.link, event.deed == mend);
        case speed:
            return world.speedIs(event.link, event.speed);
        case loss:
            return world.lossIs(event.link, event.loss);
        case off:
        case on:
            return world.powerIs(event.device, event.deed == on);
        case restart:  // is two events by then
            return;
        case talk:
        case hush:
            return world.talkIs(event.stream, event.deed == talk);
        case more:
            for (std::size_t s = event.stream; s < event.stream + event.count; ++s) {
                world.talkIs(s, true);
                for (const std::size_t station : world.network().streams[s].listeners)
                    world.listenIs(s, station, true);
            }
            return;
        case listen:
        case unlisten:
            return world.listenIs(event.stream, event.device, event.deed == listen);
        case flood:
            return world.flood(event.device, event.count);
    }
}

/// A restart as its two halves.
std::deque<Event> halved(const std::vector<Event>& events) {
    std::deque<Event> all;
    for (const Event& event : events) {
        all.push_back(event);
        if (event.deed != Deed::restart) continue;
        all.back().deed = Deed::off;
        Event back = event;
        back.deed = Deed::on;
        back.at += event.dark;
        back.text += ", on again";
        all.push_back(back);
    }
    std::ranges::stable_sort(all, {}, &Event::at);
    return all;
}

class Teller {
public:
    Teller(World& world, Duration quiet, Duration end) : world_{world}, quiet_{quiet}, end_{end} {}

    Course tell(std::deque<Event> events) {
        Course course;
        // Those that are there from the beginning on are told of by the outcome.
        chapter(course, "everything is switched on", events);
        while (!events.empty() && events.front().at <= end_) {
            const Event event = std::move(events.front());
            events.pop_front();
            world_.runTo(std::max(event.at, world_.now()));
            before_ = reservedOf(look(world_, Reasons::leftOut));
            begun_ = true;
            carryOut(world_, event);
            chapter(course, event.text, events);
        }
        course.end = look(world_);
        course.end.quiet = course.chapters.back().quiet;
        return course;
    }

private:
    /// Lives until all is quiet, or until the next event.
    void chapter(Course& course, const std::string& text, const std::deque<Event>& events) {
        constexpr Duration step = std::chrono::milliseconds{10};
        Chapter& chapter = course.chapters.emplace_back();
        chapter.at = world_.now();
        chapter.text = text;
        const Duration until = std::min(end_, events.empty() ? end_ : events.front().at);
        std::map<std::pair<std::size_t, std::size_t>, Duration> gone;  // since when
        std::map<std::pair<std::size_t, std::size_t>, Duration> without;
        Duration looked = chapter.at;
        const auto compare = [&] {
            for (const auto& [key, reserved] : reservedOf(look(world_, Reasons::leftOut))) {
                const auto had = before_.find(key);
                if (had == before_.end() || !had->second) continue;
                if (!reserved) {
                    gone.try_emplace(key, world_.now());
                } else if (const auto at = gone.find(key); at != gone.end()) {
                    without[key] += world_.now() - at->second;
                    gone.erase(at);
                }
            }
            looked = world_.now();
        };
        if (begun_) compare();
        while (world_.now() < until && world_.now() < std::max(world_.lastChange(), chapter.at) + quiet_) {
            world_.runTo(std::min(until, world_.now() + step));
            if (begun_ && world_.lastChange() >= looked) compare();
        }
        chapter.quiet = world_.now() >= std::max(world_.lastChange(), chapter.at) + quiet_;
        chapter.lasted = std::max(world_.lastChange(), chapter.at) - chapter.at;
        if (!begun_) return;
        const Outcome now = look(world_);
        for (std::size_t s = 0; s < now.streams.size(); ++s) {
            for (const ListenerOutcome& listener : now.streams[s].listeners) {
                const std::pair key{s, listener.station};
                const auto had = before_.find(key);
                const Effect effect{
                    .stream = s,
                    .station = listener.station,
                    .before = had != before_.end() && had->second,
                    .after = listener.reserved,
                    .without = without[key],
                    .reason = listener.reserved ? "" : reasonText(world_.network(), listener)};
                const bool fresh = had == before_.end();
                if (fresh || effect.before != effect.after || effect.without != Duration{})
                    chapter.effects.push_back(effect);
            }
        }
        // Who has stopped asking is not in the outcome any more.
        const Reserved after = reservedOf(now);
        for (const auto& [key, reserved] : before_) {
            if (reserved && !after.contains(key))
                chapter.effects.push_back({.stream = key.first,
                                           .station = key.second,
                                           .before = true,
                                           .reason = "nobody asks for it"});
        }
    }

    World& world_;
    const Duration quiet_;
    const Duration end_;
    bool begun_ = false;  ///< the first event has come
    Reserved before_;
};

std::string effectText(const Effect& effect) {
    if (effect.before && effect.after) return "away for " + spanText(effect.without);
    if (effect.after) return "reserved now";
    return (effect.before ? "lost: " : "not reserved: ") + effect.reason;
}

/// A line for each thing that happens, and to which of them.
std::string effectLines(const Network& network, const std::vector<Effect>& effects) {
    constexpr std::size_t mostNames = 4;
    constexpr std::size_t mostLines = 10;
    struct Line {
        std::string what;
        std::string names;
        std::size_t count = 0;
    };
    std::vector<Line> lines;
    std::map<std::string, std::size_t> known;
    for (const Effect& effect : effects) {
        const std::string what = effectText(effect);
        const auto [at, fresh] = known.try_emplace(what, lines.size());
        if (fresh) lines.push_back({.what = what, .names = {}});
        Line& line = lines[at->second];
        if (line.count++ < mostNames)
            line.names += concat(line.count == 1 ? "" : ", ", network.streams[effect.stream].name, " -> ",
                                 network.devices[effect.station].name);
    }
    std::string out;
    for (std::size_t i = 0; i < std::min(lines.size(), mostLines); ++i) {
        const Line& line = lines[i];
        out += concat("    ", line.names,
                      line.count > mostNames ? concat(" and ", line.count - mostNames, " more") : "", ": ",
                      line.what, '\n');
    }
    if (lines.size() > mostLines) out += concat("    and ", lines.size() - mostLines, " more such lines\n");
    return out;
}

}  // namespace

Course live(World& world, const std::vector<Event>& events, Duration quiet, Duration end) {
    return Teller{world, quiet, end}.tell(halved(events));
}

std::string courseText(const Network& network, const Course& course) {
    std::string out;
    for (const Chapter& chapter : course.chapters) {
        out += concat("at ", spanText(chapter.at), ": ", chapter.text, ": ",
                      !chapter.quiet                 ? "not settled before the next event"
                      : chapter.lasted == Duration{} ? "changes nothing"
                                                     : "settled after " + spanText(chapter.lasted),
                      '\n');
        out += effectLines(network, chapter.effects);
    }
    return out;
}

Value courseValue(const Network& network, const Course& course) {
    std::vector<Value> chapters;
    for (const Chapter& chapter : course.chapters) {
        std::vector<Value> effects;
        for (const Effect& effect : chapter.effects)
            effects.emplace_back(State::Object{{"stream", Value{network.streams[effect.stream].name}},
                                               {"listener", Value{network.devices[effect.station].name}},
                                               {"before", Value{effect.before}},
                                               {"after", Value{effect.after}},
                                               {"without", spanValue(effect.without)},
                                               {"reason", textOrNull(effect.reason)}});
        chapters.emplace_back(State::Object{{"at", spanValue(chapter.at)},
                                            {"event", Value{chapter.text}},
                                            {"settled", Value{chapter.quiet}},
                                            {"lasted", spanValue(chapter.lasted)},
                                            {"effects", numbered(std::move(effects))}});
    }
    return numbered(std::move(chapters));
}

}  // namespace Plan
