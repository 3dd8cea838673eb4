#include "programs/sim/NetworkFile.h"

#include "Plan/Reader.h"
#include "programs/CommandLine.h"

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
