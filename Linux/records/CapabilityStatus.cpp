#include "Linux/records/CapabilityStatus.h"

namespace Linux {

void CapabilityStatus::abilitiesAre(const Abilities& v) {
    for (const auto& [name, ability] : abilityFields) assign(abilities_.*ability, v.*ability, name);
}

}  // namespace Linux

template class State::Record<Linux::ShapingStatus>;
template class State::Record<Linux::CapabilityStatus>;
