/// The named texts of one thing in a file, read one by one as what they are to be; what is wrong with one is
/// told with its line and name, and the thing keeps what it had.
#pragma once

#include "Plan/Network.h"
#include "State/Codec.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Plan {

/// One line each: "net.dot:12: link sw1 -- sw2: speed: \"10x\" is not one of ...".
using Problems = std::vector<std::string>;

struct Field {
    std::string text;
    Place place;
};

class Fields {
public:
    /// `owner`: what has the fields, in words.
    Fields(std::string owner, Place place, std::map<std::string, Field, std::less<>> fields,
           Problems& problems)
        : owner_{std::move(owner)},
          place_{std::move(place)},
          fields_{std::move(fields)},
          problems_{problems} {}

    /// The text under the name, which counts as known from now on; null when it is not there.
    const Field* take(std::string_view name);
    void number(std::string_view name, std::uint64_t min, std::uint64_t max,
                const std::function<void(std::uint64_t)>& to);
    template <class N>
    void number(std::string_view name, std::uint64_t min, std::uint64_t max, N& to) {
        number(name, min, max, [&to](std::uint64_t n) { to = static_cast<N>(n); });
    }
    template <State::NamedEnum E>
    void choice(std::string_view name, E& to) {
        const Field* field = take(name);
        if (field == nullptr) return;
        if (const auto found = State::Codec<E>::decode(State::Value{field->text})) {
            to = *found;
        } else {
            bad(name, "is not " + State::Codec<E>::expected());
        }
    }
    void address(std::string_view name, EthAddr& to);
    /// "5ms", "20us", "1.5s"; 0 to 1000 s.
    void duration(std::string_view name, Runtime::Duration& to);
    /// "0.1" or "10%".
    void share(std::string_view name, double& to);
    /// Words between blanks, commas or semicolons.
    std::vector<std::string> words(std::string_view name);

    /// Says what is wrong with the value of a field; `badAs` leaves it to `what` to name the value.
    void bad(std::string_view name, const std::string& what) { say(name, what, true); }
    void badAs(std::string_view name, const std::string& what) { say(name, what, false); }
    /// Says what is wrong with the whole.
    void wrong(const std::string& what);
    /// Says of every field that was not taken that it is not known here, unless `known` knows it.
    void restIs(const std::function<bool(const std::string& name, const Field& field)>& known);

    [[nodiscard]] const Place& place() const { return place_; }

private:
    void say(std::string_view name, const std::string& what, bool value);

    std::string owner_;
    Place place_;
    std::map<std::string, Field, std::less<>> fields_;
    std::map<std::string, bool, std::less<>> taken_;
    Problems& problems_;
};

/// "5ms", "20us", "1.5s" as what they are; nothing for anything else.
std::optional<Runtime::Duration> parseDuration(std::string_view text);
/// "0.1" or "10%", from 0 to 1; nothing for anything else.
std::optional<double> parseShare(std::string_view text);
/// Between blanks, commas or semicolons.
std::vector<std::string> wordsOf(std::string_view text);

}  // namespace Plan
