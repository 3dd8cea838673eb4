#include "Mrp/Events.h"
#include "Msrp/types/Enums.h"
#include "Show/Table.h"
#include "Show/Views.h"

#include <utility>

namespace Show {

using State::Value;

namespace {

struct CounterRow {
    std::string port;
    std::string counter;
    std::uint64_t rx;
    std::uint64_t tx;
};

const Column<CounterRow> counterColumns[]{
    {"PORT", "port", [](const auto& r) { return r.port; }},
    {"COUNTER", "counter", [](const auto& r) { return r.counter; }},
    {"RX", "rx", [](const auto& r) { return r.rx; }},
    {"TX", "tx", [](const auto& r) { return r.tx; }},
};

class PortCounters {
public:
    PortCounters(std::vector<CounterRow>& rows, const std::string& port) : rows_{rows}, port_{port} {}

    void add(std::string counter, const Value& rx, const Value& tx = {}) {
        rows_.push_back({port_, std::move(counter), numberOf(rx), numberOf(tx)});
    }
    /// One row for each of the names; what has not been counted is in neither object.
    template <class Names>
    void addAll(const Names& names, const char* prefix, const Value& rx, const Value& tx = {}) {
        for (const auto& known : names)
            add(prefix + std::string{known.name}, at(rx, {known.name}), at(tx, {known.name}));
    }

private:
    std::vector<CounterRow>& rows_;
    const std::string& port_;
};

std::vector<CounterRow> counterRows(const Snapshot& snapshot) {
    std::vector<CounterRow> rows;
    for (const std::string& port : enabledPorts(snapshot)) {
        const Value& status = at(snapshot.record("msrp/status"), {"intfStatus", port});
        const Value& mrp = at(snapshot.record("mrp/status"), {"intf", port});
        const Value& socket = at(snapshot.record("linux/packets"), {"intf", port});
        PortCounters counters{rows, port};
        counters.addAll(Msrp::msrpCounterNames, "", at(status, {"rxCounters"}), at(status, {"txCounters"}));
        counters.add("PDUs", at(mrp, {"rxPdus"}), at(mrp, {"txPdus"}));
        counters.addAll(Mrp::eventNames, "event ", at(mrp, {"rxEvents"}), at(mrp, {"txEvents"}));
        counters.addAll(Mrp::malformedNames, "malformed: ", at(mrp, {"malformed"}));
        counters.add("refused joins", at(mrp, {"refusedJoins"}));
        counters.add("values out of range", at(mrp, {"rangeErrors"}));
        counters.add("registrations over the limit", at(mrp, {"droppedRegistrations"}));
        counters.add("PDUs dropped in a flood", at(mrp, {"droppedPdus"}));
        counters.add("frames the kernel dropped", at(socket, {"receiveDropped"}),
                     at(socket, {"sendDropped"}));
    }
    return rows;
}

std::string countersText(const Snapshot& snapshot, const Page& page) {
    std::vector<CounterRow> rows = counterRows(snapshot);
    std::erase_if(rows, [](const CounterRow& row) { return row.rx == 0 && row.tx == 0; });
    return Table{counterColumns, 2, rows}.text(page);
}

}  // namespace

const View& counters() {
    static const View view{{"msrp/config", "msrp/status", "mrp/status", "linux/packets"},
                           countersText,
                           [](const Snapshot& s) {
                               return Table{counterColumns, 2, counterRows(s)}.value();
                           },
                           [] { return tableSchema(counterColumns, 2); }};
    return view;
}

}  // namespace Show
