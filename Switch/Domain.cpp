#include "Switch/Domain.h"

namespace Switch {

Domain::Domain() {
    classPriority_.set(Cos{3}, true);
    classPriority_.set(Cos{2}, true);
}

}  // namespace Switch

template class State::Record<Switch::DomainPort>;
template class State::Record<Switch::Domain>;
