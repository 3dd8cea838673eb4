/// One attribute of one port: the states of its applicant and registrar, and its values.
#pragma once

#include "Mrp/Decoder.h"
#include "Mrp/Tables.h"

#include <cstdint>
#include <memory>

namespace Mrp {

/// The values that one attribute can have at a time.
struct AttributeValues {
    AttributeValue own;       ///< what this side declares
    AttributeValue told;      ///< what the peer was last told of it
    AttributeValue heard;     ///< what the peer declared last
    AttributeValue accepted;  ///< what the application took of it last
    bool operator==(const AttributeValues&) const = default;
};

/// A switch holds one of these for each stream and port, so it is kept small: nearly always the four values
/// are equal or have no meaning, and one of them stands for all.
class Attribute {
public:
    Applicant applicant = Applicant::VO;
    Registrar registrar = Registrar::MT;
    bool queued : 1 = false;  ///< waits for a transmit opportunity, and must not be deleted meanwhile
    bool mtDue : 1 =
        false;  ///< an Mt of `heard` is to be sent, which is not the value that this side declares
    /// The peer may hold `told`: a Join went out, and no Lv or LeaveAll since, nor a Join of the type that
    /// replaces it.
    bool announced : 1 = false;
    bool held : 1 = false;            ///< the application holds `accepted`, and is told when it leaves
    bool refused : 1 = false;         ///< the application refused `heard`
    std::uint32_t leaveSequence = 0;  ///< names the latest entry of this attribute in the leave queue
    std::uint32_t bornSecond = 0;     ///< of the loop's clock

    [[nodiscard]] const AttributeValue& own() const { return apart_ ? apart_->own : value_; }
    [[nodiscard]] const AttributeValue& told() const { return apart_ ? apart_->told : value_; }
    [[nodiscard]] const AttributeValue& heard() const { return apart_ ? apart_->heard : value_; }
    [[nodiscard]] const AttributeValue& accepted() const { return apart_ ? apart_->accepted : value_; }

    /// The setters look at the states and flags above to see which values have a meaning; so does `settle`,
    /// which is to be called when a state or flag has changed.
    void ownIs(const AttributeValue& value);
    void heardIs(const AttributeValue& value);
    void accept();  ///< what was heard becomes what was accepted
    void tell();    ///< what is declared becomes what was told
    void settle();

    [[nodiscard]] bool registered() const { return registrar != Registrar::MT; }
    /// True while this side declares it or has yet to withdraw it.
    [[nodiscard]] bool spokenFor() const { return isMember(applicant) || applicant == Applicant::LA; }
    [[nodiscard]] bool idle() const {
        return !registered() && !queued && !announced && applicant == Applicant::VO;
    }

private:
    [[nodiscard]] AttributeValues values() const;
    void valuesAre(AttributeValues values);

    AttributeValue value_;
    std::unique_ptr<AttributeValues> apart_;  ///< when they are not all equal
};

}  // namespace Mrp
