/// The records that are configuration, as a set of its own beside those of the daemon: what a daemon would
/// start with that is given certain files.
#pragma once

#include "Control/ConfigFile.h"
#include "State/Difference.h"
#include "State/Schema.h"
#include "State/Value.h"

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class ConfigRecords {
public:
    /// Where a file gives speeds; it is no record of that kind in the daemon.
    static constexpr std::string_view speedsPath = "interface/status/eth/phy/all";

    /// As they are where nothing is said.
    ConfigRecords();

    /// The records of the daemon's database that are configuration: all but the speeds.
    static const std::set<std::string, std::less<>>& paths();
    /// What a file may say.
    static std::vector<std::pair<std::string, State::Schema>> schema();

    /// Takes in what the files say, one after the other, and judges the whole.  Empty on success, else one
    /// line that names the file and the place in it; then it is not to be used any more.
    std::string take(const std::vector<Control::ConfigFile>& files);
    /// The same for a patch of the form of a file, which was found good before.
    std::string take(const State::Value& patch);

    [[nodiscard]] const Control::ConfigTargets& all() const { return all_; }
    template <class R>
    [[nodiscard]] std::shared_ptr<R> record(std::string_view path) const {
        return std::dynamic_pointer_cast<R>(all_.find(path)->second);
    }

private:
    Control::ConfigTargets all_;
};

/// What differs, record by record; the first word of each place is the record's path.
std::vector<State::Difference> differences(const ConfigRecords& was, const ConfigRecords& is);
/// The same of some records alone.
std::vector<State::Difference> differences(const ConfigRecords& was, const ConfigRecords& is,
                                           const std::set<std::string, std::less<>>& records);

/// What is wrong with choosing all ports of the bridge in a patch of that record, without a bridge.
std::string everyPortProblem(std::string_view record, const State::Value& patch, std::string_view bridge);

/// The files of which an operator need not speak.
std::vector<Control::ConfigSource> standardConfig();
/// Those, or the ones that an operator names.
std::vector<Control::ConfigSource> configSources(const std::vector<std::string>& named);

/// All files of the sources.  Empty on success, else one line.
std::string readConfigs(const std::vector<Control::ConfigSource>& sources, Control::ConfigReading reading,
                        std::vector<Control::ConfigFile>& files);
