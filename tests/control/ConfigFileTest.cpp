#include "Control/ConfigFile.h"
#include "Msrp/types/Config.h"
#include "Switch/Bridging.h"
#include "tests/control/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

class ConfigFile : public ::testing::Test {
protected:
    /// What `loadConfig` says about a file of that content, without the file's name.
    std::string load(const std::string& content) {
        const std::string file = directory.write("config", content);
        std::string problem = Control::loadConfig(file, targets);
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
         ": msrp/config/intfEnable: \"a very long port name\" is not an interface name (1 to 15 characters "
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
    EXPECT_EQ(Control::loadConfig(absent, targets), absent + ": No such file or directory");
    EXPECT_EQ(Control::loadConfig(directory.file(""), targets), directory.file("") + ": Is a directory");
    EXPECT_EQ(Control::loadConfig("/dev/zero", targets), "/dev/zero: too large for a configuration");
}

}  // namespace
