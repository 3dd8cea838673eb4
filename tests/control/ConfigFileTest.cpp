#include "Control/Json.h"
#include "Linux/records/Config.h"
#include "Msrp/Database.h"
#include "Msrp/types/Config.h"
#include "Mvrp/MvrpAgent.h"
#include "Runtime/LogConfig.h"
#include "Store/Config.h"
#include "Switch/Bridging.h"
#include "programs/ConfigChanges.h"
#include "programs/Configuration.h"
#include "programs/Save.h"
#include "tests/control/TemporaryDirectory.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

class ConfigFile : public ::testing::Test {
protected:
    std::string loadFile(const std::string& file, Control::ConfigReading reading) const {
        Control::ConfigFile read;
        const std::string problem = Control::readConfig(file, reading, read);
        return problem.empty() ? Control::applyConfig(read, targets) : problem;
    }
    /// What is said about a file of that content, without the file's name.
    std::string load(const std::string& content) {
        const std::string file = directory.write("config", content);
        std::string problem = loadFile(file, Control::ConfigReading::again);
        if (problem.empty()) return problem;
        EXPECT_TRUE(problem.starts_with(file)) << problem;
        return problem.substr(file.size());
    }

    TemporaryDirectory directory;
    std::shared_ptr<Msrp::Config> msrp = std::make_shared<Msrp::Config>();
    std::shared_ptr<Msrp::CliConfig> cli = std::make_shared<Msrp::CliConfig>();
    std::shared_ptr<Bridging::Config> bridging = std::make_shared<Bridging::Config>();
    Control::ConfigTargets targets{
        {"msrp/config", msrp}, {"msrp/cliConfig", cli}, {"bridging/config", bridging}};
};

TEST_F(ConfigFile, SaysInOneLineWhatIsWrongAndWhere) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"[]", ":1:1: arrays are not used here"},
        {"7", ": 7 is not an object of records"},
        {"{\"msrp/config\": {}, // a comment\n \"msrp/config\": {}}", ":2:14: \"msrp/config\" comes twice"},
        {R"({"msrp/confg": {}})", ": msrp/confg: no such record can be configured"},
        {R"({"msrp/config": true})", ": msrp/config: true is not an object"},
        {R"({"msrp/config": {"intfEnable": {"a very long port name": true}}})",
         ": msrp/config/intfEnable: \"a very long port name\" is not \"*\" or an interface name (1 to 15 "
         "characters "
         "without blanks or '/')"},
        {R"({"bridging/config": {"bridgeMac": "02:00"}})",
         ": bridging/config/bridgeMac: \"02:00\" is not an address like 91:e0:f0:00:fe:01"},
        {R"({"bridging/config": {"vlanConfig": {"2": {"intf": {"swp1": {"tagged": 1}}}}}})",
         ": bridging/config/vlanConfig/2/intf/swp1/tagged: 1 is not true or false"},
    };
    for (const auto& [content, problem] : cases) EXPECT_EQ(load(content), problem) << content;
    // With one error nothing is written.
    const std::string enable = R"({"msrp/config": {"intfEnable": {"swp1": true}})";
    EXPECT_EQ(load(enable + R"(, "msrp/cliConfig": {"srClassAPriority": 8}})"),
              ": msrp/cliConfig/srClassAPriority: 8 is not from 0 to 7");
    EXPECT_TRUE(msrp->intfEnable().empty());
    EXPECT_EQ(load(enable + '}'), "");
    EXPECT_TRUE(msrp->intfEnable(IntfId{"swp1"}));
    const std::string absent = directory.file("absent");
    using enum Control::ConfigReading;
    EXPECT_EQ(loadFile(absent, again), absent + ": No such file or directory");
    EXPECT_EQ(loadFile(directory.file(""), once), directory.file("") + ": Is a directory");
    EXPECT_EQ(loadFile("/dev/zero", once), "/dev/zero: too large for a configuration");
    const std::string pipe = directory.file("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(loadFile(pipe, again), pipe + ": is no regular file, so it cannot be read again");
}

/// A daemon's records, of which agents and operators write some, and the files that it reads.
class Settings : public ::testing::Test {
protected:
    Settings() {
        std::filesystem::create_directory(directory.file("d"));
        first(R"("msrp/config": {"intfEnable": {"swp1": true, "swp2": true}},
                 "msrp/cliConfig": {"srClassAPriority": 4, "latency": {"swp1": {"A": 1, "B": 2}}},
                 "bridging/config": {"vlanConfig": {"5": {"intf": {"swp1": {"tagged": true}}}}})");
        access.followerIs([this](auto record, const auto& patch) { configuration.written(record, patch); });
        for (const std::string& path : ConfigRecords::paths())
            reactors.push_back(database.entity(path)->watch(
                [this](const State::Change& change) { heard += std::string{change.field} + ' '; }));
    }
    void first(const std::string& content) { directory.write("first.json", '{' + content + '}'); }
    void further(const std::string& name, const std::string& content) {
        directory.write("d/" + name, '{' + content + '}');
    }
    void set(const std::string& path, const std::string& value) {
        EXPECT_EQ(access.set(path, Control::parseJson(value).value).error, "");
    }
    std::string reload() {
        heard.clear();
        const auto [problem, changes] =
            configuration.reload([this](const ConfigRecords&) { return std::exchange(refusal, {}); });
        return problem.empty() ? changesText(changesValue(changes)) : problem + '\n';
    }
    /// All that is configured now.
    [[nodiscard]] std::string records() const {
        std::string all;
        for (const std::string& path : ConfigRecords::paths())
            all += path + ' ' + Control::jsonText(database.entity(path)->value()) + '\n';
        return all;
    }
    /// The same of a daemon that is started with the files as they are.
    [[nodiscard]] std::string recordsAfresh() const {
        std::vector<Control::ConfigFile> files;
        ConfigRecords fresh;
        EXPECT_EQ(readConfigs(sources, Control::ConfigReading::once, files), "");
        EXPECT_EQ(fresh.take(files), "");
        std::string all;
        for (const std::string& path : ConfigRecords::paths())
            all += path + ' ' + Control::jsonText(fresh.all().find(path)->second->value()) + '\n';
        return all;
    }

    TemporaryDirectory directory;
    State::Database database = [] {
        State::Database made;
        Msrp::populate(made);
        Mvrp::populate(made);
        made.entityIs<Linux::Config>("linux/config");
        made.entityIs<Runtime::LogConfig>("log/config");
        made.entityIs<Store::Config>("store/config");
        made.entityIs<Store::RedundancyConfig>("redundancy/config");
        return made;
    }();
    Control::RecordAccess access{database, ConfigRecords::paths()};
    const std::vector<Control::ConfigSource> sources{{directory.file("first.json")}, {directory.file("d")}};
    Configuration configuration{database, sources};
    std::vector<State::Reactor> reactors;
    std::string heard;
    std::string refusal;
};

TEST_F(Settings, AreThoseOfTheFilesInTheirOrderAndAgainAfterAReload) {
    further("10.json", R"("msrp/config": {"intfEnable": {"swp2": null, "swp3": true}})");
    further("9.json", R"("msrp/cliConfig": {"srClassAPriority": 5, "latency": {"swp1": {"A": 7}}})");
    further(".hidden.json", "no JSON");
    further("notes", "no JSON");
    ASSERT_EQ(configuration.load(access), "");
    const std::string begun = records();
    EXPECT_EQ(begun, recordsAfresh());
    EXPECT_EQ(reload(), "nothing has changed\n");

    set("msrp/cliConfig/srClassAPriority", "6");
    set("msrp/cliConfig/maxFrameSizeLimit", "900");
    set("bridging/config/vlanConfig/7", R"({"intf": {"swp2": {}}})");
    further("10.json", R"("msrp/config": {"intfEnable": {"swp3": true}})");
    EXPECT_EQ(reload(),
              "bridging/config/vlanConfig/7: {\"intf\":{\"swp2\":{\"tagged\":false}}} -> nothing\n"
              "msrp/cliConfig/srClassAPriority: 6 -> 5\n"
              "msrp/cliConfig/maxFrameSizeLimit: 900 -> 1500\n"
              "msrp/config/intfEnable/swp2: nothing -> true\n");
    EXPECT_EQ(heard, "vlanConfig srClassAPriority maxFrameSizeLimit intfEnable ");
    EXPECT_EQ(records(), recordsAfresh());
}

TEST_F(Settings, StayAsTheyAreWhenAFileIsWrongOrSomebodyObjects) {
    ASSERT_EQ(configuration.load(access), "");
    set("msrp/cliConfig/srClassAPriority", "6");
    const std::string before = records();
    const std::string said = directory.file("d/1.json") + ": ";
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"("msrp/cliConfig": {"srClassAPriority": 8})",
         said + "msrp/cliConfig/srClassAPriority: 8 is not from 0 to 7"},
        {R"("linux/config": {"bridge": "br 0"})",
         said + "linux/config/bridge: \"br 0\" is no name of an interface"},
        {R"("linux/config": {"bridge": "br0"})",
         directory.file("first.json") +
             ": bridging/config/vlanConfig: cannot be given, it comes from bridge \"br0\" (linux/config)"},
        {R"("linux/config": {"fence": "none"})",
         "linux/config/fence: differs, and takes effect at the start only: restart msrpd"},
        {R"("mvrp/config": {"intfEnable": {"*": true}})",
         said + "mvrp/config/intfEnable/*: means all ports of the bridge, and linux/config names none"},
    };
    for (const auto& [content, problem] : cases) {
        further("1.json", content);
        EXPECT_EQ(reload(), problem + '\n');
    }
    further("1.json", "");
    refusal = "another daemon";
    EXPECT_EQ(reload(), "another daemon\n");
    EXPECT_EQ(heard + records(), before);
}

TEST_F(Settings, ThatWereSavedLoadToTheSameRecords) {
    further(
        "50.json",
        R"("bridging/config": {"vlanConfig": {"5": null}}, "msrp/config": {"intfEnable": {"swp2": false}})");
    further("90-saved.json", R"("mrp/config": {"joinTime": 200})");
    ASSERT_EQ(configuration.load(access), "");
    for (const auto& [path, value] : std::vector<std::pair<std::string, std::string>>{
             {"bridging/config/vlanConfig/5", R"({"intf": {"swp2": {"tagged": true}}})"},
             {"msrp/cliConfig/latency/swp1", R"({"B": 9})"},
             {"msrp/cliConfig/shapeRateFactor", "1.1"},
             {"msrp/config/intfEnable/swp1", "null"},
             {"msrp/config/intfEnable/swp2", "true"},
             {"mvrp/config/allowed/swp9", "\"2,7-9\""}})
        set(path, value);
    const std::string wanted = records();
    SaveResult saved = save(configuration.unsaved().value, "");
    EXPECT_EQ(saved.problem, "");
    EXPECT_EQ(saved.file, directory.file("d/90-saved.json"));
    // A name without a directory is that of a file of this one, there or not.
    const auto elsewhere = std::filesystem::current_path();
    std::filesystem::current_path(directory.file("d"));
    for (const char* name : {"90-saved.json", "91.json", "../91.json"}) {
        const SaveResult named = save(configuration.unsaved().value, name);
        EXPECT_EQ(named.problem + named.file + (named.isRead ? " is read" : ""),
                  std::filesystem::weakly_canonical(directory.file("d") + '/' + name).string() +
                      (name[0] == '9' ? " is read" : ""));
    }
    std::filesystem::current_path(elsewhere);
    EXPECT_EQ(recordsAfresh(), wanted);
    std::ifstream in{saved.file};
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>{in}, {}).find("joinTime") != std::string::npos);
    EXPECT_EQ(save(configuration.unsaved().value, "").text(), "nothing to save\n");
    EXPECT_EQ(reload(), "nothing has changed\n");

    // Where it cannot win, or would cost something, nothing is written.
    set("msrp/config/intfEnable/swp2", "false");
    further("95.json", R"("msrp/config": {"intfEnable": {"swp2": true}})");
    EXPECT_EQ(save(configuration.unsaved().value, "").problem,
              saved.file + ": msrp/config/intfEnable/swp2: a file that comes later says otherwise");
    set("bridging/config/vlanConfig/6", R"({"intf": {"swp2": {}}})");
    further("96.json", R"("bridging/config": {"vlanConfig": {"6": null, "006": null}})");
    EXPECT_EQ(save(configuration.unsaved().value, directory.file("d/96.json")).problem,
              directory.file("d/96.json") +
                  ": bridging/config/vlanConfig/6: this file says it twice, like \"2\" and \"002\"");
    further("99.json", "// mine\n");
    EXPECT_EQ(save(configuration.unsaved().value, directory.file("d/99.json")).problem,
              directory.file("d/99.json") + ": has comments, which would be lost: save to another file");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator{directory.file("d")}, {}), 5);
}

TEST_F(Settings, ThatGoTogetherAreHeardOfTogether) {
    ASSERT_EQ(configuration.load(access), "");
    first(R"("msrp/cliConfig": {"srPvid": {"swp1": 2}, "defaultSrPvid": 5})");
    reload();
    std::string seen;
    const auto cli = database.entityIs<Msrp::CliConfig>("msrp/cliConfig");
    const auto reactor =
        cli->react([&](const State::Change&) { seen += std::to_string(cli->streamVlan(IntfId{"swp1"})); });
    first(R"("msrp/cliConfig": {"defaultSrPvid": 2})");
    EXPECT_EQ(reload(), "msrp/cliConfig/srPvid/swp1: 2 -> nothing\nmsrp/cliConfig/defaultSrPvid: 5 -> 2\n");
    EXPECT_EQ(seen, "22");
}

}  // namespace
