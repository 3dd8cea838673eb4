#include "State/Database.h"

namespace State {

std::optional<MountMode> mountMode(std::string_view letters) {
    if (letters == "r") return MountMode::read;
    if (letters == "w") return MountMode::write;
    if (letters == "wc") return MountMode::writeCreate;
    return std::nullopt;
}

std::shared_ptr<Entity> Database::entityIs(std::string_view path, std::string_view type) {
    if (const auto held = entity(path)) return held->typeName() == type ? held : nullptr;
    const auto factory = types_.find(std::string{type});
    if (factory == types_.end()) return nullptr;
    return entities_.emplace(std::string{path}, factory->second()).first->second;
}

void Database::entityDel(std::string_view path) {
    if (const auto at = entities_.find(path); at != entities_.end()) entities_.erase(at);
}

std::shared_ptr<Entity> Database::entity(std::string_view path) const {
    const auto at = entities_.find(path);
    return at == entities_.end() ? nullptr : at->second;
}

std::pair<std::shared_ptr<Entity>, std::string> Database::resolve(std::string_view path) const {
    for (std::string_view root = path; !root.empty();) {
        if (const auto found = entity(root)) {
            const std::size_t below = root.size() == path.size() ? path.size() : root.size() + 1;
            return {found, std::string{path.substr(below)}};
        }
        const std::size_t slash = root.rfind('/');
        root = root.substr(0, slash == std::string_view::npos ? 0 : slash);
    }
    return {nullptr, std::string{}};
}

std::vector<std::string> Database::paths() const {
    std::vector<std::string> all;
    all.reserve(entities_.size());
    for (const auto& [path, entity] : entities_) all.push_back(path);
    return all;
}

}  // namespace State
