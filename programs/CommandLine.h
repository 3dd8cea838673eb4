/// What the programs have in common: the words behind their names, and how they end.
///
/// The library that reads the words takes longer to compile than all else in a program; so it is met in
/// CommandLine.cpp alone.
#pragma once

#include "programs/WordGuess.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

enum ExitCode : int {
    done = 0,
    refused = 1,  ///< it cannot be done, or not here
    usage = 2,    ///< wrong words or configuration
};

/// "0.9.0"
std::string programVersion();

/// Ends the program with one line on standard error.
struct Failure : std::runtime_error {
    explicit Failure(const std::string& what, ExitCode how = refused) : std::runtime_error{what}, code{how} {}
    ExitCode code;
};

/// Throws it when a text says that something went wrong.
void demand(const std::string& problem, ExitCode how = refused);

/// The words that a program takes, or one of its commands.  What they are read into must outlive it.  Names
/// with dashes are options, others stand in their order.  A value that is there before is the default.
class Words {
public:
    enum class Need { optional, required };
    struct Range {
        std::uint64_t min;
        std::uint64_t max;
    };

    Words& flag(const char* name, const std::string& help, bool& to);
    Words& text(const char* name, const std::string& help, std::string& to, Need need = Need::optional);
    /// An option that several values may follow, or none; nothing where it is not given.
    Words& list(const char* name, const std::string& help, std::optional<std::vector<std::string>>& to);
    /// An option that may come several times, with one value each.
    Words& texts(const char* name, const std::string& help, std::vector<std::string>& to);
    /// An option that several texts may follow.
    Words& list(const char* name, const std::string& help, std::vector<std::string>& to);
    Words& number(const char* name, const std::string& help, std::uint64_t& to, Range range);
    /// An option that several numbers may follow.
    Words& numbers(const char* name, const std::string& help, std::vector<std::uint64_t>& to, Range range);
    /// A command, and what it does; without that it is a family of commands.  Options of the program may
    /// stand behind it as well.
    Words command(const char* name, const std::string& help, std::function<ExitCode()> body = {});

protected:
    Words() = default;
    CLI::App* app_ = nullptr;
    std::function<ExitCode()>* chosen_ = nullptr;  ///< the program's: what the given command does
};

class Program : public Words {
public:
    /// `help` says in one line what it is for.
    Program(std::string name, const std::string& help);
    ~Program();

    /// All of `main`: reads the words, or tells help or version; does what the command does, or `body` where
    /// there are no commands.  Gives the exit code.
    /// A shell asks for what may be typed next: "--complete WORD...", the last of which is not finished; then
    /// `values` tells what the program itself does not know, which may throw.
    int run(
        int argc, char** argv, std::function<ExitCode()> body = {},
        const WordValues& values = [](auto, auto&) { return std::vector<std::string>{}; });

private:
    struct Parts;
    std::string name_;
    std::unique_ptr<Parts> parts_;
};
