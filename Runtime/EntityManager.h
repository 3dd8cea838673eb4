/// An agent's way into the state database: local entities, and mounts that are asked for first and made
/// together.
#pragma once

#include "State/Database.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Runtime {

enum class MountStatus { success, failed };

class EntityManager {
public:
    explicit EntityManager(State::Database& database) : database_{database} {}

    /// Makes an entity that this agent owns (or finds the one that is there); it goes with the agent.
    template <class R>
    std::shared_ptr<R> localEntityIs(std::string_view path) {
        if (!database_.entity(path)) created_.emplace_back(path);
        local_.emplace_back(path);
        return database_.entityIs<R>(path);
    }
    /// Asks for a mount.  `mode`: "r", "w" or "wc".
    void mountIs(std::string path, std::string type, std::string_view mode);
    /// Makes every mount that was asked for; `failure` names the first that could not be made, and why.
    MountStatus doMounts(std::string& failure);

    /// What is mounted or local at `path`, for reading; null when it is of another type.
    template <class R>
    [[nodiscard]] std::shared_ptr<const R> reader(std::string_view path) const {
        return std::dynamic_pointer_cast<const R>(database_.entity(path));
    }
    /// The same for writing; null unless the path was mounted with a writing mode or is local.
    template <class R>
    [[nodiscard]] std::shared_ptr<R> writer(std::string_view path) const {
        return writable(path) ? std::dynamic_pointer_cast<R>(database_.entity(path)) : nullptr;
    }
    /// Drops the local entities that this agent made.
    void localEntityDelAll();

private:
    struct Mount {
        std::string path;
        std::string type;
        std::string modeLetters;
    };
    [[nodiscard]] bool writable(std::string_view path) const;

    State::Database& database_;
    std::vector<Mount> mounts_;
    std::vector<std::string> local_;
    std::vector<std::string> created_;  ///< those of `local_` that nobody else had made
};

}  // namespace Runtime
