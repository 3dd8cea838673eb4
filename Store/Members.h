/// All members of a set of the store, which may be more than one answer could hold.
#pragma once

#include "Store/Reply.h"

#include <functional>
#include <string>
#include <vector>

namespace Store {

/// Asks the store; answers come in the order of the questions, or never when the store is lost.
using Ask = std::function<void(std::vector<std::string> words, std::function<void(const Reply&)> answer)>;

/// Reads them some at a time: all that are there from the beginning to the end, and of those that come or go
/// meanwhile any.  `some` is given each part; one that is false ends the reading.  `done` is called once all
/// were given, or with what is wrong.
void readMembers(const Ask& ask, const std::string& key, std::function<bool(const std::vector<Reply>&)> some,
                 std::function<void(const Reply* problem)> done);

}  // namespace Store
