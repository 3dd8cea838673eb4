#include "Linux/groups/BridgeMemory.h"

#include "Runtime/Text.h"
#include "State/Codec.h"

#include <sstream>
#include <sys/stat.h>
#include <vector>

namespace Linux {

namespace {

constexpr std::uint64_t mostIndex = 0x7FFFFFFF;
constexpr std::uint64_t mostOctet = 255;

std::uint64_t networkNamespace() {
    struct stat about {};
    return stat("/proc/self/ns/net", &about) == 0 ? about.st_ino : 0;
}

}  // namespace

std::string BridgeMemory::read() {
    std::string all;
    std::string problem = file_.read(all);
    std::istringstream lines{all};
    bool here = false;
    for (std::string text; std::getline(lines, text);) {
        std::istringstream in{text};
        std::vector<std::string> words;
        for (std::string word; in >> word;) words.push_back(word);
        const auto number =
            words.size() > 1 ? State::parseDecimal(words[1], ~std::uint64_t{0}) : std::nullopt;
        const auto octet = words.size() == 3 ? State::parseDecimal(words[2], mostOctet) : std::nullopt;
        if (number && words.size() == 2 && words[0] == "net") here = *number == networkNamespace();
        if (!here || !number || *number > mostIndex || !octet) continue;
        const auto index = static_cast<unsigned>(*number);
        const auto value = static_cast<std::uint8_t>(*octet);
        if (words[0] == "mark") marks_.emplace(index, value);
        if (words[0] == "router") routers_.insert_or_assign(index, value);
    }
    return problem;
}

void BridgeMemory::routerIs(unsigned port, std::uint8_t was) {
    const auto [held, fresh] = routers_.try_emplace(port, was);
    changed_ = changed_ || fresh || held->second != was;
    held->second = was;
}

std::string BridgeMemory::flush() {
    if (!changed_) return {};
    changed_ = false;
    if (marks_.empty() && routers_.empty()) {
        file_.remove();
        return {};
    }
    std::string text = Runtime::concat("net ", networkNamespace(), '\n');
    for (const auto& [bridge, protocol] : marks_)
        text += Runtime::concat("mark ", bridge, ' ', unsigned{protocol}, '\n');
    for (const auto& [port, was] : routers_)
        text += Runtime::concat("router ", port, ' ', unsigned{was}, '\n');
    return file_.replace(text);
}

}  // namespace Linux
