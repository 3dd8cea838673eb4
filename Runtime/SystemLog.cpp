#include "Runtime/SystemLog.h"

#include <algorithm>

namespace Runtime {

std::string formatEvent(std::string_view format, std::initializer_list<std::string> arguments) {
    std::string out;
    out.reserve(format.size() + 32);
    const std::string* next = arguments.begin();
    for (std::size_t at = 0; at < format.size();) {
        const std::size_t percent = std::min(format.find('%', at), format.size());
        out += format.substr(at, percent - at);
        at = percent;
        if (at == format.size()) break;
        std::size_t length = 0;
        for (const std::string_view conversion : {"%s", "%d", "%llu"}) {
            if (format.substr(at).starts_with(conversion)) length = conversion.size();
        }
        if (length != 0 && next != arguments.end()) {
            out += *next++;
            at += length;
        } else {
            out += format[at++];
        }
    }
    return out;
}

}  // namespace Runtime
