/// A run as a page for a browser.
#pragma once

#include "Plan/Course.h"

#include <string>

namespace Plan {

/// One HTML document that needs nothing else and asks for nothing: the network drawn, what became of every
/// stream, link and event.  Whatever the names are, they stay text.
std::string pageOf(const Network& network, const Course& course);

}  // namespace Plan
