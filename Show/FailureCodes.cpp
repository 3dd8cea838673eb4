#include "Show/FailureCodes.h"

namespace Show {

using Msrp::U64;

FailureText failureText(U64 code) {
    for (const FailureText& known : failureTexts) {
        if (Msrp::number(known.code) == code) return known;
    }
    return {Msrp::TalkerFailureCode{static_cast<Msrp::U8>(code)},
            "the code has no meaning in IEEE 802.1Q as this bridge knows it",
            "look at the bridge that gave it"};
}

std::string codeText(U64 code) {
    for (const auto& known : Msrp::talkerFailureCodeNames) {
        if (Msrp::number(known.value) == code) return std::string{known.name};
    }
    return "failure code " + std::to_string(code);
}

}  // namespace Show
