#include "Show/Doctor.h"

#include <algorithm>

namespace Show {

using State::Value;

Table doctor(const std::vector<Linux::Finding>& findings) {
    Table table{{{"WHERE", "device"},
                 {"CHECK", "check"},
                 {"SEVERITY", "severity"},
                 {"FINDING", "what"},
                 {"COMMAND THAT MENDS IT", "command"}},
                2};
    for (const Linux::Finding& finding : findings) {
        table.row({Value{finding.device.empty() ? "kernel" : finding.device},
                   Value{std::string{finding.check}}, Value{std::string{State::enumText(finding.severity)}},
                   Value{finding.what}, finding.command.empty() ? Value{} : Value{finding.command}});
    }
    return table;
}

bool healthy(const std::vector<Linux::Finding>& findings) {
    return std::ranges::none_of(
        findings, [](const Linux::Finding& finding) { return finding.severity == Linux::Severity::fault; });
}

std::string doctorText(const std::string& bridge, const std::vector<Linux::Finding>& findings) {
    return (findings.empty() ? "" : doctor(findings).text()) +
           (healthy(findings) ? "nothing keeps " + bridge + " from carrying streams\n"
                              : bridge + " does not carry streams as it should\n");
}

}  // namespace Show
