/// What configuration files say, and an operator at run time.
#pragma once

#include "Control/RecordAccess.h"
#include "State/Database.h"
#include "Switch/Interface.h"
#include "programs/ConfigRecords.h"

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class Configuration {
public:
    /// `database` holds the records of all paths and outlives this.
    Configuration(State::Database& database, std::vector<Control::ConfigSource> sources)
        : database_{database}, sources_{std::move(sources)} {}

    /// Reads the files into the records.  What is read at start only, and what a bridge of this machine
    /// tells, cannot be written through `access` from then on.  Empty on success, else one line that names
    /// the file.
    std::string load(Control::RecordAccess& access);

    /// Told of what an operator has written to a record.
    void written(std::string_view record, const State::Value& patch);

    struct Reloaded {
        std::string problem;                     ///< one line; then nothing has changed
        std::vector<State::Difference> changes;  ///< for the operator; records first
    };
    /// Reads the files again, and makes of the records what they would be if the daemon started with them:
    /// what does not differ is not touched, and nobody hears of a change before all are made.  `permit` is
    /// asked before with what is wanted; one line: no.
    Reloaded reload(const std::function<std::string(const ConfigRecords& wanted)>& permit);

    /// For whoever saves what was set: "sources" (in their order, with "path" and "mayLack"), "file" (where
    /// it belongs; null: the daemon reads no directory) and "patch" (what the files do not say).
    [[nodiscard]] Control::Answer unsaved() const;

    /// Calls `each` with every speed that the files give for a link.
    void eachSpeed(const std::function<void(IntfId, Interface::Speed)>& each) const;

private:
    /// What the files say.
    struct Filed {
        std::size_t octets = 0;  ///< of their text
        ConfigRecords records;
    };
    std::string read(Control::ConfigReading reading, Filed& filed) const;
    /// Writes the changes, which lead to what is filed; or says what is wrong and does nothing.
    std::string write(const std::vector<State::Difference>& changes, Filed& filed);

    State::Database& database_;
    const std::vector<Control::ConfigSource> sources_;
    Filed filed_;
    ConfigRecords given_;                            ///< what is filed, and what was set since
    std::set<std::string, std::less<>> setRecords_;  ///< where something was
};
