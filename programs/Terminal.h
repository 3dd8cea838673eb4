/// What standard output is: a page for texts, or a screen that is painted again and again.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"
#include "Show/Page.h"
#include "programs/CommandLine.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <termios.h>

struct PageOptions {
    std::string colour{"auto"};
    std::uint64_t width = 0;
};

/// The words of a program that shows tables, which it reads into `options`.
void addPageWords(Words& words, PageOptions& options);
/// A terminal has colours, unless the environment says otherwise, and its own width; all else neither.
Show::Page pageOf(const PageOptions& options);

struct TerminalSize {
    std::size_t columns;
    std::size_t rows;
};
/// Of standard output; nothing where that is no terminal, or where a terminal does not tell.
std::optional<TerminalSize> terminalSize();

/// The whole terminal while it lives: what stood there before comes back with its end, also when a signal
/// ends the process at once.  There is only one.
class Screen {
public:
    /// Standard input and output must both be the terminal.  `typed` gets what is typed, and nothing when the
    /// terminal is gone.
    Screen(Runtime::FdLoop& loop, std::function<void(std::string_view)> typed);
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    ~Screen();

    /// Shows the lines in the place of those before.  Where the terminal takes nothing at the moment, the
    /// last of what is painted meanwhile comes later.
    void paint(const std::string& lines);
    /// Gives the terminal back while the process stops, until it is told to go on.
    void stop();

private:
    void enter();
    void leave();
    void flush();

    Runtime::FdLoop& loop_;
    const std::function<void(std::string_view)> typed_;
    Runtime::FileDescriptor own_;  ///< opened anew, so that not to wait is nobody else's matter
    int out_;
    termios before_{};
    std::string pending_;
    std::string next_;
    Runtime::FdLoop::Watch readable_;
    Runtime::FdLoop::Watch writable_;
};
