#include "Plan/Script.h"

#include "Plan/Streams.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <stdexcept>

namespace Plan {

using Runtime::concat;

namespace {

constexpr std::uint64_t mostAtOnce = 16'384;
constexpr const char* eventForms =
    "expected \"at TIME\" and one of: cut A--B, mend A--B, speed A--B SPEED, loss A--B SHARE, off DEVICE, on "
    "DEVICE, "
    "restart DEVICE [TIME], talk STREAM, hush STREAM, more STREAM COUNT, listen STREAM STATION, unlisten "
    "STREAM STATION, "
    "flood STATION COUNT";

/// Of one event, word by word; what is wrong is thrown.
class EventReader {
public:
    EventReader(std::vector<std::string> words, Network& network)
        : words_{std::move(words)}, network_{network} {}

    Event read() {
        Event event;
        if (word() != "at") wrong(eventForms);
        event.at = time();
        const std::string deed = word();
        const auto known = State::Codec<Deed>::decode(State::Value{deed});
        if (!known) wrong(concat('"', deed, "\" is not known: ", eventForms));
        event.deed = *known;
        for (std::size_t i = at_ - 1; i < words_.size(); ++i)
            event.text += (event.text.empty() ? "" : " ") + words_[i];
        rest(event);
        if (at_ != words_.size()) wrong(concat('"', words_[at_], "\" is too much"));
        return event;
    }

private:
    [[noreturn]] static void wrong(const std::string& what) { throw std::invalid_argument{what}; }

    const std::string& word() {
        if (at_ == words_.size()) wrong(eventForms);
        return words_[at_++];
    }
    Runtime::Duration time() {
        const std::string& text = word();
        const auto span = parseDuration(text);
        if (!span) wrong(concat('"', text, "\" is not a time like \"500ms\" or \"5s\""));
        return *span;
    }
    std::uint64_t count() {
        const std::string& text = word();
        const auto number = State::parseDecimal(text, mostAtOnce);
        if (!number || *number == 0) wrong(concat('"', text, "\" is not a number from 1 to ", mostAtOnce));
        return *number;
    }
    std::size_t device(bool station) {
        const std::string& name = word();
        const std::size_t found = network_.device(name);
        if (found == network_.devices.size() || (station && network_.devices[found].bridge))
            wrong(concat('"', name, "\" is no ", station ? "station" : "device"));
        return found;
    }
    std::size_t stream() {
        const std::string& name = word();
        const std::size_t found = network_.stream(name);
        if (found == network_.streams.size()) wrong(concat('"', name, "\" is no stream"));
        return found;
    }
    /// "sw2--sw3", or with the port at one end "sw2:p1--sw3" where there are several.
    std::size_t link() {
        const std::string& text = word();
        const auto dash = text.find("--");
        if (dash == std::string::npos) wrong(concat('"', text, "\" is no link like \"sw2--sw3\""));
        const std::string ends[2] = {text.substr(0, dash), text.substr(dash + 2)};
        std::size_t found = network_.links.size();
        for (std::size_t l = 0; l < network_.links.size(); ++l) {
            const auto& at = network_.links[l].ends;
            if (!(is(at[0], ends[0]) && is(at[1], ends[1])) && !(is(at[0], ends[1]) && is(at[1], ends[0])))
                continue;
            if (found != network_.links.size())
                wrong(concat('"', text, "\" may be one of several: name a port, \"sw2:p1--sw3\""));
            found = l;
        }
        if (found == network_.links.size()) wrong(concat('"', text, "\" is no link"));
        return found;
    }
    [[nodiscard]] bool is(const LinkEnd& end, const std::string& text) const {
        const std::string& name = network_.devices[end.device].name;
        return text == name || (!end.port.empty() && text == name + ':' + end.port);
    }

    void rest(Event& event) {
        using enum Deed;
        switch (event.deed) {
            case cut:
            case mend:
                event.link = link();
                return;
            case speed: {
                event.link = link();
                const std::string& text = word();
                const auto found = State::Codec<Interface::Speed>::decode(State::Value{text});
                if (!found || *found == Interface::Speed::speedUnknown)
                    wrong(concat('"', text, "\" is not ", State::Codec<Interface::Speed>::expected()));
                event.speed = *found;
                return;
            }
            case loss: {
                event.link = link();
                const std::string& text = word();
                const auto found = parseShare(text);
                if (!found) wrong(concat('"', text, "\" is not a share like \"0.01\" or \"1%\""));
                event.loss = *found;
                return;
            }
            case off:
            case on:
                event.device = device(false);
                return;
            case restart:
                event.device = device(false);
                event.dark = at_ == words_.size() ? std::chrono::seconds{1} : time();
                return;
            case talk:
            case hush:
                event.stream = stream();
                return;
            case more: {
                const std::size_t like = stream();
                event.count = count();
                event.stream = network_.streams.size();
                addLike(network_, like, event.count);
                return;
            }
            case listen:
            case unlisten:
                event.stream = stream();
                event.device = device(true);
                return;
            case flood:
                event.device = device(true);
                event.count = count();
                return;
        }
    }

    std::vector<std::string> words_;
    std::size_t at_ = 0;
    Network& network_;
};

}  // namespace

std::vector<Event> readScript(const std::string& text, const std::string& place, Network& network,
                              Problems& problems) {
    std::vector<Event> events;
    for (std::size_t at = 0; at < text.size();) {
        const auto end = std::min(text.find_first_of(";\n", at), text.size());
        std::string one = text.substr(at, end - at);
        at = end + 1;
        one.erase(std::min(one.find('#'), one.size()));
        std::vector<std::string> words = wordsOf(one);
        if (words.empty()) continue;
        try {
            events.push_back(EventReader{std::move(words), network}.read());
        } catch (const std::invalid_argument& problem) {
            problems.push_back(
                concat(place, ": \"", one.substr(one.find_first_not_of(" \t")), "\": ", problem.what()));
        }
    }
    std::ranges::stable_sort(events, {}, &Event::at);
    return events;
}

}  // namespace Plan
