#include "Control/Json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>
#include <vector>

namespace Control {

namespace {

using Json = nlohmann::json;
using State::Value;

constexpr std::size_t maxDepth = 64;

/// Neither quotes nor escapes, nor an octet that might be no UTF-8.
bool plain(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= ' ' && c < '\x7f' && c != '"' && c != '\\'; });
}

class Writer {
public:
    Writer(std::string& out, bool lines) : out_{out}, lines_{lines} {}

    void write(const Value& value) {
        std::visit([this](const auto& v) { put(v); }, value.data);
    }
    void put(std::string_view text) {
        if (plain(text)) {
            ((out_ += '"') += text) += '"';
        } else {
            // An octet that is no UTF-8 must not cost the reader the whole reply.
            out_ += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
        }
    }

private:
    void put(std::monostate) { out_ += "null"; }
    void put(bool value) { out_ += value ? "true" : "false"; }
    void put(std::uint64_t value) { number(value); }
    void put(std::int64_t value) { number(value); }
    void put(double value) {
        if (!std::isfinite(value)) return put(std::monostate{});
        const std::string_view digits = number(value);
        // So that it comes back as what it was.
        if (digits.find_first_of(".e") == std::string_view::npos) out_ += ".0";
    }
    void put(const std::string& text) { put(std::string_view{text}); }
    void put(const State::Object& members) {
        out_ += '{';
        ++depth_;
        const char* separator = "";
        for (const auto& [name, value] : members) {
            out_ += separator;
            separator = ",";
            newLine();
            put(name);
            out_ += lines_ ? ": " : ":";
            write(value);
        }
        --depth_;
        if (!members.empty()) newLine();
        out_ += '}';
    }
    /// Appends the shortest text that reads as the same number; gives it as it stands there.
    template <class T>
    std::string_view number(T value) {
        std::array<char, 40> text{};
        const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
        const auto length = static_cast<std::size_t>(end - text.data());
        out_.append(text.data(), length);
        return std::string_view{out_}.substr(out_.size() - length);
    }
    void newLine() {
        if (!lines_) return;
        out_ += '\n';
        out_.append(2 * depth_, ' ');
    }

    std::string& out_;
    const bool lines_;
    std::size_t depth_ = 0;
};

/// Counts what the parser consumes, so that our own objections have a place too.
struct CountingIterator {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    const char& operator*() const { return *at; }
    CountingIterator& operator++() {
        ++at;
        ++*consumed;
        return *this;
    }
    bool operator==(const CountingIterator& other) const { return at == other.at; }

    const char* at;
    std::size_t* consumed;
};

/// Called by the parser; false stops it.
class Builder {
public:
    bool null() { return add(Value{}); }
    bool boolean(bool v) { return add(Value{v}); }
    bool number_integer(std::int64_t v) { return add(Value{v}); }
    bool number_unsigned(std::uint64_t v) { return add(Value{v}); }
    bool number_float(double v, const std::string&) { return add(Value{v}); }
    bool string(std::string& v) { return add(Value{std::move(v)}); }
    static bool binary(const Json::binary_t&) { return false; }
    bool start_object(std::size_t) {
        if (open_.size() == maxDepth) return refuse("objects are nested too deeply");
        open_.emplace_back();
        return true;
    }
    bool key(std::string& name) {
        if (!open_.back().names.insert(name).second) return refuse('"' + name + "\" comes twice");
        open_.back().name = std::move(name);
        return true;
    }
    bool end_object() {
        Value done{std::move(open_.back().members)};
        open_.pop_back();
        return add(std::move(done));
    }
    bool start_array(std::size_t size) {
        if (arrays == JsonArrays::refused) return refuse("arrays are not used here");
        if (!start_object(size)) return false;
        open_.back().numbered = true;
        return true;
    }
    bool end_array() { return end_object(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
        // "[json.exception.parse_error.101] parse error at line 3, column 5: syntax error ..."
        std::string what = error.what();
        what.erase(0, what.find("] ") + 2);
        if (what.starts_with("parse error")) what.erase(0, what.find(": ") + 2);
        return refuse(std::move(what));
    }

    JsonArrays arrays = JsonArrays::refused;
    Value root;
    std::string problem;

private:
    struct Open {
        State::Object members;
        std::set<std::string> names;
        std::string name;       ///< of the member whose value comes next
        bool numbered = false;  ///< an array: that name is its place
    };

    bool add(Value value) {
        if (open_.empty()) {
            root = std::move(value);
        } else {
            Open& into = open_.back();
            if (into.numbered) into.name = std::to_string(into.members.size());
            into.members.emplace_back(std::move(into.name), std::move(value));
        }
        return true;
    }
    bool refuse(std::string what) {
        problem = std::move(what);
        return false;
    }

    std::vector<Open> open_;
};

JsonProblem problemAt(std::string_view text, std::size_t consumed, std::string what) {
    const std::string_view before = text.substr(0, consumed == 0 ? 0 : consumed - 1);
    const auto lines = std::count(before.begin(), before.end(), '\n');
    const std::size_t lineStart = before.rfind('\n') + 1;  // npos + 1 is 0
    return {static_cast<std::size_t>(lines) + 1, before.size() - lineStart + 1, std::move(what)};
}

}  // namespace

std::string jsonText(const Value& value) {
    std::string out;
    appendJson(out, value);
    return out;
}

std::string jsonLines(const Value& value) {
    std::string out;
    Writer{out, true}.write(value);
    return out;
}

void appendJson(std::string& out, const Value& value) { Writer{out, false}.write(value); }
void appendJsonString(std::string& out, std::string_view text) { Writer{out, false}.put(text); }

JsonResult parseJson(std::string_view text, JsonComments comments, JsonArrays arrays) {
    Builder builder;
    builder.arrays = arrays;
    std::size_t consumed = 0;
    const char* end = text.data() + text.size();
    const bool complete =
        Json::sax_parse(CountingIterator{text.data(), &consumed}, CountingIterator{end, &consumed}, &builder,
                        nlohmann::detail::input_format_t::json, true, comments == JsonComments::allowed);
    if (complete) return {std::move(builder.root), std::nullopt};
    return {Value{}, problemAt(text, consumed, std::move(builder.problem))};
}

}  // namespace Control
