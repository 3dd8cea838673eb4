#include "Plan/Script.h"

#include "Plan/Streams.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

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

/// A script, event by event.
class ScriptText {
public:
    explicit ScriptText(std::string_view text) : text_{text} {}
    [[nodiscard]] bool over() const { return at_ >= text_.size(); }
    /// Whether the last event was the last one of its line.
    [[nodiscard]] bool newLine() const { return newLine_; }

    /// Those of the next event, up to a semicolon or the end of the line.
    std::vector<std::string> words() {
        std::vector<std::string> all;
        bool inWord = false;
        bool quoted = false;
        for (newLine_ = false; !over();) {
            const char c = text_[at_++];
            if (c == '\n' || (!quoted && (c == ';' || c == '#'))) {
                if (c == '#') at_ = std::min(text_.find('\n', at_), text_.size() - 1) + 1;
                newLine_ = c != ';';
                return all;
            }
            if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == ',')) {
                inWord = false;
                continue;
            }
            if (!std::exchange(inWord, true)) all.emplace_back();
            if (c == '"') {
                quoted = !quoted;
            } else {
                all.back() += c;
            }
        }
        return all;
    }

private:
    std::string_view text_;
    std::size_t at_ = 0;
    bool newLine_ = false;
};

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
                if (!addLike(network_, like, event.count))
                    wrong("there are not so many ids of its talker, or addresses for streams, left");
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

std::vector<Event> readScript(const std::string& text, const Place& place, Network& network,
                              Problems& problems) {
    std::vector<Event> events;
    Place at = place;
    for (ScriptText rest{text}; !rest.over(); at.line += place.line != 0 && rest.newLine() ? 1 : 0) {
        std::vector<std::string> words = rest.words();
        if (words.empty()) continue;
        try {
            events.push_back(EventReader{words, network}.read());
        } catch (const std::invalid_argument& problem) {
            std::string event;
            for (const std::string& word : words) event += (event.empty() ? "" : " ") + word;
            problems.push_back(concat(at.text(), ": \"", event, "\": ", problem.what()));
        }
    }
    std::ranges::stable_sort(events, {}, &Event::at);
    return events;
}

}  // namespace Plan
