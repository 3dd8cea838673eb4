/// The JSON text of a record in parts, made one by one as they are wanted, so that nobody waits for the whole
/// and nobody keeps it.
///
/// Who reads the text holds the part that it is at, and asks for the next one.  The first who asks makes it;
/// others who are at the same place find it, as long as somebody is there or it is one of the last that were
/// made.  Who has fallen behind makes its own.  So memory is one part for each reader, readers in step share
/// all the work, and a slow one holds nobody up.
///
/// Entries of a record are told as they are when their part is made (State/Walk.h).
#pragma once

#include "State/Walk.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <string>

namespace Control {

/// The text of a walk, from where it stands.
class RecordText {
public:
    /// Of nothing: ended.
    RecordText() = default;
    explicit RecordText(State::Walk walk) : walk_{std::move(walk)} {}
    /// Appends until `out` has `limit` octets, or one entry more, or all is told; true then.
    bool write(std::string& out, std::size_t limit);

private:
    void member(std::string& out, std::string_view name);

    State::Walk walk_;
    bool begun_ = false;
    bool comma_ = false;
};

struct TextPart {
    std::string text;
    bool last;
    RecordText rest;  ///< from the end of `text` on
    std::weak_ptr<TextPart> next{};
};

class TextParts {
public:
    static constexpr std::size_t partOctets = 32768;

    std::shared_ptr<TextPart> first(RecordText text) { return make(std::move(text)); }
    /// `part` must not be the last one.
    std::shared_ptr<TextPart> after(TextPart& part);

private:
    /// Parts that are kept for those who come a little later.
    static constexpr std::size_t kept = 64;
    std::shared_ptr<TextPart> make(RecordText text);

    std::deque<std::shared_ptr<TextPart>> recent_;
};

}  // namespace Control
