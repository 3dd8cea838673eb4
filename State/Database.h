/// The shared state database: records by path, and the rule of who may write which.
///
/// A path names a root record ("msrp/config"); what follows it names a field and keys below it
/// ("msrp/config/intfEnable/swp1").  An agent gets at records through mounts only.
#pragma once

#include "State/Entity.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace State {

enum class MountMode {
    read,         ///< "r": pointers to constant records
    write,        ///< "w"
    writeCreate,  ///< "wc": makes the record when the path has none
};
/// The mode that the letters "r", "w" or "wc" stand for.
std::optional<MountMode> mountMode(std::string_view letters);

class Database {
public:
    using Factory = std::function<std::shared_ptr<Entity>()>;

    /// Lets records of class R be made by name.
    template <class R>
    void typeIs() {
        types_[std::string{R::type}] = [] { return std::make_shared<R>(); };
    }
    /// The record at `path`, made when there is none.  Null when the type is unknown or another one stands
    /// there.
    std::shared_ptr<Entity> entityIs(std::string_view path, std::string_view type);
    /// The same for a type known to the compiler; the type need not have been told by `typeIs`.
    template <class R>
    std::shared_ptr<R> entityIs(std::string_view path) {
        typeIs<R>();
        return std::dynamic_pointer_cast<R>(entityIs(path, R::type));
    }
    void entityDel(std::string_view path);

    [[nodiscard]] std::shared_ptr<Entity> entity(std::string_view path) const;
    /// The record at the longest path that `path` starts with, and what is left below it.
    [[nodiscard]] std::pair<std::shared_ptr<Entity>, std::string> resolve(std::string_view path) const;
    /// All root paths in alphabetical order.
    [[nodiscard]] std::vector<std::string> paths() const;

private:
    std::map<std::string, Factory> types_;
    std::map<std::string, std::shared_ptr<Entity>, std::less<>> entities_;
};

}  // namespace State
