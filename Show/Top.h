/// `msrpctl top`: ports and streams as they are now, one screen of them.
///
/// What the daemon is asked again and again does not grow with the streams that there are: the numbers of all
/// of them together, and those streams that stand on the screen.  The list of all, which says which ones
/// these are, is asked for when something has happened, and the more seldom the longer it takes.
#pragma once

#include "Show/Page.h"
#include "Show/Snapshot.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Show {

/// A record, or what stands somewhere below it.
struct Piece {
    std::string record;
    std::vector<std::string> below{};

    [[nodiscard]] std::string path() const;
};

class Top {
public:
    enum class Subject : std::uint8_t { ports, streams };

    /// Without `keys` it does not tell which there are.
    Top(Subject subject, bool keys) : subject_{subject}, keys_{keys} {}

    /// Lines of the screen, all of them.
    void rowsAre(std::size_t rows) { rows_ = rows; }
    /// What the screen is made of.
    [[nodiscard]] std::vector<Piece> pieces() const;
    /// The values of pieces, in their order; null for what is not there.
    void valuesAre(const std::vector<Piece>& pieces, std::vector<State::Value> values, double now);

    /// Something has happened since the list of streams was asked for, and streams are shown.
    [[nodiscard]] bool wantsList() const;
    static Piece list() { return {"msrp/status", {"registeredStreams"}}; }
    void listIs(const State::Value& streams);

    enum class Asked : std::uint8_t { nothing, page, end };
    /// What the keys ask for: another page, or the end.  Knows the codes of terminals' keys for scrolling.
    Asked typed(std::string_view keys);

    /// So many lines as there are rows at most.  `problem` says why what is shown is old; empty: it is not.
    [[nodiscard]] std::string text(const Page& page, const std::string& problem = {}) const;

private:
    /// What decides where a stream stands in the list.
    struct Listed {
        std::uint64_t id;
        std::uint64_t kbps;
        double since;
        bool failed;
        std::string group;  ///< of refusals: VLAN and address
        std::uint64_t vlan;
        std::string address;
    };

    [[nodiscard]] std::size_t count() const;
    [[nodiscard]] std::size_t bodyRows() const;
    [[nodiscard]] std::size_t first() const;
    void scroll(std::size_t to);
    void sort();
    [[nodiscard]] State::Value happened() const;
    [[nodiscard]] std::string title() const;
    [[nodiscard]] std::string help() const;
    [[nodiscard]] std::string portsText(const Page& page) const;
    [[nodiscard]] std::string streamsText(const Page& page) const;

    Subject subject_;
    bool keys_;
    std::size_t sorting_[2]{};  ///< of each subject
    std::size_t first_[2]{};
    std::size_t rows_ = 24;
    Snapshot snapshot_;
    std::vector<Listed> streams_;
    State::Value listedAt_;  ///< what had happened by then
    bool listed_ = false;
};

}  // namespace Show
