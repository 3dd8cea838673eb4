#include "Mrp/Attribute.h"

namespace Mrp {

void Attribute::ownIs(const AttributeValue& value) {
    const bool alone = spokenFor() && !registered() && !mtDue && !announced && !held;
    if (!apart_ && alone) {
        value_ = value;
        return;
    }
    AttributeValues all = values();
    all.own = value;
    valuesAre(all);
}

void Attribute::heardIs(const AttributeValue& value) {
    const bool alone = registered() && !spokenFor() && !announced && !held;
    if (!apart_ && alone) {
        value_ = value;
        return;
    }
    AttributeValues all = values();
    all.heard = value;
    valuesAre(all);
}

void Attribute::accept() {
    if (accepted() == heard()) return;
    AttributeValues all = values();
    all.accepted = all.heard;
    valuesAre(all);
}

void Attribute::tell() {
    if (told() == own()) return;
    AttributeValues all = values();
    all.told = all.own;
    valuesAre(all);
}

void Attribute::settle() {
    if (apart_) valuesAre(*apart_);
}

AttributeValues Attribute::values() const {
    return apart_ ? *apart_ : AttributeValues{value_, value_, value_, value_};
}

void Attribute::valuesAre(AttributeValues values) {
    // A value without a meaning follows one that has one.
    if (!registered() && !mtDue && spokenFor()) values.heard = values.own;
    if (!spokenFor()) values.own = values.heard;
    if (!announced) values.told = values.own;
    if (!held) values.accepted = values.heard;
    value_ = values.own;
    if (values == AttributeValues{value_, value_, value_, value_}) {
        apart_.reset();
    } else if (apart_) {
        *apart_ = values;
    } else {
        apart_ = std::make_unique<AttributeValues>(values);
    }
}

}  // namespace Mrp
