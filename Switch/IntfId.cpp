#include "Switch/IntfId.h"

#include <cctype>
#include <deque>
#include <unordered_map>

namespace {

/// Every name that was ever seen.  No lock: an agent has one thread, and who runs several agents on threads
/// of their own sees to it that all names are known before.
struct Names {
    std::deque<std::string> byNumber{std::string{}};
    std::unordered_map<std::string_view, std::uint32_t> byName;
};
Names& names() {
    static Names all;
    return all;
}

}  // namespace

IntfId::IntfId(std::string_view name) {
    if (name.empty()) return;
    Names& all = names();
    if (const auto at = all.byName.find(name); at != all.byName.end()) {
        number_ = at->second;
        return;
    }
    number_ = static_cast<std::uint32_t>(all.byNumber.size());
    all.byNumber.emplace_back(name);
    all.byName.emplace(all.byNumber.back(), number_);
}

bool IntfId::validName(std::string_view name) {
    if (name.empty() || name.size() > maxNameLength || name == "." || name == "..") return false;
    for (const char c : name) {
        if (c == '/' || std::isspace(static_cast<unsigned char>(c)) != 0 ||
            std::iscntrl(static_cast<unsigned char>(c)) != 0) {
            return false;
        }
    }
    return true;
}

const std::string& IntfId::name() const { return names().byNumber[number_]; }
