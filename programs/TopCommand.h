/// `msrpctl top`: ports or streams as they are, again and again.
#pragma once

#include "programs/CommandLine.h"
#include "programs/Terminal.h"

#include <cstdint>
#include <string>

struct TopOptions {
    std::uint64_t interval = 1;  ///< seconds
    bool streams = false;
    bool once = false;
};

/// The words of the command, which reads them into `options`.
void addTopWords(Words words, TopOptions& options);
/// Until interrupted; a single page where standard input or output is no terminal.
ExitCode showTop(const std::string& socket, const TopOptions& options, const PageOptions& page);
