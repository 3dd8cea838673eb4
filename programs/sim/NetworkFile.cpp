#include "programs/sim/NetworkFile.h"

#include "Control/SystemProblem.h"
#include "Plan/Reader.h"
#include "Runtime/Text.h"
#include "programs/CommandLine.h"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

namespace {

constexpr std::uintmax_t mostOctets = std::uintmax_t{64} << 20;

}  // namespace

std::string readFile(const std::filesystem::path& path, std::string& problem) {
    std::ifstream file{path, std::ios::binary};
    std::ostringstream text;
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        problem = error ? "cannot be read: " + error.message() : std::string{"is no file"};
    } else if (std::filesystem::file_size(path, error) > mostOctets || error) {
        problem = "is longer than 64 MiB";
    } else if (!(text << file.rdbuf()) && std::filesystem::file_size(path, error) != 0) {
        problem = "cannot be read";
    }
    return problem.empty() ? text.str() : std::string{};
}

void writeWhole(const std::string& name, const std::string& text) {
    namespace fs = std::filesystem;
    const fs::path place{name};
    std::error_code error;
    // A pipe or a terminal is written to as it is.
    const bool whole = !fs::exists(place, error) || fs::is_regular_file(place, error);
    const fs::path fresh =
        whole ? place.parent_path() / Runtime::concat('.', place.filename().string(), ".new") : place;
    errno = 0;
    std::ofstream file{fresh, std::ios::binary};
    file << text;
    file.close();
    std::string problem;
    if (!file) {
        problem = errno != 0 ? Control::systemProblem(errno) : "cannot be written";
    } else if (whole) {
        fs::rename(fresh, place, error);
        if (error) problem = error.message();
    }
    if (problem.empty()) return;
    if (whole) fs::remove(fresh, error);
    throw Failure{name + ": " + problem};
}

Plan::Network networkIn(const std::string& name) {
    std::string problem;
    const std::string text = readFile(name, problem);
    demand(problem.empty() ? problem : name + ": " + problem);
    const auto beside = [&](const std::string& other, std::string& why) {
        return readFile(std::filesystem::path{name}.parent_path() / other, why);
    };
    Plan::Problems problems;
    Plan::Network network = Plan::readNetwork(text, name, beside, problems);
    std::string all;
    for (const std::string& one : problems) all += (all.empty() ? "" : "\n") + one;
    demand(all);
    return network;
}

Runtime::Duration spanOf(const char* option, const std::string& text) {
    const auto span = Plan::parseDuration(text);
    if (!span)
        throw Failure{std::string{option} + " \"" + text + "\": expected a time like 500ms or 20s", usage};
    return *span;
}
