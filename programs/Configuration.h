/// What a configuration file may say, and an operator at run time.
#pragma once

#include "Control/RecordAccess.h"
#include "State/Database.h"
#include "Switch/Interface.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

class GivenSpeeds;

class Configuration {
public:
    Configuration();

    /// The records of `database` that are configuration.
    static const std::set<std::string, std::less<>>& paths();

    /// Reads the file into the records.  What is read at start only, and what a bridge of this machine tells,
    /// cannot be written through `access` from then on.  Empty on success, else one line that names the file.
    std::string load(const std::string& file, State::Database& database, Control::RecordAccess& access);

    /// Calls `each` with every speed that the file gives for a link.
    void eachSpeed(const std::function<void(IntfId, Interface::Speed)>& each) const;

private:
    std::shared_ptr<GivenSpeeds> given_;
};
