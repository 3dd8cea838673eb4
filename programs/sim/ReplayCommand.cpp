#include "programs/sim/ReplayCommand.h"

#include "Control/Json.h"
#include "Plan/replay/ReplayReport.h"
#include "Switch/IntfId.h"
#include "programs/ConfigRecords.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <system_error>

namespace {

using Octets = std::vector<std::uint8_t>;

/// All of the file, of which there may be so many octets.
Octets octetsOf(const std::string& name, std::size_t most) {
    std::error_code error;
    const bool file = std::filesystem::is_regular_file(name, error);
    const std::uintmax_t size = file ? std::filesystem::file_size(name, error) : 0;
    if (error) throw Failure{name + ": cannot be read: " + error.message()};
    if (!file) throw Failure{name + ": is no file"};
    if (size > most)
        throw Failure{name + ": the captures have more than " +
                      std::to_string(Plan::mostCaptureOctets >> 20) +
                      " MiB; keep what is MSRP of them: tcpdump -r FILE -w LESS ether proto 0x22ea"};
    Octets octets(size);
    std::ifstream in{name, std::ios::binary};
    in.read(reinterpret_cast<char*>(octets.data()), static_cast<std::streamsize>(size));
    if (!in) throw Failure{name + ": cannot be read"};
    return octets;
}

Plan::TrafficReader::PortNames namesOf(const std::vector<std::string>& ports) {
    Plan::TrafficReader::PortNames names;
    for (const std::string& port : ports) {
        const auto equals = port.find('=');
        if (equals == std::string::npos || !IntfId::validName(port.substr(0, equals)))
            throw Failure{
                "--port \"" + port + "\": expected a port and an interface of the capture, NAME=INTERFACE",
                usage};
        names[port.substr(equals + 1)] = port.substr(0, equals);
    }
    return names;
}

/// What the files say that is not so anyway.
State::Value configOf(const std::vector<std::string>& files) {
    std::vector<Control::ConfigSource> sources;
    sources.reserve(files.size());
    for (const std::string& file : files) sources.push_back({file});
    std::vector<Control::ConfigFile> read;
    demand(readConfigs(sources, Control::ConfigReading::once, read), usage);
    ConfigRecords given;
    demand(given.take(read), usage);
    return State::patch(differences(ConfigRecords{}, given));
}

/// The annotated capture, which is no file until it is begun.
class CommentedFile {
public:
    explicit CommentedFile(std::string name) : name_{std::move(name)} {
        if (name_.empty()) return;
        file_.open(name_, std::ios::binary | std::ios::trunc);
        check();
    }
    void write(std::span<const std::uint8_t> octets) {
        file_.write(reinterpret_cast<const char*>(octets.data()),
                    static_cast<std::streamsize>(octets.size()));
        check();
    }
    void end() {
        if (name_.empty()) return;
        file_.close();
        check();
    }

private:
    void check() {
        if (!file_) throw Failure{name_ + ": cannot be written: " + std::generic_category().message(errno)};
    }
    std::string name_;
    std::ofstream file_;
};

}  // namespace

ExitCode ReplayCommand::run(bool json) const {
    if (captures.empty()) throw Failure{"replay needs a capture", usage};
    std::set<EthAddr> addresses;
    for (const std::string& text : bridges) {
        const auto address = EthAddr::parse(text);
        if (!address)
            throw Failure{"--bridge \"" + text + "\": expected an address like 02:00:00:00:00:01", usage};
        addresses.insert(*address);
    }
    Plan::TrafficReader reader{namesOf(ports)};
    Plan::ReplayInput input{.config = configOf(configs)};
    if (const auto own = Plan::configuredAddress(input.config)) addresses.insert(*own);

    std::vector<Octets> files;
    std::size_t room = Plan::mostCaptureOctets;
    for (const std::string& name : captures) {
        std::error_code error;
        if (!out.empty() && std::filesystem::equivalent(name, out, error))
            throw Failure{"--out \"" + out + "\": is the capture itself", usage};
        files.push_back(octetsOf(name, room));
        room -= files.back().size();
        reader.read(name, files.back());
    }
    std::string problem;
    const Plan::Traffic traffic = reader.traffic(addresses, problem);
    demand(problem);

    CommentedFile file{out};
    std::optional<Plan::AnnotatedFile> annotated;
    std::function<void(const Plan::Annotated&)> annotate;
    if (!out.empty()) {
        annotated.emplace(traffic.ports, [&](std::span<const std::uint8_t> octets) { file.write(octets); });
        annotate = [&](const Plan::Annotated& frame) { annotated->add(frame); };
    }
    const Plan::ReplayResult result = Plan::replay(traffic, input, annotate);
    file.end();
    if (json) {
        std::cout << Control::jsonText(Plan::replayValue(traffic, result)) << '\n';
    } else {
        std::cout << Plan::replayText(traffic, result);
    }
    return Plan::agrees(traffic, result) ? done : refused;
}
