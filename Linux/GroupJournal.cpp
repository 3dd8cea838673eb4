#include "Linux/GroupJournal.h"

#include "Runtime/Text.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <sstream>
#include <system_error>
#include <unistd.h>

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

std::string problem(const std::string& path, int error) {
    return Runtime::concat("cannot write ", path, ": ", std::generic_category().message(error));
}

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

GroupJournal::GroupJournal(std::string path) : path_{std::move(path)} { read(); }

void GroupJournal::read() {
    std::ifstream file{path_};
    std::string text;
    while (std::getline(file, text)) {
        // Whoever was interrupted while it wrote a line did not get as far as its end.
        const auto line = file.eof() ? std::nullopt : parse(text);
        if (!line) continue;
        if (line->sign == '+') {
            ports_.insert_or_assign(line->member, line->portName);
        } else {
            ports_.erase(line->member);
        }
    }
}

bool GroupJournal::lists(const GroupMember& member, std::string_view portName) const {
    const auto held = ports_.find(member);
    return held != ports_.end() && held->second == portName;
}

void GroupJournal::add(const GroupMember& member, std::string_view portName) {
    if (lists(member, portName)) return;
    ports_.insert_or_assign(member, portName);
    write('+', member, portName);
}

void GroupJournal::erase(const GroupMember& member) {
    const auto held = ports_.find(member);
    if (held == ports_.end()) return;
    write('-', member, held->second);
    ports_.erase(held);
}

void GroupJournal::portNameIs(unsigned port, std::string_view name) {
    for (auto& [member, held] : ports_) {
        if (member.port != port) continue;
        held = name;
        write('+', member, name);
    }
}

std::string GroupJournal::keepOnly(const std::set<GroupMember>& there) {
    const auto dropped =
        std::erase_if(ports_, [&](const auto& entry) { return !there.contains(entry.first); });
    return dropped != 0 ? rewrite() : std::string{};
}

void GroupJournal::write(char sign, const GroupMember& member, std::string_view portName) {
    pending_ += Runtime::concat(std::string_view{&sign, 1}, ' ', member.port, ' ', portName, ' ',
                                member.group.vid, ' ', member.group.mac, '\n');
    ++linesInFile_;
}

std::string GroupJournal::flush() {
    if (pending_.empty()) return {};
    // Also once most of what the file tells is history.
    constexpr std::size_t patience = 1000;
    if (!fd_ || linesInFile_ > patience + 4 * ports_.size()) return rewrite();
    if (!writeAll(fd_.get(), pending_)) {
        fd_ = FileDescriptor{};  // what stands in it now is unknown
        return problem(path_, errno);
    }
    pending_.clear();
    return {};
}

std::string GroupJournal::rewrite() {
    const std::string fresh = path_ + ".new";
    FileDescriptor fd{open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600)};
    pending_.clear();
    linesInFile_ = 0;
    for (const auto& [member, name] : ports_) write('+', member, name);
    // The old file stays whole until the new one is.
    if (!fd || !writeAll(fd.get(), pending_) || std::rename(fresh.c_str(), path_.c_str()) != 0) {
        return problem(path_, errno);
    }
    pending_.clear();
    fd_ = std::move(fd);
    return {};
}

}  // namespace Linux
