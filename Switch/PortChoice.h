/// The ports on which something is to run, as an operator says it: each by its name, and with "*" all ports
/// of the bridge, those to come included.  What is said of a port by its name wins.
///
/// Whoever reads it need not know of bridges: `ports()` has what it comes to, port by port.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/// A port, or none where every port of the bridge is meant.
struct ChosenPort {
    ChosenPort() = default;
    ChosenPort(IntfId chosen) : port{chosen} {}
    auto operator<=>(const ChosenPort&) const = default;

    IntfId port;
};

/// How that is written.
inline constexpr std::string_view everyPort = "*";

template <>
struct State::KeyText<ChosenPort> {
    static std::string text(ChosenPort chosen) {
        return chosen.port ? chosen.port.name() : std::string{everyPort};
    }
    static std::optional<ChosenPort> parse(std::string_view t) {
        if (t == everyPort) return ChosenPort{};
        const auto port = KeyText<IntfId>::parse(t);
        return port ? std::optional<ChosenPort>{*port} : std::nullopt;
    }
    static std::string expected() { return "\"*\" or " + KeyText<IntfId>::expected(); }
    static Schema schema() {
        Schema schema = KeyText<IntfId>::schema();
        schema.pattern = "^\\*$|" + schema.pattern;
        return schema;
    }
};

class PortChoice {
public:
    using Said = State::FlatMap<ChosenPort, bool>;
    using Ports = State::FlatMap<IntfId, bool>;

    /// In the words in which it was said.
    [[nodiscard]] const Said& said() const { return said_; }
    /// All ports that were named, and those of the bridge while all of them are chosen.
    [[nodiscard]] const Ports& ports() const { return ports_; }
    [[nodiscard]] bool chooses(IntfId port) const { return ports_.get(port, false); }
    [[nodiscard]] bool choosesEvery() const { return said_.get({}, false); }

private:
    template <class R>
    friend struct PortChoiceField;

    /// The ports for which it comes to something else now.
    std::vector<IntfId> settle();

    Said said_;
    std::set<IntfId> bridgePorts_;
    Ports ports_;
};

/// The choice as a field of a record: a map of what was said.  A change of several entries is settled as one,
/// so that a port that is chosen before and after, in other words, does not notice; reactors are told of the
/// ports for which it makes a difference, or of the field where it makes none.
template <class R>
struct PortChoiceField : State::WholeField {
    constexpr PortChoiceField(std::string_view n, PortChoice R::*m) : name{n}, member{m} {}
    std::string_view name;
    PortChoice R::*member;

    [[nodiscard]] static std::string_view type() { return "map"; }
    [[nodiscard]] State::Value read(const R& record) const { return words.read(record.*member); }
    [[nodiscard]] std::optional<State::Value> entry(const R& record, std::string_view rest) const {
        return words.entry(record.*member, rest);
    }
    [[nodiscard]] State::MaybeProblem check(const R& record, const State::Value& patch) const {
        return words.check(record.*member, patch);
    }
    [[nodiscard]] State::Schema schema(const R& record) const { return words.schema(record.*member); }
    void write(R& record, const State::Value& patch, State::Tidings& later) const {
        bool differs = false;
        for (const auto& [port, value] : *patch.object()) {
            const auto chosen = State::Codec<bool>::decode(value);
            differs |= say(record, *State::KeyText<ChosenPort>::parse(port), chosen);
        }
        settle(record, differs, later);
    }

    State::MaybeProblem restore(R& record, const State::Value& value, double) const {
        if (auto problem = check(record, value)) return problem;
        State::Tidings now;
        write(record, State::wholePatch(value, (record.*member).said_), now);
        now.tell();
        return std::nullopt;
    }

    /// The same for one entry; nothing takes it back.
    void sayIs(R& record, IntfId port, std::optional<bool> chosen) const {
        State::Tidings now;
        settle(record, say(record, port, chosen), now);
        now.tell();
    }
    void bridgePortsAre(R& record, const std::set<IntfId>& ports) const {
        State::Tidings now;
        (record.*member).bridgePorts_ = ports;
        settle(record, false, now);
        now.tell();
    }

private:
    static constexpr State::MapField<PortChoice, ChosenPort, bool> words{"", &PortChoice::said_};

    bool say(R& record, ChosenPort port, std::optional<bool> chosen) const {
        auto& said = (record.*member).said_;
        return chosen ? said.set(port, *chosen) : said.erase(port);
    }
    void settle(R& record, bool said, State::Tidings& later) const {
        const std::vector<IntfId> changed = (record.*member).settle();
        for (const IntfId port : changed) State::Notify::changed(record, name, port, later);
        if (said && changed.empty()) State::Notify::changed(record, name, later);
    }
};
