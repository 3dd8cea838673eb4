#include "Control/ConfigFile.h"

#include "Control/Json.h"
#include "Control/Socket.h"
#include "Control/SystemProblem.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Control {

namespace {

/// Of a directory.
constexpr std::size_t maxFiles = 1000;

/// Empty on success, else why not.
std::string readFile(const std::string& file, ConfigReading reading, std::size_t most, std::string& content) {
    const int patience = reading == ConfigReading::again ? O_NONBLOCK : 0;
    const Runtime::FileDescriptor fd{::open(file.c_str(), O_RDONLY | O_CLOEXEC | patience)};
    struct stat about {};
    if (!fd || ::fstat(fd.get(), &about) != 0) return systemProblem(errno);
    if (reading == ConfigReading::again && S_ISREG(about.st_mode) == 0 && S_ISDIR(about.st_mode) == 0)
        return "is no regular file, so it cannot be read again";
    char piece[65536];
    for (;;) {
        const ssize_t count = ::read(fd.get(), piece, sizeof piece);
        if (count < 0) return systemProblem(errno);
        if (count == 0) return {};
        content.append(piece, static_cast<std::size_t>(count));
        if (content.size() > most)
            return reading == ConfigReading::once
                       ? "too large for a configuration"
                       : "too much to be read while the protocol waits: restart msrpd";
    }
}

}  // namespace

std::string realPath(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code error;
    // Made absolute first: what does not exist would else stay relative.
    fs::path whole = fs::absolute(path, error);
    if (!error) whole = fs::weakly_canonical(whole, error);
    return error ? path : whole.string();
}

std::string listConfig(const std::vector<ConfigSource>& sources, std::vector<std::string>& files) {
    namespace fs = std::filesystem;
    for (const auto& [path, mayLack] : sources) {
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        if (mayLack && status.type() == fs::file_type::not_found) continue;
        if (status.type() != fs::file_type::directory) {
            files.push_back(path);
            continue;
        }
        std::vector<std::string> found;
        fs::directory_iterator entry{path, error};
        for (; !error && entry != fs::directory_iterator{}; entry.increment(error)) {
            const fs::path& file = entry->path();
            if (file.extension() == ".json" && !file.filename().string().starts_with('.'))
                found.push_back(file.string());
            if (found.size() > maxFiles) return path + ": more than " + std::to_string(maxFiles) + " files";
        }
        if (error) return path + ": " + error.message();
        std::ranges::sort(found);
        files.insert(files.end(), found.begin(), found.end());
    }
    return {};
}

std::string readConfig(const std::string& file, ConfigReading reading, ConfigFile& read, std::size_t most) {
    std::string content;
    if (const std::string problem = readFile(file, reading, most, content); !problem.empty())
        return file + ": " + problem;
    auto [config, syntax] = parseJson(content, JsonComments::allowed);
    if (syntax) {
        return file + ':' + std::to_string(syntax->line) + ':' + std::to_string(syntax->column) + ": " +
               syntax->what;
    }
    if (config.object() == nullptr) return file + ": " + text(config) + " is not an object of records";
    read = {file, std::move(config), content.size()};
    return {};
}

std::string applyConfig(const ConfigFile& file, const ConfigTargets& targets) {
    const auto wrong = [&file](const State::Problem& problem) { return file.name + ": " + problem.text(); };
    for (const auto& [path, fields] : *file.content.object()) {
        const auto target = targets.find(path);
        if (target == targets.end()) return wrong({path, "no such record can be configured"});
        if (const auto problem = target->second->check(fields)) return wrong(problem->below(path));
    }
    for (const auto& [path, fields] : *file.content.object()) {
        if (const auto problem = targets.find(path)->second->apply(fields))
            return wrong(problem->below(path));
    }
    return {};
}

}  // namespace Control
