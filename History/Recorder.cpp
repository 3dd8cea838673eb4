#include "History/Recorder.h"

#include "Runtime/Text.h"

#include <cmath>
#include <functional>
#include <map>
#include <utility>

namespace History {

using State::Value;

namespace {

constexpr std::string_view endedWell = "stopped";
/// Events that one change by an operator may make.
constexpr std::size_t fieldsMost = 64;

/// Calls `tell` for each field below two values in which they differ.
void differences(const Value& before, const Value& after, const std::string& field,
                 const std::function<void(const std::string&, const Value&, const Value&)>& tell) {
    if (before == after) return;
    if (before.object() == nullptr || after.object() == nullptr) return tell(field, before, after);
    // Found by name: an object may have very many members.
    std::map<std::string_view, std::pair<const Value*, const Value*>> members;
    for (const auto& [name, value] : *before.object()) members[name].first = &value;
    for (const auto& [name, value] : *after.object()) members[name].second = &value;
    const Value none;
    for (const auto& [name, values] : members) {
        const auto [was, is] = values;
        differences(was != nullptr ? *was : none, is != nullptr ? *is : none,
                    Runtime::concat(field, field.empty() ? "" : "/", name), tell);
    }
}

template <class R>
std::shared_ptr<R> record(State::Database& database, std::string_view path) {
    return database.entityIs<R>(path);
}

}  // namespace

void populate(State::Database& database) {
    database.entityIs<Journal>("history/events");
    database.entityIs<Gone>("history/gone");
    database.entityIs<Times>("history/times");
    database.entityIs<Reservations>("history/stages");
}

Recorder::Recorder(Runtime::Loop& loop, State::Database& database, const Options& options)
    : database_{database},
      journal_{record<Journal>(database, "history/events")},
      refusals_{record<Switch::Refusals>(database, "switch/refusals")},
      outcomes_{options.outcomes},
      problem_{journal_->begin(loop, options.octets, options.directory)},
      streams_{loop,
               {.status = record<Msrp::Status>(database, "msrp/status"),
                .journal = journal_,
                .gone = record<Gone>(database, "history/gone"),
                .times = record<Times>(database, "history/times"),
                .reservations = record<Reservations>(database, "history/stages")},
               options.outcomes != nullptr},
      ports_{{.status = record<Msrp::Status>(database, "msrp/status"),
              .links = record<Interface::AllEthPhyIntfStatusDir>(database, "interface/status/eth/phy/all"),
              .attributes = database.entity("mrp/attributes"),
              .journal = journal_}},
      refusalsChanged_{refusals_->react([this](const State::Change& change) {
          if (const auto* group = change.key<Switch::GroupId>()) groupRefused(*group);
          if (const auto* intf = change.key<IntfId>()) queuesRefused(*intf);
      })} {
    refusals_->group().each([this](const Switch::GroupId& group, const auto&) { groupRefused(group); });
    refusals_->port().each([this](IntfId intf, const auto&) { queuesRefused(intf); });
    if (outcomes_) {
        outcomes_->listenerIs(
            {[this](const Switch::GroupId& group, IntfId intf) { streams_.groupForwarded(group, intf); },
             [this](IntfId intf) { streams_.queuesShaped(intf); }});
    }
}

Recorder::~Recorder() {
    if (outcomes_) outcomes_->listenerIs({});
}

void Recorder::groupRefused(const Switch::GroupId& group) {
    tellRefusal(Runtime::concat("group ", State::KeyText<Switch::GroupId>::text(group)), {},
                refusals_->group(group).get());
}

void Recorder::queuesRefused(IntfId intf) { tellRefusal("queues", intf, refusals_->port(intf).get()); }

void Recorder::tellRefusal(std::string what, IntfId intf, const Switch::Refusal* refusal) {
    Event event;
    event.kind = refusal != nullptr ? Kind::refused : Kind::accepted;
    event.intf = intf;
    event.field = std::move(what);
    if (refusal != nullptr) event.text = refusal->why();
    journal_->add(std::move(event));
}

void Recorder::tellDaemon(std::string text) {
    Event event;
    event.kind = Kind::daemon;
    event.text = std::move(text);
    journal_->add(std::move(event));
}

void Recorder::started(const std::string& version) {
    const auto before = journal_->newest(Kind::daemon);
    const bool crashed = before && !before->text.starts_with(endedWell);
    tellDaemon(Runtime::concat("started, version ", version,
                               crashed ? "; takes over from one that ended without a word" : ""));
}

void Recorder::stopped(const std::string& why) {
    streams_.finish();
    tellDaemon(Runtime::concat(endedWell, why.empty() ? "" : ": ", why));
}

void Recorder::configured(std::string_view path, const Value& before, const Value& after,
                          std::string_view by) {
    const std::string below = database_.resolve(path).second;
    std::size_t count = 0;
    const auto tell = [&](const std::string& field, std::string was, std::string is) {
        Event event;
        event.kind = Kind::config;
        event.text = path.substr(0, path.size() - below.size() - (below.empty() ? 0 : 1));
        event.field = field;
        event.before = std::move(was);
        event.after = std::move(is);
        event.by = by;
        journal_->add(std::move(event));
    };
    differences(before, after, below, [&](const std::string& field, const Value& was, const Value& is) {
        if (++count <= fieldsMost) tell(field, State::text(was), State::text(is));
    });
    if (count > fieldsMost) tell({}, {}, Runtime::concat(count - fieldsMost, " more fields"));
}

std::optional<Filter> parseFilter(const Value& request, std::string& problem) {
    Filter filter;
    const auto text = [&](const char* name) {
        const Value* member = request.member(name);
        return member != nullptr ? std::get_if<std::string>(&member->data) : nullptr;
    };
    const auto number = [&](const char* name) -> std::optional<std::uint64_t> {
        const Value* member = request.member(name);
        if (member == nullptr || member->isNull()) return std::nullopt;
        const auto value = State::Codec<std::uint64_t>::decode(*member);
        if (!value) problem = Runtime::concat("request: ", name, ' ', State::text(*member), " is no number");
        return value;
    };
    filter.after = number("after").value_or(0);
    if (const auto last = number("last")) filter.last = static_cast<std::size_t>(*last);
    if (const Value* since = request.member("since"); since != nullptr && !since->isNull()) {
        const auto seconds = State::Codec<double>::decode(*since);
        constexpr double latest = 9e9;  // beyond which nanoseconds have no room in the clock
        if (!seconds || !std::isfinite(*seconds) || *seconds < 0 || *seconds > latest)
            problem =
                Runtime::concat("request: since ", State::text(*since), " is no time in seconds since 1970");
        else
            filter.since = Runtime::WallTime{Runtime::secondsDuration(*seconds)};
    }
    if (const std::string* stream = text("stream")) {
        filter.stream = State::parseHex(*stream);
        if (!filter.stream) problem = Runtime::concat("request: stream \"", *stream, "\" is not 0x...");
    }
    if (const std::string* port = text("port")) {
        filter.port = *port;
        if (!IntfId::validName(*port))
            problem = Runtime::concat("request: port \"", *port, "\" is no name of an interface");
    }
    if (!problem.empty()) return std::nullopt;
    return filter;
}

}  // namespace History
