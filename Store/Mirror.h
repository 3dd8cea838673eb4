/// What has changed in some records, gathered so that it can be told to a store batch by batch.
///
/// However often a record changes between two batches, it is told once, as it is when the batch is made; so
/// what waits is never more than the records that there are, and some paths of those that have gone.
#pragma once

#include "State/Database.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Store {

class Mirror {
public:
    /// What the script that writes takes, word by word (Store/Scripts.h).
    struct Batch {
        std::vector<std::string> words{};
        std::size_t octets = 0;
        std::size_t records = 0;
    };
    /// Fields that change with every frame: "Msrp::IntfStatus/rxCounters".  They do not wake anybody, and are
    /// told from time to time; computed ones, of which no change is ever told, each time.
    using Lazy = std::set<std::string, std::less<>>;

    /// Of the records at `paths` that the database has.  `wake` is called when there is something to tell and
    /// there was not before.  The database outlives this.
    Mirror(const State::Database& database, const std::vector<std::string>& paths, Lazy lazy,
           std::function<void()> wake);
    Mirror(const Mirror&) = delete;
    Mirror& operator=(const Mirror&) = delete;
    ~Mirror();

    [[nodiscard]] bool waiting() const { return !due_.empty() || !gone_.empty(); }
    /// Up to so many octets of what waits, or one record more.
    Batch take(std::size_t octets);
    /// Everything is to be told again; `known` are the paths that the store has, which go if they are not
    /// here.
    void tellAll(const std::vector<std::string>& known);
    /// The fields that change all the time are to be told as well.
    void tellLazy();
    /// Nothing is to be told.
    void forget();
    /// Whether everything has been taken since `tellAll`.
    [[nodiscard]] bool allTold() const { return toTell_ == 0 && gone_.empty(); }

    /// Records that wait to be told.
    [[nodiscard]] std::size_t backlog() const { return due_.size() + gone_.size(); }
    /// Paths of records that have gone are not kept beyond so many; `overflowed` tells it, until `tellAll`.
    static constexpr std::size_t mostGone = 65'536;
    [[nodiscard]] bool overflowed() const { return overflowed_; }
    [[nodiscard]] std::size_t records() const { return nodes_.size(); }

private:
    /// Bits of a record's fields; the same for all of its class.
    struct Shape {
        std::uint64_t follows = 0;
        std::uint64_t lazy = 0;
        [[nodiscard]] std::uint64_t polled() const { return follows & lazy; }
    };
    /// A record, or the entries of a long field.
    struct Node {
        const State::Entity* entity = nullptr;
        std::string_view entries{};  ///< the field; empty: the record itself
        const Shape* shape = nullptr;
        std::uint64_t changed = 0;     ///< bits of the fields to be told
        std::set<std::string> keys{};  ///< of entries to be told
        bool whole = false;            ///< what the store has of it goes first
        bool toTell = false;           ///< since `tellAll`
        const std::string* path = nullptr;
        std::list<Node*>::iterator place{};  ///< among those that are due
        bool isDue = false;
    };
    using Nodes = std::map<std::string, Node, std::less<>>;

    void changed(const State::Change& change);
    const Shape& shapeOf(const State::Entity& entity);
    Node& node(std::string path, const State::Entity& entity);
    void add(std::string path, const State::Entity& entity);
    void addEntries(const std::string& path, const State::Entity& entity, std::string_view field);
    void remove(const std::string& path);
    void drop(Nodes::iterator at);
    void told(Node& node);
    void due(Node& node);
    void wakeOnce();
    static void tell(Node& node, Batch& batch);

    const Lazy lazy_;
    const std::function<void()> wake_;
    Nodes nodes_;
    std::unordered_map<const State::Entity*, Node*> byEntity_;
    std::map<std::string_view, Shape> shapes_;  ///< by the names of classes
    std::list<Node*> due_;                      ///< in the order in which they came to be
    std::set<Node*> lazyDue_;
    std::set<Node*> polled_;
    std::size_t toTell_ = 0;
    std::set<std::string> gone_;
    bool overflowed_ = false;
    std::vector<std::shared_ptr<const State::Entity>> roots_;
    std::vector<State::Reactor> reactors_;
};

}  // namespace Store
