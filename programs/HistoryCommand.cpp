#include "programs/HistoryCommand.h"

#include "Control/Client.h"
#include "Control/Json.h"
#include "Show/History.h"
#include "Show/StreamReport.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <utility>

using State::Value;

namespace {

State::Object requestFor(const HistoryOptions& options) {
    State::Object request{{"op", "history"}};
    if (!options.stream.empty()) {
        const auto id = Show::parseStream(options.stream);
        if (!id)
            throw Failure{"stream \"" + options.stream + "\" is neither 0x... nor like 00:11:22:33:44:55/1",
                          usage};
        request.emplace_back("stream", State::hexText(*id));
    }
    if (!options.port.empty()) request.emplace_back("port", options.port);
    if (const auto number = State::parseDecimal(options.since, UINT64_MAX); number) {
        request.emplace_back("after", Value{*number - std::min<std::uint64_t>(*number, 1)});
    } else if (!options.since.empty()) {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const auto since = Show::parseTime(options.since, std::chrono::duration<double>(now).count());
        if (!since)
            throw Failure{"--since " + options.since +
                              " is neither a number, a time like 2026-11-22T17:05, nor a span like 10m",
                          usage};
        request.emplace_back("since", Value{*since});
    }
    // Without anything said, following begins with what is to come.
    if (options.last != 0 || (options.follow && options.since.empty()))
        request.emplace_back("last", Value{options.last});
    return request;
}

void memberIs(State::Object& members, const char* name, Value value) {
    std::erase_if(members, [&](const auto& member) { return member.first == name; });
    if (!value.isNull()) members.emplace_back(name, std::move(value));
}

/// The journal's answer, out of a reply to the request.
Value answerIn(const Value& reply, const State::Object& request) {
    const Value& answer = Show::at(reply, {"value"});
    const std::uint64_t next = Show::numberOf(Show::at(answer, {"next"}));
    const std::uint64_t after = Show::numberOf(Show::at(Value{request}, {"after"}));
    if (after >= next)
        throw Failure{"--since " + std::to_string(after + 1) + ": the next event will be number " +
                      std::to_string(next)};
    return answer;
}

/// What has come since, until nobody reads any more.
void follow(Control::Client& client, bool json, State::Object request) {
    // The daemon says that there is news, and this fetches it: who reads slowly fetches it later, and is told
    // how many are missing by then.
    demand(client.send(State::Object{{"op", "watch"}, {"path", "history/events/next"}}));
    bool news = false;
    /// The next line that is no such word.
    const auto hear = [&](unsigned seconds) {
        Value reply;
        demand(client.receive(reply, seconds));
        const bool word = reply.member("watch") != nullptr;
        news = news || word;
        return word ? std::nullopt : std::optional{std::move(reply)};
    };
    for (;;) {
        news = false;
        demand(client.send(request));
        std::optional<Value> reply;
        while (!reply) reply = hear(Control::Client::patience);
        const Value answer = answerIn(*reply, request);
        const State::Object& events = Show::membersOf(Show::at(answer, {"event"}));
        for (const auto& [sequence, event] : events) {
            if (json) {
                std::cout << Control::jsonText(Show::eventValue(sequence, event)) << '\n';
            } else {
                std::cout << Show::eventLine(sequence, event);
            }
        }
        std::cout.flush();
        if (!std::cout) return;
        if (!events.empty()) {
            memberIs(request, "after",
                     Value{State::parseDecimal(events.back().first, UINT64_MAX).value_or(0)});
        } else {
            // None up to there: nobody need look at them again.
            memberIs(request, "after", Value{Show::numberOf(Show::at(answer, {"next"})) - 1});
        }
        memberIs(request, "last", {});
        while (!news) (void)hear(0);
    }
}

}  // namespace

void addHistoryWords(Words words, HistoryOptions& options) {
    words.text("--stream", "Of one stream alone, 0x... or 00:11:22:33:44:55/1", options.stream)
        .text("--port", "Of one port alone", options.port)
        .text("--since", "From a number on, a time (2026-11-22T17:05, UTC) or a span ago (10m)",
              options.since);
}

ExitCode tellHistory(const std::string& socket, bool json, const Show::Page& page,
                     const HistoryOptions& options) {
    State::Object request = requestFor(options);
    Control::Client client;
    demand(client.connect(socket));
    if (options.follow) {
        follow(client, json, std::move(request));
        return done;
    }
    Value reply;
    demand(client.ask(request, reply));
    const Value answer = answerIn(reply, request);
    std::cout << (json ? Control::jsonText(answer) + '\n' : Show::historyText(answer, page));
    return done;
}

Control::Answer answerHistory(const std::shared_ptr<const History::Journal>& journal, const Value& request) {
    Control::Answer answer;
    const auto filter = History::parseFilter(request, answer.error);
    if (filter) answer.walk = State::Walk::at(std::make_shared<History::Selection>(journal, *filter), {});
    return answer;
}

std::string stateDirectory() {
    // One of several, divided by colons.
    const char* directories = std::getenv("STATE_DIRECTORY");
    const std::string all = directories != nullptr ? directories : "";
    return all.substr(0, all.find(':'));
}
