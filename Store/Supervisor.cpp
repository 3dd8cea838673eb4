#include "Store/Supervisor.h"

#include "Runtime/Text.h"
#include "Store/Scripts.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <utility>

namespace Store {

namespace {

using Runtime::concat;

/// One batch is on its way while the next is made; more would only wait in the store.
constexpr std::size_t mostInFlight = 2;
constexpr std::size_t batchOctets = 65'536;
/// Counters and the like.
constexpr std::chrono::seconds lazyRhythm{1};
/// After a store that could not write, or not be read.
constexpr std::chrono::seconds tryAgain{1};
/// Without a lease, another program that writes under the same name is kept out for so long.
constexpr std::chrono::seconds aloneLease{10};
/// Of the answer of `leaseScript`, before the agents.
constexpr std::size_t leaseParts = 7;

double secondsOf(Runtime::Duration span) { return std::chrono::duration<double>(span).count(); }

std::string millisecondsText(Runtime::Duration span) {
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(span).count());
}

/// The wall-clock time at which our clock was at 0, seconds.
double clockZero(const Runtime::Loop& loop) {
    return secondsOf(loop.wallNow().time_since_epoch()) - secondsOf(loop.now().time_since_epoch());
}

std::uint64_t at(const Reply& reply, std::size_t place) {
    return place < reply.list.size() && reply.list[place].number > 0
               ? static_cast<std::uint64_t>(reply.list[place].number)
               : 0;
}

/// A store that has come back must be found before the lease is over; a long list of entries is one answer.
Options storeOptions(const Supervisor::Options& options, const Term& term) {
    Options store = options.store;
    store.limits.answer = std::size_t{16} << 20;
    store.longestWait = std::min(store.longestWait, term.rhythm());
    return store;
}

}  // namespace

Supervisor::Supervisor(Runtime::FdLoop& loop, State::Database& database, Options options,
                       std::shared_ptr<Redundancy::RedundancyStatus> redundancy,
                       std::shared_ptr<Status> status, Calls calls)
    : loop_{loop},
      options_{std::move(options)},
      names_{options_.name},
      redundancy_{std::move(redundancy)},
      status_{std::move(status)},
      calls_{std::move(calls)},
      term_{options_.lease == Runtime::Duration{} ? Runtime::Duration{aloneLease} : options_.lease},
      mirror_{database,
              [this] {
                  std::vector<std::string> all{options_.outputs.begin(), options_.outputs.end()};
                  all.insert(all.end(), options_.others.begin(), options_.others.end());
                  std::erase_if(all, [&](const std::string& path) { return options_.inputs.contains(path); });
                  return all;
              }(),
              options_.lazy, [this] { flush(); }},
      follower_{database,
                names_,
                Follower::Writer::agent,
                options_.outputs,
                clockZero(loop),
                [this](const auto& words, auto answer) { ask(words, std::move(answer)); },
                [this](const std::string& line) { say(Tone::warning, line); }},
      inputs_{database,
              names_,
              Follower::Writer::others,
              options_.inputs,
              clockZero(loop),
              [this](const auto& words, auto answer) { ask(words, std::move(answer)); },
              [this](const std::string& line) { say(Tone::warning, line); }},
      store_{loop,
             storeOptions(options_, term_),
             options_.seed,
             {.opened = [this](Connection&) { opened(); },
              .lost = [this](const std::string& reason) { lost(reason); },
              .said = [this](bool good,
                             const std::string& line) { say(good ? Tone::notice : Tone::warning, line); },
              .pushed = [](const std::string&, const std::string&) {},
              .absent = [this](Runtime::Time asked) { absent(asked); }}},
      news_{
          loop,
          storeOptions(options_, term_),
          options_.seed + 1,
          {.opened = [this](Connection& server) { newsOpened(server); },
           .lost = [this](const std::string&) { follower_.lost(); },
           .said = [](bool, const std::string&) {},
           .pushed = [this](const std::string& channel, const std::string& text) { heard(channel, text); }}},
      tick_{loop, [this] { tick(); }},
      expiry_{loop, [this] { check(); }},
      lazy_{loop,
            [this] {
                lazy_.armIn(lazyRhythm);
                if (role_ == Role::active) mirror_.tellLazy();
                publish();
            }},
      again_{loop, [this] {
                 writing_ = Writing::no;
                 writeAll();
             }} {
    status_->nameIs(options_.who);
    if (alone()) {
        role_ = Role::active;
        status_->roleIs(role_);
        return;
    }
    redundancy_->eventIs("CriticalServices", true);
    redundancy_->modeIs(Redundancy::Mode::standby);
}

Supervisor::~Supervisor() = default;

std::string Supervisor::start() {
    if (std::string problem = store_.start(); !problem.empty()) return problem;
    lazy_.armIn(lazyRhythm);
    return news_.start();
}

void Supervisor::ask(const std::vector<std::string>& words, Connection::Answer answer) {
    if (Connection* server = store_.server()) server->ask(words, std::move(answer));
}

// Once for each trouble, until it is over.  Those of the link are told by who keeps it.
void Supervisor::troubleIs(Trouble trouble, const std::string& line) {
    std::string& known = trouble_[static_cast<std::size_t>(trouble)];
    if (known == line) return;
    known = line;
    const auto first = std::ranges::find_if(trouble_, [](const std::string& text) { return !text.empty(); });
    status_->problemIs(first == trouble_.end() ? std::string{} : *first);
    if (!line.empty() && trouble != Trouble::link) say(Tone::warning, line);
}

// The link to the store

void Supervisor::opened() {
    status_->serverIs(store_.place());
    troubleIs(Trouble::link, {});
    readNext_ = loop_.now();
    readAgain();
    tick();
}

void Supervisor::lost(const std::string& reason) {
    term_.silent();
    tick_.cancel();
    again_.cancel();
    follower_.lost();
    inputs_.lost();
    inFlight_ = 0;
    writing_ = Writing::no;
    status_->completeIs(false);
    troubleIs(Trouble::link, reason);
}

// A server that is not there gives the role to nobody either.
void Supervisor::absent(Runtime::Time asked) {
    if (role_ == Role::active && !alone()) held(asked);
}

// The role

void Supervisor::tick() {
    tick_.armIn(term_.rhythm());
    askLease();
    readAgain();
}

void Supervisor::askLease() {
    const Runtime::Time asked = loop_.now();
    const bool ready =
        role_ == Role::active || taking_ || (follower_.sequence().has_value() && asked >= unfitUntil_);
    const auto freeAt = term_.freeAt();
    const bool mayTake = ready && freeAt && asked >= *freeAt;
    const bool keeps = (role_ == Role::active || taking_) && !leaving_;
    const char* const wish = keeps ? "keep" : mayTake ? "take" : "look";
    ask({"EVAL", std::string{leaseScript}, "2", names_.meta, names_.agents, options_.id,
         millisecondsText(term_.lease()), wish, std::to_string(fence_), term_.seen(),
         std::to_string(schemaVersion), names_.roles, ready ? "ready" : "away", options_.who},
        [this, asked](const Reply& reply) { answered(asked, reply); });
}

void Supervisor::held(Runtime::Time asked) {
    term_.held(asked);
    if (const auto until = term_.until()) expiry_.armAt(*until);
}

void Supervisor::answered(Runtime::Time asked, const Reply& reply) {
    status_->answerTimeIs(secondsOf(loop_.now() - asked));
    if (reply.list.size() < leaseParts) {
        // Others may have had answers meanwhile.
        term_.silent();
        // A server that only begins to read what it has gives the role to nobody; but Sentinels may have made
        // another the master.
        if (reply.text.starts_with("LOADING") && options_.store.master.empty()) absent(asked);
        // Another is the master by now.
        if (reply.text.starts_with("READONLY")) store_.leave(inOneLine(reply));
        return troubleIs(Trouble::lease, concat("the store refuses the lease: ", inOneLine(reply)));
    }
    term_.saw(reply.list[5].text, loop_.now());
    listAgents(reply);
    const std::uint64_t fence = at(reply, 0);
    if (fence == 0) return notOurs(reply);
    const bool changed = std::exchange(fence_, fence) != fence;
    status_->fenceIs(fence_);
    if (!alone()) {
        held(asked);
        if (!term_.acting(loop_.now()))
            return troubleIs(Trouble::lease, concat("the store takes longer for an answer than a lease of ",
                                                    secondsOf(term_.lease()), " s allows"));
    }
    troubleIs(Trouble::lease, {});
    if (role_ == Role::standby) {
        if (!taking_) take(at(reply, 1));
    } else if (changed || writing_ == Writing::no) {
        writeAll();
    }
}

void Supervisor::notOurs(const Reply& reply) {
    std::string why = "another supervisor is";
    if (at(reply, 3) > schemaVersion) {
        why = concat("what lies in the store has form ", at(reply, 3),
                     ", of a later version; this one knows form ", schemaVersion);
        troubleIs(Trouble::lease, why);
    } else if (const bool changes = !foreign_.empty() && foreign_ != term_.seen(); alone() && changes) {
        // A lease that stays as it is may be our own, of an earlier life.
        troubleIs(Trouble::lease, concat("another program writes under the name \"", options_.name,
                                         "\": ", status_->holder()));
    } else if (!alone()) {
        troubleIs(Trouble::lease, {});
    }
    foreign_ = term_.seen();
    // That the store has forgotten who had it is no reason to stop: it is asked again, for us.
    if (alone()) {
        writing_ = Writing::no;
        status_->completeIs(false);
    } else if ((taking_ || role_ == Role::active) && !leaving_) {
        endRole(Tone::warning, why);
    }
    // A store that has lost what it had does not know it any more.
    fence_ = std::max(fence_, at(reply, 4));
    status_->fenceIs(fence_);
    // Its holder may be dead: it is asked for as soon as it is over.
    if (const auto freeAt = term_.freeAt()) {
        const Runtime::Time over = std::max(
            *freeAt, loop_.now() + std::chrono::milliseconds{at(reply, 6)} + std::chrono::milliseconds{1});
        if (over < tick_.when()) tick_.armAt(over);
    }
}

void Supervisor::take(std::uint64_t sequence) {
    taking_ = true;
    // Nobody else writes any more, so what has been told is all that there is.
    if (follower_.sequence() == sequence) return begin();
    readAll();
}

void Supervisor::begin() {
    taking_ = false;
    if (!term_.acting(loop_.now())) return;
    const std::string problem = calls_.begin();
    if (!problem.empty()) {
        say(Tone::warning, concat("cannot act: ", problem));
        term_.lost();
        unfitUntil_ = loop_.now() + 2 * term_.lease();
        return;
    }
    role_ = Role::active;
    say(Tone::notice, concat("active, by change of role number ", fence_));
    status_->roleIs(role_);
    redundancy_->modeIs(Redundancy::Mode::active);
    writeAll();
}

void Supervisor::endRole(Tone tone, const std::string& why) {
    taking_ = false;
    term_.lost();
    expiry_.cancel();
    if (role_ == Role::standby) return;
    role_ = Role::standby;
    again_.cancel();
    flushed_ = nullptr;
    writing_ = Writing::no;
    if (!std::exchange(leaving_, false)) {
        redundancy_->modeIs(Redundancy::Mode::standby);
        calls_.end();
    }
    mirror_.forget();
    status_->roleIs(role_);
    status_->completeIs(false);
    troubleIs(Trouble::writing, {});
    say(tone, concat("not active any more: ", why));
    readAll();
}

void Supervisor::check() {
    const auto until = term_.until();
    if (!until || term_.acting(loop_.now())) return;
    endRole(Tone::warning, "the lease could not be kept");
}

// What is written

void Supervisor::flush() {
    if (role_ != Role::active || std::exchange(flushing_, true)) return;
    later([this] {
        flushing_ = false;
        sendBatches();
    });
}

void Supervisor::sendBatches() {
    if (writing_ != Writing::yes) return;
    if (mirror_.overflowed()) return writeAll();
    while (inFlight_ < mostInFlight && mirror_.waiting()) {
        Mirror::Batch batch = mirror_.take(batchOctets);
        if (!clockZero_) clockZero_ = clockZero(loop_);
        std::vector<std::string> words{"EVAL",
                                       std::string{writeScript},
                                       "2",
                                       names_.meta,
                                       names_.records,
                                       std::to_string(fence_),
                                       names_.record,
                                       names_.changes,
                                       std::to_string(*clockZero_),
                                       mirror_.allTold() ? "1" : "0"};
        words.insert(words.end(), std::make_move_iterator(batch.words.begin()),
                     std::make_move_iterator(batch.words.end()));
        ++inFlight_;
        ask(words, [this, records = batch.records](const Reply& reply) { written(reply, records); });
    }
    if (inFlight_ == 0 && !mirror_.waiting()) {
        status_->completeIs(true);
        if (const auto done = std::exchange(flushed_, nullptr)) done();
    }
}

void Supervisor::written(const Reply& reply, std::size_t records) {
    --inFlight_;
    if (reply.kind == Reply::Kind::error) return writeRefused(reply);
    status_->batchDone(records);
    if (writing_ == Writing::yes) troubleIs(Trouble::writing, {});
    sendBatches();
}

void Supervisor::writeRefused(const Reply& reply) {
    if (role_ != Role::active) return;
    status_->completeIs(false);
    if (reply.text.starts_with("FENCED")) {
        // Who has it is told with the lease; an empty store is written anew once the lease is ours in it.
        writing_ = Writing::no;
        return askLease();
    }
    writing_ = Writing::refused;
    troubleIs(Trouble::writing, concat("the store takes nothing in: ", inOneLine(reply)));
    again_.armIn(tryAgain);
}

void Supervisor::writeAll() {
    if (role_ != Role::active || !open() || writing_ == Writing::listing) return;
    writing_ = Writing::listing;
    status_->completeIs(false);
    auto known = std::make_shared<std::vector<std::string>>();
    readMembers([this](const auto& words, auto answer) { ask(words, std::move(answer)); }, names_.records,
                [this, known](const std::vector<Reply>& paths) {
                    for (const Reply& path : paths) {
                        const auto isInput = [&](const std::string& root) {
                            return path.text == root || path.text.starts_with(root + '/');
                        };
                        if (std::ranges::none_of(options_.inputs, isInput)) known->push_back(path.text);
                    }
                    return writing_ == Writing::listing;
                },
                [this, known](const Reply* problem) {
                    if (writing_ != Writing::listing) return;
                    if (problem != nullptr) return writeRefused(*problem);
                    writing_ = Writing::yes;
                    mirror_.tellAll(*known);
                    sendBatches();
                });
}

// What is read

void Supervisor::newsOpened(Connection& server) {
    server.ask({"SUBSCRIBE", names_.changes, names_.roles, names_.inputs}, [this](const Reply& reply) {
        if (reply.kind == Reply::Kind::error)
            say(Tone::warning, concat("the store does not tell of changes: ", inOneLine(reply)));
    });
    // What was told meanwhile is not told again.
    if (role_ == Role::standby) readAll();
    if (!options_.inputs.empty() && open()) inputs_.read([] {});
}

void Supervisor::heard(const std::string& channel, const std::string& text) {
    if (channel == names_.changes) {
        if (role_ == Role::standby) follower_.told(text);
    } else if (channel == names_.inputs) {
        std::vector<std::string> paths;
        for (std::string_view rest = text; !rest.empty();) {
            paths.emplace_back(rest.substr(0, rest.find('\n')));
            rest.remove_prefix(std::min(rest.size(), paths.back().size() + 1));
        }
        if (!options_.inputs.empty()) inputs_.changed(paths);
    } else if (text == options_.id) {
        askLease();
    }
}

void Supervisor::readAll() {
    if (!open()) return;
    follower_.read([this] {
        if (role_ != Role::standby) return;
        status_->completeIs(true);
        if (taking_) begin();
    });
}

// What could not be read before.
void Supervisor::readAgain() {
    if (!open() || loop_.now() < readNext_) return;
    readNext_ = loop_.now() + tryAgain;
    if (role_ == Role::standby && !alone() && follower_.idle()) readAll();
    if (!options_.inputs.empty() && inputs_.idle()) inputs_.read([] {});
}

void Supervisor::listAgents(const Reply& reply) {
    std::map<std::string, bool> there;
    heir_.clear();
    std::uint64_t lasts = 0;
    for (std::size_t i = leaseParts; i + 3 < reply.list.size(); i += 4) {
        const std::string& id = reply.list[i].text;
        const bool ready = reply.list[i + 1].text == "ready";
        const std::string& name = reply.list[i + 2].text;
        if (id == reply.list[2].text) status_->holderIs(name);
        if (id == options_.id) continue;
        there[name] = ready || there[name];
        // One that has just died may still be listed: who was heard of last is the heir.
        if (!ready || at(reply, i + 3) < lasts) continue;
        lasts = at(reply, i + 3);
        heir_ = id;
    }
    if (reply.list[2].text.empty()) status_->holderIs({});
    for (const auto& [name, ready] : there) status_->agentIs(name, ready);
    std::vector<std::string> gone;
    for (const auto& [name, ready] : status_->agent()) {
        if (!there.contains(name)) gone.push_back(name);
    }
    for (const std::string& name : gone) status_->agentDel(name);
}

void Supervisor::later(std::function<void()> task) {
    loop_.post([life = std::weak_ptr{life_}, task = std::move(task)] {
        if (!life.expired()) task();
    });
}

void Supervisor::publish() { status_->backlogIs(role_ == Role::active ? mirror_.backlog() : 0); }

// Handing over

std::string Supervisor::handOver() {
    if (role_ != Role::active) return "this supervisor is not active";
    if (leaving_) return "it is handed over already";
    if (!open()) return concat("the store cannot be asked: ", status_->problem());
    if (heir_.empty()) return "no other supervisor is ready";
    if (writing_ != Writing::yes) return "the store does not have everything yet";
    handTo(heir_, [this](const std::string& problem) {
        if (problem.empty()) return endRole(Tone::notice, "handed over");
        say(Tone::warning, concat("not handed over: ", problem));
        // What it was doing goes on.
        leaving_ = false;
        const std::string why = calls_.begin();
        if (!why.empty()) return endRole(Tone::warning, why);
        redundancy_->modeIs(Redundancy::Mode::active);
    });
    return {};
}

void Supervisor::leave(std::function<void(bool toAnother)> done) {
    if (role_ != Role::active || heir_.empty()) return done(false);
    // Who is ready takes the role when it is over, with what the store has.
    if (leaving_ || !open() || writing_ != Writing::yes) return done(true);
    handTo(heir_, [done = std::move(done)](const std::string&) { done(true); });
}

void Supervisor::handTo(const std::string& heir, std::function<void(const std::string& problem)> done) {
    leaving_ = true;
    // From here on nothing changes any more; what has changed is written before the other one reads it.
    redundancy_->modeIs(Redundancy::Mode::standby);
    calls_.end();
    flushed_ = [this, heir, done = std::move(done)] {
        ask({"EVAL", std::string{handOverScript}, "2", names_.meta, names_.agents, options_.id,
             std::to_string(fence_), millisecondsText(term_.lease()), names_.roles, heir},
            [done](const Reply& reply) { done(reply.kind == Reply::Kind::error ? inOneLine(reply) : ""); });
    };
    later([this] { sendBatches(); });
}

}  // namespace Store
