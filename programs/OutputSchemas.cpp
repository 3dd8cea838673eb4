#include "programs/OutputSchemas.h"

#include "Control/SchemaText.h"
#include "History/Event.h"
#include "History/Journal.h"
#include "Show/Doctor.h"
#include "Show/Explain.h"
#include "Show/Fleet.h"
#include "Show/History.h"
#include "Show/Log.h"
#include "Show/Streams.h"
#include "Show/Views.h"
#include "Show/WhatIf.h"
#include "Station/Event.h"
#include "programs/Clean.h"
#include "programs/CommandLine.h"
#include "programs/ConfigRecords.h"
#include "programs/RecordSchemas.h"

#include <fstream>
#include <memory>
#include <utility>

namespace {

using State::Schema;

Schema text() { return State::Codec<std::string>::schema(); }
Schema nothing() { return {.type = "null"}; }

/// A record, or what the names lead to in it: fields, and "" for any entry of a map.
Schema inRecords(std::initializer_list<std::string_view> names) {
    Schema at = recordSchemas();
    for (const std::string_view name : names) {
        if (name.empty()) {
            at = Schema{at.keyAndEntry.back()};
            continue;
        }
        for (const auto& [field, schema] : at.fields) {
            if (field != name) continue;
            at = Schema{schema};
            break;
        }
    }
    return at;
}

/// A change of configuration may be one of any field.
Schema changes() { return State::mapOf(text(), State::objectOf({{"was", {}}, {"is", {}}})); }

Schema history() {
    return State::schemaOf(History::Selection{std::make_shared<History::Journal>(), History::Filter{}});
}

}  // namespace

const std::vector<OutputSchema>& outputSchemas() {
    static const std::vector<OutputSchema> all{
        {"records",
         "msrpctl --json get and watch: the records by their paths, each with all that is below it",
         recordSchemas},
        {"show-streams", "msrpctl --json show streams", Show::streams().schema},
        {"show-streams-traffic", "msrpctl --json show streams --traffic", Show::traffic().schema},
        {"show-stream", "msrpctl --json show stream ID",
         [] {
             return Show::streamSchema(inRecords({"history/stages", "stream", ""}),
                                       inRecords({"history/gone", "stream", ""}));
         }},
        {"fleet", "msrpctl --json --fleet show streams and show stream ID", Show::fleetSchema},
        {"show-ports", "msrpctl --json show ports", Show::ports().schema},
        {"show-domain", "msrpctl --json show domain", Show::domain().schema},
        {"show-vlans", "msrpctl --json show vlans", Show::vlans().schema},
        {"show-counters", "msrpctl --json show counters", Show::counters().schema},
        {"show-times", "msrpctl --json show times", Show::times().schema},
        {"show-log", "msrpctl --json show log", Show::log().schema},
        {"show-capabilities", "msrpctl --json show capabilities", Show::capabilities().schema},
        {"show-redundancy", "msrpctl --json show redundancy", Show::redundancy().schema},
        {"redundancy-switch", "msrpctl --json redundancy switch", nothing},
        {"show-mrp", "msrpctl --json show mrp", Show::engines().schema},
        {"show-mrp-port", "msrpctl --json show mrp PORT",
         [] {
             return inRecords({"mrp/attributes", "intf", ""});
         }},
        {"list", "msrpctl --json list",
         [] {
             return State::mapOf(
                 text(), State::objectOf({{"type", text()}, {"writable", State::Codec<bool>::schema()}}));
         }},
        {"set", "msrpctl --json set", nothing},
        {"history", "msrpctl --json history", history},
        {"history-follow", "msrpctl --json history --follow and watch events: one value on each line",
         [] { return Show::eventSchema(History::eventSchema()); }},
        {"log-level", "msrpctl --json log level",
         [] {
             return inRecords({"log/config", "level"});
         }},
        {"log-level-set", "msrpctl --json log level TOPIC LEVEL", nothing},
        {"audit", "msrpctl --json audit", [] { return State::mapOf(text(), text()); }},
        {"clear-counters", "msrpctl --json clear counters", nothing},
        {"doctor", "msrpctl --json doctor", Show::doctorSchema},
        {"clean", "msrpctl --json clean", CleanResult::schema},
        {"reload", "msrpctl --json reload", changes},
        {"save", "msrpctl --json save",
         [] {
             return State::objectOf(
                 {{"file", text()}, {"isRead", State::Codec<bool>::schema()}, {"fields", changes()}});
         }},
        {"support", "msrpctl --json support",
         [] {
             return State::objectOf({{"file", text()}});
         }},
        {"ringlog", "msrpctl --json ringlog: one value on each line", Show::ringSchema},
        {"explain", "msrpctl --json explain", Show::explainSchema},
        {"what-if", "msrpctl --json what-if", Show::whatIfSchema},
        {"msrp-station", "msrp-station --json: one value on each line", Station::schema},
    };
    return all;
}

std::string outputSchemaText(const OutputSchema* output, bool lines) {
    using Control::SchemaFor;
    if (output == nullptr)
        return Control::schemaText("Configuration of msrpd", State::objectOf(ConfigRecords::schema()),
                                   SchemaFor::patch, lines);
    return Control::schemaText(std::string{output->title}, output->schema(), SchemaFor::output, lines);
}

void writeOutputSchemas(const std::string& directory) {
    for (const OutputSchema& output : outputSchemas()) {
        const std::string name = directory + '/' + std::string{output.name} + ".schema.json";
        std::ofstream file{name, std::ios::binary};
        file << outputSchemaText(&output, true) << '\n' << std::flush;
        if (!file) throw Failure{name + ": cannot be written"};
    }
}
