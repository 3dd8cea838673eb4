#include "Control/RecordText.h"

#include "Control/Json.h"

#include <utility>

namespace Control {

using Kind = State::Piece::Kind;

bool RecordText::write(std::string& out, std::size_t limit) {
    while (out.size() < limit) {
        const auto piece = walk_.next();
        if (!piece) return true;
        if (piece->kind == Kind::end) {
            out += '}';
            comma_ = true;
        } else if (piece->kind == Kind::values) {
            for (const auto& [name, value] : *piece->value.object()) {
                member(out, name);
                appendJson(out, value);
            }
        } else {
            member(out, piece->name);
            if (piece->kind == Kind::entries) {
                out += '{';
                comma_ = false;
            } else {
                appendJson(out, piece->value);
            }
        }
    }
    return false;
}

void RecordText::member(std::string& out, std::string_view name) {
    if (!std::exchange(begun_, true)) return;  // the value itself
    if (std::exchange(comma_, true)) out += ',';
    appendJsonString(out, name);
    out += ':';
}

std::shared_ptr<TextPart> TextParts::after(TextPart& part) {
    if (auto made = part.next.lock()) return made;
    auto made = make(part.rest);
    part.next = made;
    return made;
}

std::shared_ptr<TextPart> TextParts::make(RecordText text) {
    std::string out;
    const bool last = text.write(out, partOctets);
    recent_.push_back(std::make_shared<TextPart>(TextPart{std::move(out), last, std::move(text)}));
    if (recent_.size() > kept) recent_.pop_front();
    return recent_.back();
}

}  // namespace Control
