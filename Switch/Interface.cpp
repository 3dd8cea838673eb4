#include "Switch/Interface.h"

template class State::Record<Interface::EthPhyIntfStatus>;
template class State::Record<Interface::AllEthPhyIntfStatusDir>;
template class State::Record<Interface::AllIntfStatusDir>;
template class State::Record<Interface::AllIntfStatusLocalDir>;
template class State::Record<Interface::EthIntfStatusDir>;
