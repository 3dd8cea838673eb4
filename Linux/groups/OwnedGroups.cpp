#include "Linux/groups/OwnedGroups.h"

#include "Runtime/Text.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <optional>
#include <sstream>

namespace Linux {

namespace {

struct Line {
    char sign = '+';
    GroupMember member;
    std::string portName;
};

std::optional<Line> parse(const std::string& text) {
    std::istringstream words{text};
    std::string sign;
    std::string index;
    std::string vid;
    std::string mac;
    std::string rest;
    Line line;
    if (!(words >> sign >> index >> line.portName >> vid >> mac) || words >> rest) return std::nullopt;
    const auto port = State::parseDecimal(index, 0x7FFFFFFF);
    const auto number = State::parseDecimal(vid, VlanId::max);
    const auto address = EthAddr::parse(mac);
    if ((sign != "+" && sign != "-") || !port || !IntfId::validName(line.portName) || !number || !address)
        return std::nullopt;
    line.sign = sign.front();
    line.member = {{*address, static_cast<std::uint16_t>(*number), {}}, static_cast<unsigned>(*port)};
    return line;
}

}  // namespace

std::string OwnedGroups::read() {
    std::string all;
    std::string problem = file_.read(all);
    std::istringstream lines{all};
    std::string text;
    while (std::getline(lines, text)) {
        // Whoever was interrupted while it wrote a line did not get as far as its end.
        const auto line = lines.eof() ? std::nullopt : parse(text);
        if (!line) continue;
        if (line->sign == '+') {
            ports_.insert_or_assign(line->member, line->portName);
        } else {
            ports_.erase(line->member);
        }
    }
    return problem;
}

bool OwnedGroups::lists(const GroupMember& member, std::string_view portName) const {
    const auto held = ports_.find(member);
    return held != ports_.end() && held->second == portName;
}

void OwnedGroups::add(const GroupMember& member, std::string_view portName) {
    if (lists(member, portName)) return;
    ports_.insert_or_assign(member, portName);
    write('+', member, portName);
}

void OwnedGroups::erase(const GroupMember& member) {
    const auto held = ports_.find(member);
    if (held == ports_.end()) return;
    write('-', member, held->second);
    ports_.erase(held);
}

void OwnedGroups::portNameIs(unsigned port, std::string_view name) {
    for (auto& [member, held] : ports_) {
        if (member.port != port) continue;
        held = name;
        write('+', member, name);
    }
}

std::string OwnedGroups::keepOnly(const std::set<GroupMember>& there) {
    const auto dropped =
        std::erase_if(ports_, [&](const auto& entry) { return !there.contains(entry.first); });
    return dropped != 0 ? rewrite() : std::string{};
}

void OwnedGroups::write(char sign, const GroupMember& member, std::string_view portName) {
    pending_ += Runtime::concat(std::string_view{&sign, 1}, ' ', member.port, ' ', portName, ' ',
                                member.group.vid, ' ', member.group.mac, '\n');
    ++linesInFile_;
}

std::string OwnedGroups::flush() {
    if (pending_.empty()) return {};
    // Also once most of what the file tells is history.
    constexpr std::size_t patience = 1000;
    if (!file_.isOpen() || linesInFile_ > patience + 4 * ports_.size()) return rewrite();
    std::string problem = file_.append(pending_);
    if (problem.empty()) pending_.clear();
    return problem;
}

std::string OwnedGroups::rewrite() {
    pending_.clear();
    linesInFile_ = 0;
    for (const auto& [member, name] : ports_) write('+', member, name);
    std::string problem = file_.replace(pending_);
    if (problem.empty()) pending_.clear();
    return problem;
}

}  // namespace Linux
