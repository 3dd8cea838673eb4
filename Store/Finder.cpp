#include "Store/Finder.h"

#include "Runtime/Assert.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <utility>

namespace Store {

using Runtime::concat;
using Runtime::Duration;

namespace {

constexpr Duration firstWait = std::chrono::milliseconds{50};
/// Servers may find ever new words for what is wrong.
constexpr std::size_t mostTold = 32;

std::string readAddresses(const Options& options, std::vector<Address>& addresses) {
    if (options.addresses.empty()) return "no address of a server is given";
    if (options.addresses.size() > 1 && options.master.empty())
        return "several addresses are those of Sentinels, and need the name of their master";
    for (const std::string& text : options.addresses) {
        std::string problem;
        const auto address = Address::parse(text, problem);
        if (!address) return problem;
        addresses.push_back(*address);
    }
    return {};
}

}  // namespace

std::string problemOf(const Options& options) {
    std::vector<Address> addresses;
    return readAddresses(options, addresses);
}

Finder::Finder(Runtime::FdLoop& loop, Options options, std::uint64_t seed, Handlers handlers)
    : loop_{loop},
      options_{std::move(options)},
      random_{seed},
      handlers_{std::make_shared<const Handlers>(std::move(handlers))},
      sentinel_{loop,
                {.opened = [this] { askSentinel(); },
                 .lost = [this](const std::string& reason) { failed(concat("Sentinel ", reason)); },
                 .pushed = [](const std::string&, const std::string&) {}},
                options_.patience,
                options_.limits},
      server_{loop,
              {.opened = [this] { options_.master.empty() ? becomeOpen() : checkRole(); },
               .lost = [this](const std::string& reason) { serverLost(reason); },
               .pushed =
                   [this](const std::string& channel, const std::string& payload) {
                       const auto handlersNow = handlers_;
                       handlersNow->pushed(channel, payload);
                   }},
              options_.patience,
              options_.limits},
      waited_{loop, [this] { later([this] { search(); }); }},
      lasted_{loop, [this] { later([this] { lasted(); }); }} {
    Runtime::require(handlers_->opened && handlers_->lost && handlers_->said && handlers_->pushed,
                     "handlers for everything");
}

std::string Finder::start() {
    std::string problem = readAddresses(options_, addresses_);
    if (problem.empty()) later([this] { search(); });
    return problem;
}

void Finder::leave(const std::string& reason) {
    // Else it is lost already, and that is about to be told.
    if (!open_ || !server_.isOpen()) return;
    server_.close();
    later([this, why = concat(place_, ": ", reason)] { serverLost(why); });
}

void Finder::search() {
    const Address& at = addresses_[asking_];
    if (options_.master.empty()) {
        place_ = at.text();
        server_.open(at, options_.access);
    } else {
        sentinel_.open(at, {options_.sentinelUser, options_.sentinelPasswordFile, options_.access.tls});
    }
}

void Finder::askSentinel() {
    sentinel_.ask({"SENTINEL", "get-master-addr-by-name", options_.master},
                  [this](const Reply& reply) { takePlace(reply); });
}

void Finder::takePlace(const Reply& reply) {
    sentinel_.close();
    const std::string sentinel = concat("Sentinel ", addresses_[asking_].text(), ": ");
    if (reply.kind == Reply::Kind::nothing)
        return failed(concat(sentinel, "knows no master \"", inOneLine(options_.master), '"'));
    if (reply.kind != Reply::Kind::list || reply.list.size() != 2)
        return failed(concat(sentinel, "does not tell where the master is: ", inOneLine(reply)));
    std::string problem;
    const auto address = Address::of(reply.list[0].text, reply.list[1].text, problem);
    if (!address) return failed(concat(sentinel, "names a master at ", problem));
    place_ = address->text();
    server_.open(*address, options_.access);
}

void Finder::checkRole() {
    server_.ask({"ROLE"}, [this](const Reply& reply) {
        if (reply.kind == Reply::Kind::list && !reply.list.empty() && reply.list[0].isText("master"))
            return becomeOpen();
        server_.close();
        failed(concat(place_, ": no master, as Sentinel ", addresses_[asking_].text(), " says, but ",
                      inOneLine(reply.list.empty() ? reply : reply.list[0])));
    });
}

void Finder::becomeOpen() {
    open_ = true;
    asked_ = 0;
    lasted_.armIn(lasting);
    // Nobody has heard of a trouble that would have to last for its end to be told.
    if (told_.empty() && !saidGood_ && !tell(true, concat("connected to the Redis server ", place_))) return;
    const auto handlers = handlers_;
    handlers->opened(server_);
}

void Finder::serverLost(const std::string& reason) {
    const std::weak_ptr life{life_};
    const auto asked = options_.master.empty() ? server_.absentAt() : std::nullopt;
    if (asked && handlers_->absent) {
        const auto handlers = handlers_;
        handlers->absent(*asked);
        if (life.expired()) return;
    }
    if (!std::exchange(open_, false)) return failed(reason);
    lasted_.cancel();
    if (!tell(false, reason)) return;
    waitAndSearch();
    const auto handlers = handlers_;
    handlers->lost(reason);
}

void Finder::failed(const std::string& line) {
    if (!tell(false, line)) return;
    asking_ = (asking_ + 1) % addresses_.size();
    if (++asked_ < addresses_.size()) return later([this] { search(); });
    waitAndSearch();
}

void Finder::waitAndSearch() {
    asked_ = 0;
    // Up to a quarter less, so that not all who have lost a server come back at the same moment.
    const auto spread = static_cast<std::uint64_t>(wait_.count() / 4 + 1);
    waited_.armIn(wait_ - Duration{static_cast<Duration::rep>(random_() % spread)});
    wait_ = std::min(std::max(2 * wait_, firstWait), options_.longestWait);
}

void Finder::lasted() {
    if (!open_) return;
    wait_ = {};
    if (!std::exchange(told_, {}).empty()) tell(true, concat("connected to the Redis server ", place_));
}

bool Finder::tell(bool good, const std::string& line) {
    if (!good && (told_.size() >= mostTold || !told_.insert(line).second)) return true;
    saidGood_ = good;
    const std::weak_ptr life{life_};
    const auto handlers = handlers_;
    handlers->said(good, line);
    return !life.expired();
}

void Finder::later(std::function<void()> task) {
    loop_.post([life = std::weak_ptr{life_}, task = std::move(task)] {
        if (!life.expired()) task();
    });
}

}  // namespace Store
