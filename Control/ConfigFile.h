/// Configuration files: JSON objects (comments allowed) whose keys are record paths and whose values are
/// those records' fields under their own names.  Of several files the later one wins, field by field and
/// entry by entry; a null takes an entry back that an earlier one gives.
#pragma once

#include "State/Entity.h"
#include "State/Value.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Control {

/// A file, or a directory, which stands for all files in it that end in ".json", in the order of their names.
struct ConfigSource {
    std::string path;
    bool mayLack = false;
};

/// A file that was read.
struct ConfigFile {
    std::string name;
    State::Value content;    ///< an object of records
    std::size_t octets = 0;  ///< of its text
};

/// Whether there is time: for a file that can be read only once, or that lets its reader wait, or for more
/// than `rereadOctets` of files.  What waits meanwhile is the protocol, whose peers give it 600 ms.
enum class ConfigReading { once, again };
inline constexpr std::size_t rereadOctets = std::size_t{4} << 20;

/// As it is found from another directory, without "." and links; of a file that does not exist yet, too.
std::string realPath(const std::string& path);

/// The files that the sources stand for.  Empty on success, else one line that names what cannot be found.
std::string listConfig(const std::vector<ConfigSource>& sources, std::vector<std::string>& files);

/// Reads a file of at most so many octets (the most for any file is 64 MiB).  Empty on success, else one line
/// that names the file, the place in it and the reason.
std::string readConfig(const std::string& file, ConfigReading reading, ConfigFile& read,
                       std::size_t most = std::size_t{64} << 20);

/// The records that a file may write, by the path under which it names them.
using ConfigTargets = std::map<std::string, std::shared_ptr<State::Entity>, std::less<>>;

/// Checks all of the file, and only then writes it to the targets.  Empty on success, else one line that
/// names the file, the place in it and the reason.
std::string applyConfig(const ConfigFile& file, const ConfigTargets& targets);

}  // namespace Control
