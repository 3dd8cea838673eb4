#include "Control/ConfigFile.h"

#include "Control/Json.h"
#include "Control/Socket.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace Control {

namespace {

/// A switch with every VLAN on every port stays far below.
constexpr std::size_t maxFileOctets = std::size_t{64} << 20;

/// Empty on success, else why not.
std::string readFile(const std::string& file, std::string& content) {
    const Runtime::FileDescriptor fd{::open(file.c_str(), O_RDONLY | O_CLOEXEC)};
    char piece[65536];
    for (;;) {
        const ssize_t count = fd ? ::read(fd.get(), piece, sizeof piece) : -1;
        if (count < 0) return std::generic_category().message(errno);
        if (count == 0) return {};
        content.append(piece, static_cast<std::size_t>(count));
        if (content.size() > maxFileOctets) return "too large for a configuration";
    }
}

}  // namespace

std::string loadConfig(const std::string& file, const ConfigTargets& targets) {
    std::string content;
    if (const std::string problem = readFile(file, content); !problem.empty()) return file + ": " + problem;

    const auto [config, syntax] = parseJson(content, JsonComments::allowed);
    if (syntax) {
        return file + ':' + std::to_string(syntax->line) + ':' + std::to_string(syntax->column) + ": " +
               syntax->what;
    }
    const State::Object* records = config.object();
    if (records == nullptr) return file + ": " + text(config) + " is not an object of records";

    const auto wrong = [&file](const State::Problem& problem) { return file + ": " + problem.text(); };
    for (const auto& [path, fields] : *records) {
        const auto target = targets.find(path);
        if (target == targets.end()) return wrong({path, "no such record can be configured"});
        if (const auto problem = target->second->check(fields)) return wrong(problem->below(path));
    }
    for (const auto& [path, fields] : *records) {
        if (const auto problem = targets.find(path)->second->apply(fields))
            return wrong(problem->below(path));
    }
    return {};
}

}  // namespace Control
