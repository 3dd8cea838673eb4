/// Runs a fuzz target over files and the files of directories, for builds without a fuzzer: so that corpus
/// and targets do not rot, and that a finding can be looked at with any compiler and debugger.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

/// Sorted, so that every run is the same.
std::set<fs::path> filesOf(const fs::path& path) {
    if (!fs::is_directory(path)) return {path};
    return {fs::directory_iterator{path}, fs::directory_iterator{}};
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t ran = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& file : filesOf(argv[i])) {
            std::ifstream in{file, std::ios::binary};
            if (!in) {
                std::fprintf(stderr, "%s: cannot be read\n", file.c_str());
                return 2;
            }
            const std::vector<char> read{std::istreambuf_iterator<char>{in}, {}};
            // A copy of just its size: reading past its end is then seen by the sanitizer.
            const std::vector<std::uint8_t> octets{read.begin(), read.end()};
            std::printf("%s\n", file.c_str());
            std::fflush(stdout);
            LLVMFuzzerTestOneInput(octets.data(), octets.size());
            ++ran;
        }
    }
    std::printf("%zu inputs\n", ran);
    return ran == 0 ? 2 : 0;
}
