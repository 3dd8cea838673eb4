#include "Runtime/EntityManager.h"

#include <algorithm>

namespace Runtime {

void EntityManager::mountIs(std::string path, std::string type, std::string_view mode) {
    mounts_.push_back({std::move(path), std::move(type), std::string{mode}});
}

MountStatus EntityManager::doMounts(std::string& failure) {
    for (const Mount& mount : mounts_) {
        const auto mode = State::mountMode(mount.modeLetters);
        auto entity = database_.entity(mount.path);
        if (!entity && mode == State::MountMode::writeCreate)
            entity = database_.entityIs(mount.path, mount.type);
        if (!mode || !entity || entity->typeName() != mount.type) {
            failure = "mount of " + mount.path + " as " + mount.type + " (" + mount.modeLetters +
                      ") failed: " +
                      (!mode     ? "unknown mode"
                       : !entity ? "no such record"
                                 : "the record is a " + std::string{entity->typeName()});
            return MountStatus::failed;
        }
    }
    return MountStatus::success;
}

bool EntityManager::writable(std::string_view path) const {
    return std::ranges::find(local_, path) != local_.end() ||
           std::ranges::any_of(mounts_, [path](const Mount& mount) {
               return mount.path == path && mount.modeLetters.starts_with('w');
           });
}

void EntityManager::localEntityDelAll() {
    for (const std::string& path : created_) database_.entityDel(path);
    created_.clear();
    local_.clear();
}

}  // namespace Runtime
