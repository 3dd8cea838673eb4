#include "Linux/vlans/OwnedVlans.h"

#include "Runtime/Text.h"
#include "Switch/IntfId.h"

#include <sstream>
#include <sys/stat.h>

namespace Linux {

namespace {

/// Indexes mean something in one network namespace only.
std::uint64_t ownNamespace() {
    struct stat about {};
    return stat("/proc/self/ns/net", &about) == 0 ? about.st_ino : 0;
}

}  // namespace

std::string OwnedVlans::read() {
    std::string all;
    std::string problem = file_.read(all);
    std::istringstream lines{all};
    bool here = false;
    for (std::string text; std::getline(lines, text);) {
        std::istringstream words{text};
        std::string what;
        std::string number;
        std::string name;
        std::string list;
        words >> what >> number >> name >> list;
        if (what == "net") here = number == std::to_string(ownNamespace());
        const auto index = State::parseDecimal(number, 0x7FFFFFFF);
        const auto vlans = parseVlans(list);
        if (here && what == "port" && index && IntfId::validName(name) && vlans)
            portIs(static_cast<unsigned>(*index), name, *vlans);
    }
    written_ = ports_;
    return problem;
}

void OwnedVlans::portIs(unsigned port, const std::string& name, const VlanSet& vlans) {
    if (vlans.none()) {
        ports_.erase(port);
    } else {
        ports_.insert_or_assign(port, Port{name, vlans});
    }
}

std::string OwnedVlans::flush() {
    if (ports_ == written_) return {};
    std::string problem;
    if (ports_.empty()) {
        file_.remove();
    } else {
        std::string text = Runtime::concat("net ", ownNamespace(), '\n');
        for (const auto& [index, port] : ports_)
            text += Runtime::concat("port ", index, ' ', port.name, ' ', vlanText(port.vlans), '\n');
        problem = file_.replace(text);
    }
    if (problem.empty()) written_ = ports_;
    return problem;
}

}  // namespace Linux
