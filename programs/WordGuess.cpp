#include "programs/WordGuess.h"

#include "Runtime/Text.h"
#include "programs/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <utility>

namespace {

using Texts = std::vector<std::string>;

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

std::vector<const CLI::Option*> placesOf(const CLI::App& app) {
    return app.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

/// Where in the tree of commands the words have led to.
class Way {
public:
    explicit Way(const CLI::App& app) : app_{&app} {}

    /// Goes one word further, and gives it in full.  `last`: none but options follow.
    std::string take(const std::string& word, bool last) {
        if (option_ != nullptr) {
            before_.options[std::exchange(option_, nullptr)->get_name()] = word;
        } else if (word.size() > 1 && word.front() == '-') {
            const std::size_t divider = word.find('=');
            const CLI::Option* option = find(word.substr(0, divider));
            if (option == nullptr || option->get_items_expected_max() == 0) return word;
            if (divider == std::string::npos) {
                option_ = option;
            } else {
                before_.options[option->get_name()] = word.substr(divider + 1);
            }
        } else if (const CLI::App* command = commandFor(word, last)) {
            app_ = command;
            before_.arguments.clear();
            return command->get_name();
        } else {
            before_.arguments.push_back(word);
        }
        return word;
    }

    [[nodiscard]] Texts next(const std::string& begun, const WordValues& values) const {
        if (option_ != nullptr) return values(option_->get_name(), before_);
        Texts found;
        if (!begun.empty() && begun.front() == '-') {
            for (const CLI::App* app = app_; app != nullptr; app = app->get_parent()) {
                for (const CLI::Option* option : app->get_options()) {
                    for (const std::string& name : option->get_lnames()) found.push_back("--" + name);
                }
            }
            return found;
        }
        for (const CLI::App* command : commandsOf(*app_)) found.push_back(command->get_name());
        const auto places = placesOf(*app_);
        if (before_.arguments.size() < places.size()) {
            for (std::string& value : values(places[before_.arguments.size()]->get_name(true), before_))
                found.push_back(std::move(value));
        }
        return found;
    }

private:
    [[nodiscard]] const CLI::Option* find(const std::string& name) const {
        for (const CLI::App* app = app_; app != nullptr; app = app->get_parent()) {
            if (const CLI::Option* option = app->get_option_no_throw(name)) return option;
        }
        return nullptr;
    }

    [[nodiscard]] const CLI::App* commandFor(const std::string& word, bool last) const {
        if (word.empty() || !before_.arguments.empty()) return nullptr;
        std::vector<const CLI::App*> found;
        for (const CLI::App* command : commandsOf(*app_)) {
            if (command->get_name() == word) return command;
            if (command->get_name().starts_with(word)) found.push_back(command);
        }
        if (found.size() < 2) return found.empty() ? nullptr : found.front();
        // "stream" and "streams" are told apart by whether there is one to be named.
        const auto isLonger = [&](const CLI::App* command) {
            return command->get_name().starts_with(found.back()->get_name());
        };
        std::ranges::stable_sort(found, std::ranges::greater{},
                                 [](const CLI::App* command) { return command->get_name().size(); });
        if (std::ranges::all_of(found, isLonger)) {
            const auto fits = [&](const CLI::App* command) { return placesOf(*command).empty() == last; };
            if (std::ranges::count_if(found, fits) == 1) return *std::ranges::find_if(found, fits);
        }
        std::string all;
        for (const CLI::App* command : found) all += (all.empty() ? "" : ", ") + command->get_name();
        throw Failure{Runtime::concat('"', word, "\" may be one of ", all), usage};
    }

    const CLI::App* app_;
    const CLI::Option* option_ = nullptr;  ///< whose value comes next
    WordsBefore before_;
};

}  // namespace

Texts fullWords(const CLI::App& app, Texts words) {
    Way way{app};
    for (auto word = words.begin(); word != words.end(); ++word)
        *word = way.take(*word, std::all_of(word + 1, words.end(),
                                            [](const std::string& w) { return w.starts_with('-'); }));
    return words;
}

Texts endings(const CLI::App& app, const Texts& words, const WordValues& values) {
    Way way{app};
    for (std::size_t i = 0; i + 1 < words.size(); ++i) way.take(words[i], false);
    const std::string begun = words.empty() ? "" : words.back();
    Texts found = way.next(begun, values);
    std::erase_if(found, [&](const std::string& word) { return word.compare(0, begun.size(), begun) != 0; });
    return found;
}
