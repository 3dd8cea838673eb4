/// What a file says of streams, and in what rows.
#pragma once

#include "Plan/Fields.h"
#include "Plan/Network.h"

#include <optional>
#include <string>
#include <vector>

namespace Plan {

/// Fields of one stream: `name`, `talker`, `listeners`, `class`, `size` and `frames` or `format` with its
/// own, `vlan`, `rank`, `destination`, `id`, `count`.
class StreamReader {
public:
    StreamReader(Network& network, Problems& problems);
    /// Adds it, or as many as its `count` says; what is left out gets an id of the talker's and an address of
    /// those for streams.
    void add(const std::string& name, Fields& fields);
    /// To be called behind the last one: the rest get addresses that none of them asks for.
    void finish();

private:
    void tspec(Stream& stream, Fields& fields);
    [[nodiscard]] std::size_t station(const std::string& name, std::string_view field, Fields& fields);
    /// Nothing when the talker has no more.
    [[nodiscard]] std::optional<std::uint64_t> nextId(std::size_t talker);

    Network& network_;
    Problems& problems_;
    std::map<std::string, std::size_t, std::less<>> stations_;
    std::map<std::string, bool, std::less<>> names_;
    std::map<std::size_t, std::uint32_t> numbers_;  ///< by talker
    std::map<std::uint64_t, std::string> ids_;
    std::vector<std::size_t> withoutDestination_;
};

/// Adds so many streams with the same ends and needs, that are not there at the beginning: "main+1" and so
/// on.  False, and nothing is added, where there are not so many ids or addresses left.
bool addLike(Network& network, std::size_t stream, std::uint64_t count);

/// Rows of a text of values between commas (RFC 4180), with a row of names first; blank rows and such that
/// begin with '#' are left out.
struct CsvRow {
    unsigned line = 0;
    std::map<std::string, std::string, std::less<>> fields{};  ///< without empty ones
};
std::vector<CsvRow> readCsv(const std::string& text, const std::string& file, Problems& problems);

}  // namespace Plan
