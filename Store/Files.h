/// Files that an operator names in the configuration.
#pragma once

#include <string>

namespace Store {

/// Empty when `path` is a plain file; else one line that names it.  Others may make a reader wait: a pipe.
std::string notPlain(const std::string& path);

/// The password in a file, without newlines at its end.  Empty on success; else one line that names the file,
/// also when nothing is in it or more than 4096 octets.
std::string readPassword(const std::string& path, std::string& password);

/// Changes when the file does; empty where there is none.
std::string fileStamp(const std::string& path);

}  // namespace Store
