#include "Store/Follower.h"

#include "Control/Json.h"
#include "Runtime/Text.h"
#include "State/Codec.h"
#include "State/Record.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace Store {

namespace {

/// Questions on their way at a time.
constexpr std::size_t mostOpen = 256;
/// News that are kept until it is known what the store has.
constexpr std::size_t mostEarly = 10'000;
/// Lines about what is refused, and still wrong: no more are told.
constexpr std::size_t mostRefused = 100;

std::uint64_t numberOf(std::string_view text) {
    std::uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// An entity, or one of its fields with entries.
struct Found {
    std::shared_ptr<State::Entity> entity{};
    std::string entries{};
    std::string problem{};
};

/// Follows the rest of a path from a root record down; makes what is missing.
Found findOrMake(std::shared_ptr<State::Entity> entity, std::string_view rest) {
    while (!rest.empty()) {
        const auto [field, below] = State::splitPath(rest);
        const auto shape = entity->fieldShape(field);
        if (!shape || shape->kind == State::FieldKind::whole)
            return {.problem =
                        Runtime::concat("no records or entries \"", field, "\" in ", entity->typeName())};
        if (shape->kind == State::FieldKind::entries) {
            if (!below.empty()) return {.problem = Runtime::concat("nothing lies below ", field)};
            return {.entity = std::move(entity), .entries = std::string{field}};
        }
        const auto [key, deeper] = State::splitPath(below);
        auto child = entity->child(field, key);
        if (!child) {
            const State::Value patch{
                State::Object{{std::string{field}, State::Object{{std::string{key}, State::Object{}}}}}};
            if (const auto problem = entity->apply(patch)) return {.problem = problem->text()};
            child = entity->child(field, key);
            if (!child) return {.problem = Runtime::concat("\"", key, "\" is no key of ", field)};
        }
        entity = std::move(child);
        rest = deeper;
    }
    return {.entity = std::move(entity)};
}

}  // namespace

Follower::Follower(State::Database& database, const Names& names, Writer writer,
                   std::set<std::string, std::less<>> paths, double clockZero, Ask ask, Report report)
    : database_{database},
      names_{names},
      writer_{writer},
      paths_{std::move(paths)},
      clockZero_{clockZero},
      ask_{std::move(ask)},
      report_{std::move(report)} {}

Follower::~Follower() = default;

bool Follower::ours(std::string_view path) const {
    return std::ranges::any_of(paths_, [&](const std::string& root) {
        return path.starts_with(root) && (path.size() == root.size() || path[root.size()] == '/');
    });
}

void Follower::lost() {
    ++reading_;
    reads_ = false;
    listed_ = false;
    complete_ = false;
    queue_.clear();
    queued_.clear();
    early_.clear();
    open_ = 0;
    done_ = nullptr;
}

void Follower::read(std::function<void()> done) {
    lost();
    done_ = std::move(done);
    const std::uint64_t reading = reading_;
    reads_ = true;
    ask_({"HMGET", names_.meta, "sequence", "clock", "whole"}, [this, reading](const Reply& reply) {
        if (reading != reading_) return;
        if (reply.list.size() != 3) return giveUp(reply);
        told_ = numberOf(reply.list[0].text);
        whole_ = writer_ == Writer::others || reply.list[2].isText("1");
        if (writer_ == Writer::others) return;
        const auto clock = State::Codec<double>::decode(Control::parseJson(reply.list[1].text).value);
        shift_ = clock ? *clock - clockZero_ : 0.0;
    });
    known_.clear();
    readMembers(
        ask_, names_.records,
        [this, reading](const std::vector<Reply>& paths) {
            if (reading != reading_) return false;
            for (const Reply& path : paths) {
                known_.insert(path.text);
                queue(path.text);
            }
            return true;
        },
        [this, reading](const Reply* problem) {
            if (reading != reading_) return;
            if (problem != nullptr) return giveUp(*problem);
            listed_ = true;
            for (const std::string& message : std::exchange(early_, {})) {
                told(message);
                if (reading != reading_) return;
            }
            readSome();
        });
}

void Follower::told(std::string_view message) {
    if (!listed_) {
        // More than so many show as a gap.
        if (early_.size() < mostEarly) early_.emplace_back(message);
        return;
    }
    const std::size_t line = message.find('\n');
    const std::uint64_t number = numberOf(message.substr(0, line));
    if (number <= told_) return;  // it is in what was read
    // After a gap there is no knowing what was missed.
    if (number != told_ + 1) return read(std::move(done_));
    told_ = number;
    while (const std::size_t end = message.find('\n')) {
        if (end == std::string_view::npos) break;
        message.remove_prefix(end + 1);
        queue(std::string{message.substr(0, message.find('\n'))});
    }
    readSome();
}

void Follower::queue(std::string path) {
    if (ours(path) && queued_.insert(path).second) queue_.push_back(std::move(path));
}

void Follower::changed(const std::vector<std::string>& paths) {
    if (!reads_) return;
    for (const std::string& path : paths) queue(path);
    if (listed_) readSome();
}

void Follower::readSome() {
    while (!queue_.empty() && open_ < mostOpen) {
        const std::string path = std::move(queue_.front());
        queue_.pop_front();
        // What changes from now on is to be read again.
        queued_.erase(path);
        readPath(path);
    }
    if (queue_.empty() && open_ == 0) finish();
}

void Follower::readPath(const std::string& path) {
    ++open_;
    const std::uint64_t reading = reading_;
    auto fields = std::make_shared<Reply>();
    ask_({"HGETALL", names_.record + path}, [fields](const Reply& reply) { *fields = reply; });
    ask_({"SISMEMBER", names_.records, path}, [this, reading, path, fields](const Reply& reply) {
        if (reading != reading_) return;
        if (reply.kind != Reply::Kind::number) return giveUp(reply);
        // A key that another program has made something else of is that record's trouble only.
        if (fields->kind == Reply::Kind::error && !fields->text.starts_with("WRONGTYPE"))
            return giveUp(*fields);
        --open_;
        taken(path, *fields, reply.number != 0);
        readSome();
    });
}

void Follower::taken(const std::string& path, const Reply& fields, bool there) {
    if (!there) {
        known_.erase(path);
        remove(path);
    } else {
        known_.insert(path);
        if (fields.kind == Reply::Kind::error) {
            refuse(path, inOneLine(fields));
        } else {
            restore(path, fields);
        }
    }
    if (refusedNow_.empty()) {
        refused_.erase(path);
    } else {
        refused_[path] = std::exchange(refusedNow_, {});
    }
}

void Follower::giveUp(const Reply& reply) {
    std::string problem = Runtime::concat("the store cannot be read: ", inOneLine(reply));
    if (problem != problem_) report_(problem);
    problem_ = std::move(problem);
    lost();
}

void Follower::restore(const std::string& path, const Reply& fields) {
    auto [root, rest] = database_.resolve(path);
    if (!root) return;
    const Found found = findOrMake(root, rest);
    if (!found.entity) return refuse(path, found.problem);
    std::set<std::string, std::less<>> given;
    for (std::size_t i = 0; i + 1 < fields.list.size(); i += 2) {
        const std::string& name = fields.list[i].text;
        const Control::JsonResult value = Control::parseJson(fields.list[i + 1].text);
        given.insert(name);
        if (value.problem) {
            refuse(path, Runtime::concat(name, ": ", value.problem->what));
            continue;
        }
        const auto problem = found.entries.empty()
                                 ? found.entity->restore(name, value.value, shift_)
                                 : found.entity->restoreEntry(found.entries, name, value.value, shift_);
        if (problem) refuse(path, problem->text());
    }
    if (found.entries.empty()) return;
    // Entries that are not there have gone.
    const auto held = found.entity->fieldValue(found.entries, {});
    if (!held || held->object() == nullptr) return;
    for (const auto& [key, value] : *held->object()) {
        if (!given.contains(key)) (void)found.entity->restoreEntry(found.entries, key, State::Value{}, 0.0);
    }
}

void Follower::remove(const std::string& path) {
    auto [root, rest] = database_.resolve(path);
    if (!root || rest.empty()) return;
    std::shared_ptr<State::Entity> entity = root;
    for (std::string_view left = rest; !left.empty();) {
        const auto [field, below] = State::splitPath(left);
        const auto shape = entity->fieldShape(field);
        if (!shape || shape->kind != State::FieldKind::records) return;
        const auto [key, deeper] = State::splitPath(below);
        if (deeper.empty()) {
            const State::Value patch{
                State::Object{{std::string{field}, State::Object{{std::string{key}, State::Value{}}}}}};
            if (const auto problem = entity->apply(patch)) refuse(path, problem->text());
            return;
        }
        auto child = entity->child(field, key);
        if (!child) return;
        entity = std::move(child);
        left = deeper;
    }
}

void Follower::removeOthers() {
    // From the leaves up would be the same: a record goes with all that is below it.
    std::vector<std::string> gone;
    const auto look = [&](auto&& self, const std::string& path, const State::Entity& entity) -> void {
        State::Place place;
        std::string field;
        for (bool inside = false;;) {
            const State::Piece piece = entity.nextPiece(place);
            if (piece.kind == State::Piece::Kind::end) {
                if (!std::exchange(inside, false)) return;
            } else if (piece.kind == State::Piece::Kind::entries) {
                inside = true;
                field = piece.name;
            } else if (inside && piece.kind != State::Piece::Kind::values) {
                const std::string below = Runtime::concat(path, '/', field, '/', piece.name);
                if (!known_.contains(below)) {
                    gone.push_back(below);
                } else if (const auto child = entity.child(field, piece.name)) {
                    self(self, below, *child);
                }
            }
        }
    };
    if (!whole_) return;
    for (const std::string& path : paths_) {
        if (!known_.contains(path)) continue;
        if (const auto root = database_.entity(path)) look(look, path, *root);
    }
    for (const std::string& path : gone) remove(path);
}

void Follower::finish() {
    if (!listed_) return;
    if (!std::exchange(complete_, true)) removeOthers();
    refusedNow_.clear();
    problem_.clear();
    applied_ = told_;
    if (const auto done = std::exchange(done_, nullptr)) done();
}

std::optional<std::uint64_t> Follower::sequence() const {
    return complete_ ? std::optional{applied_} : std::nullopt;
}

void Follower::refuse(const std::string& path, const std::string& what) {
    std::string line =
        Runtime::concat("store: ", inOneLine(path), ": ", inOneLine(what), "; the record keeps what it had");
    std::size_t lines = refusedNow_.size();
    for (const auto& [known, told] : refused_) lines += told.size();
    const auto before = refused_.find(path);
    const bool said = before != refused_.end() && before->second.contains(line);
    if (!said && lines >= mostRefused) return;
    if (refusedNow_.insert(line).second && !said) report_(line);
}

}  // namespace Store
