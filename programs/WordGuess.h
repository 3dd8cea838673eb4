/// What somebody who types a command has in mind: words that are cut short, and words that are still missing.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

struct WordsBefore {
    std::vector<std::string> arguments;          ///< of the same command
    std::map<std::string, std::string> options;  ///< by name, like "--socket"
};
/// What may stand in a place that has no fixed words: of `kind`, the name of the option or argument in the
/// help ("PORT"), behind these words.
using WordValues = std::function<std::vector<std::string>(std::string_view kind, const WordsBefore& before)>;

/// Commands in full, where what stands there is the beginning of one only.  Throws `Failure` where it is that
/// of several.
std::vector<std::string> fullWords(const CLI::App& app, std::vector<std::string> words);

/// What the last of the words, which is not finished, may become.  None for what only the file system knows.
std::vector<std::string> endings(const CLI::App& app, const std::vector<std::string>& words,
                                 const WordValues& values);
