#include "programs/CommandLine.h"

#include "Control/LogWriter.h"
#include "programs/WordGuess.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <optional>

std::string programVersion() { return MSRP_VERSION; }

void demand(const std::string& problem, ExitCode how) {
    if (!problem.empty()) throw Failure{problem, how};
}

Words& Words::flag(const char* name, const std::string& help, bool& to) {
    app_->add_flag(name, to, help);
    return *this;
}

Words& Words::text(const char* name, const std::string& help, std::string& to, Need need) {
    CLI::Option* option = app_->add_option(name, to, help)->required(need == Need::required);
    if (!to.empty()) option->capture_default_str();
    return *this;
}

Words& Words::texts(const char* name, const std::string& help, std::vector<std::string>& to) {
    app_->add_option(name, to, help)->allow_extra_args(false);
    return *this;
}

Words& Words::list(const char* name, const std::string& help, std::vector<std::string>& to) {
    app_->add_option(name, to, help);
    return *this;
}

Words& Words::list(const char* name, const std::string& help, std::optional<std::vector<std::string>>& to) {
    const auto given = [&to](const std::vector<std::string>& values) {
        to = values;
        std::erase(*to, "");  // which stands for none
    };
    app_->add_option_function<std::vector<std::string>>(name, given, help)
        ->expected(0, CLI::detail::expected_max_vector_size);
    return *this;
}

Words& Words::number(const char* name, const std::string& help, std::uint64_t& to, Range range) {
    CLI::Option* option = app_->add_option(name, to, help)->check(CLI::Range(range.min, range.max));
    if (to != 0) option->capture_default_str();
    return *this;
}

Words& Words::numbers(const char* name, const std::string& help, std::vector<std::uint64_t>& to,
                      Range range) {
    app_->add_option(name, to, help)->check(CLI::Range(range.min, range.max))->capture_default_str();
    return *this;
}

Words Words::command(const char* name, const std::string& help, std::function<ExitCode()> body) {
    Words words{*this};
    words.app_ = app_->add_subcommand(name, help)->fallthrough();
    app_->require_subcommand(0, 1);
    if (body) words.app_->callback([chosen = chosen_, body = std::move(body)] { *chosen = body; });
    return words;
}

struct Program::Parts {
    explicit Parts(const std::string& help) : app{help} {}

    CLI::App app;
    std::function<ExitCode()> chosen;

    /// Reads the words.  Gives the exit code where there is nothing more to do.
    std::optional<int> parse(std::vector<std::string> words) {
        try {
            words = fullWords(app, std::move(words));
            std::ranges::reverse(words);
            app.parse(std::move(words));
            return std::nullopt;
        } catch (const CLI::Success& asked) {
            return app.exit(asked);
        } catch (const CLI::ParseError& error) {
            throw Failure{error.what(), usage};
        }
    }

    /// What might have been said, where a command is missing.
    [[nodiscard]] std::string missing() const {
        const CLI::App* last = &app;
        while (!last->get_subcommands().empty()) last = last->get_subcommands().front();
        std::string names;
        for (const CLI::App* command : last->get_subcommands([](const CLI::App*) { return true; }))
            names += (names.empty() ? "" : ", ") + command->get_name();
        return (last == &app ? "a command is needed: " : last->get_name() + " what? ") + names;
    }
};

Program::Program(std::string name, const std::string& help)
    : name_{std::move(name)}, parts_{std::make_unique<Parts>(help)} {
    app_ = &parts_->app;
    app_->name(name_);
    chosen_ = &parts_->chosen;
    app_->set_version_flag("--version", name_ + ' ' + programVersion());
}

Program::~Program() = default;

int Program::run(int argc, char** argv, std::function<ExitCode()> body, const WordValues& values) {
    ExitCode code = refused;
    std::string problem;
    try {
        std::vector<std::string> words{argv + std::min(1, argc), argv + argc};
        if (!words.empty() && words.front() == "--complete") {
            words.erase(words.begin());
            for (const std::string& word : endings(parts_->app, words, values)) std::cout << word << '\n';
            return done;
        }
        if (const auto ended = parts_->parse(std::move(words))) return *ended;
        if (!body) body = parts_->chosen;
        if (body) return body();
        throw Failure{parts_->missing(), usage};
    } catch (const Failure& failure) {
        code = failure.code;
        problem = failure.what();
    } catch (const std::exception& error) {
        problem = error.what();
    }
    std::cout.flush();
    Control::lastWords(name_ + ": " + problem);
    return code;
}
