#include "Show/Doctor.h"

#include "Show/Table.h"

#include <algorithm>

namespace Show {

namespace {

const Column<Linux::Finding> findingColumns[]{
    {"WHERE", "device", [](const auto& f) { return f.device.empty() ? "kernel" : f.device; }},
    {"CHECK", "check", [](const auto& f) { return f.check; }},
    {"SEVERITY", "severity", [](const auto& f) { return f.severity; }, cellText, wordMood},
    {"FINDING", "what", [](const auto& f) { return f.what; }},
    {"COMMAND THAT MENDS IT", "command", [](const auto& f) { return textOrNone(f.command); }},
};

}  // namespace

State::Value doctorValue(const std::vector<Linux::Finding>& findings) {
    return Table{findingColumns, 2, findings}.value();
}

State::Schema doctorSchema() { return tableSchema(findingColumns, 2); }

std::string doctorText(const std::string& bridge, const std::vector<Linux::Finding>& findings,
                       const Page& page) {
    return (findings.empty() ? "" : Table{findingColumns, 2, findings}.text(page)) +
           (healthy(findings) ? "nothing keeps " + bridge + " from carrying streams\n"
                              : bridge + " does not carry streams as it should\n");
}

bool healthy(const std::vector<Linux::Finding>& findings) {
    return std::ranges::none_of(
        findings, [](const Linux::Finding& finding) { return finding.severity == Linux::Severity::fault; });
}

}  // namespace Show
