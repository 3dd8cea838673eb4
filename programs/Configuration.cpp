#include "programs/Configuration.h"

#include "Linux/records/Config.h"
#include "Runtime/Text.h"
#include "programs/GivenSpeeds.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <utility>

namespace {

constexpr std::string_view ofBridge = "linux/config";
/// A later change of these would not be carried out.
constexpr auto atStart = std::to_array<std::string_view>({ofBridge, "store/config", "redundancy/config"});
constexpr const char* savedName = "90-saved.json";

bool isDirectory(const Control::ConfigSource& source) {
    std::error_code error;
    const auto type = std::filesystem::status(source.path, error).type();
    // The one that may lack is made when there is something to put into it.
    return type == std::filesystem::file_type::directory ||
           (source.mayLack && type == std::filesystem::file_type::not_found);
}

}  // namespace

std::string Configuration::load(Control::RecordAccess& access) {
    Filed wanted;
    std::string problem = read(Control::ConfigReading::once, wanted);
    if (problem.empty()) problem = write(differences(given_, wanted.records), wanted);
    for (const std::string_view path : atStart) access.writableDel(std::string{path});
    if (!given_.record<Linux::Config>(ofBridge)->bridge().empty()) {
        for (const char* path : {"bridging/config", "bridging/topology/config", "stp/status"})
            access.writableDel(path);
    }
    return problem;
}

void Configuration::written(std::string_view record, const State::Value& patch) {
    // It was found good where it was written.
    (void)given_.take(State::Value{State::Object{{std::string{record}, patch}}});
    setRecords_.emplace(record);
}

Configuration::Reloaded Configuration::reload(
    const std::function<std::string(const ConfigRecords& wanted)>& permit) {
    Filed wanted;
    std::string problem = read(Control::ConfigReading::again, wanted);
    if (!problem.empty()) return {std::move(problem), {}};
    std::vector<State::Difference> changes = differences(given_, wanted.records);
    for (const State::Difference& change : changes) {
        if (std::ranges::find(atStart, change.where.front()) != atStart.end())
            return {change.path() + ": differs, and takes effect at the start only: restart msrpd", {}};
    }
    problem = permit(wanted.records);
    if (problem.empty()) problem = write(changes, wanted);
    if (!problem.empty()) changes.clear();
    return {std::move(problem), std::move(changes)};
}

std::string Configuration::read(Control::ConfigReading reading, Filed& filed) const {
    std::vector<Control::ConfigFile> files;
    std::string problem = readConfigs(sources_, reading, files);
    for (const Control::ConfigFile& file : files) filed.octets += file.octets;
    return problem.empty() ? filed.records.take(files) : problem;
}

std::string Configuration::write(const std::vector<State::Difference>& changes, Filed& filed) {
    const State::Value whole = State::patch(changes);
    std::vector<std::pair<std::shared_ptr<State::Entity>, const State::Value*>> records;
    for (const auto& [path, patch] : *whole.object()) {
        if (path == ConfigRecords::speedsPath) continue;  // whoever keeps the links asks for them
        records.emplace_back(database_.entity(path), &patch);
        if (const auto problem = records.back().first->check(patch)) return problem->below(path).text();
    }
    (void)given_.take(whole);
    filed_ = std::move(filed);
    setRecords_.clear();
    State::Tidings later;
    for (const auto& [record, patch] : records) (void)record->apply(*patch, later);
    later.tell();
    return {};
}

Control::Answer Configuration::unsaved() const {
    if (filed_.octets > Control::rereadOctets)
        return {{}, "too much configuration to be compared while the protocol waits"};
    State::Object sources;
    State::Value file;
    for (const Control::ConfigSource& source : sources_) {
        const std::string path = Control::realPath(source.path);
        if (isDirectory(source)) file = State::Value{path + '/' + savedName};
        sources.emplace_back(std::to_string(sources.size() + 1),
                             State::Object{{"path", path}, {"mayLack", source.mayLack}});
    }
    return {State::Object{{"sources", std::move(sources)},
                          {"file", std::move(file)},
                          {"patch", State::patch(differences(filed_.records, given_, setRecords_))}},
            {}};
}

void Configuration::eachSpeed(const std::function<void(IntfId, Interface::Speed)>& each) const {
    given_.record<GivenSpeeds>(ConfigRecords::speedsPath)
        ->intfStatus()
        .each([&](IntfId intf, const GivenSpeed& given) { each(intf, given.speedEnum()); });
}
