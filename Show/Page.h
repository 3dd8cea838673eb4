/// How a text for people is laid out: on what width, and whether in colours.
///
/// What is shown may have been said by a peer, so nothing gets from here into a terminal that it would obey;
/// the only codes are those of the moods, and all of them are made in one place.
#pragma once

#include "State/Value.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Show {

/// What something means to whoever looks for trouble.
enum class Mood : std::uint8_t { plain, good, waits, bad, heading };

struct Page {
    std::size_t width = 0;  ///< columns; 0: as many as it takes
    bool colours = false;
    bool cuts = false;  ///< what is wider is cut off, not folded
};

/// With a "?" in the place of each octet that a terminal might obey, and of what is no UTF-8.  The `allowed`
/// control characters stay.
std::string printable(std::string_view text, std::string_view allowed = {});
/// The text as it is, between the codes of its mood where the page has colours.
std::string painted(std::string text, Mood mood, const Page& page);
/// How many columns a printable text takes.
std::size_t columnsOf(std::string_view text);
/// The beginning that takes so many columns at most.
std::string_view beginning(std::string_view text, std::size_t columns);
/// Lines of at most `width` columns (at least one), broken at blanks where there are any.
std::vector<std::string> wrapped(std::string_view text, std::size_t width);

/// Of a word that stands for a state, and of true and false.
Mood wordMood(const State::Value& cell);
/// True is good, and false as usual as anything.
Mood goodIfTrue(const State::Value& cell);

}  // namespace Show
