#include "programs/TopCommand.h"

#include "Control/Asker.h"
#include "Linux/kernel/EpollLoop.h"
#include "Linux/kernel/Signals.h"
#include "Show/Top.h"
#include "State/Codec.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <iostream>
#include <memory>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Runtime::Duration;
using State::Value;

/// Of a page that is printed once and for no terminal.
constexpr std::size_t printedRows = 50;
/// Without an answer for so long, what is shown counts as old.
constexpr Duration patience = std::chrono::seconds{2};
/// The list of all streams may take this part of the time, the daemon's and ours together.
constexpr int listShare = 20;

class TopCommand {
public:
    TopCommand(const std::string& socket, const TopOptions& options, const PageOptions& page, bool live)
        : socket_{socket},
          interval_{std::chrono::seconds{options.interval}},
          givenWidth_{page.width},
          page_{pageOf(page)},
          top_{options.streams ? Show::Top::Subject::streams : Show::Top::Subject::ports, live} {
        measure();
        if (!live) return;
        // The screen comes after the signals: none may come between the two and leave it as it is.
        signals_ = std::make_unique<Linux::Signals>(
            loop_, [this](int signal) { signalled(signal); },
            std::initializer_list<int>{SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH});
        screen_ = std::make_unique<Screen>(loop_, [this](std::string_view keys) { typed(keys); });
    }

    void run() {
        next_.armIn({});
        loop_.run();
        if (screen_) return;
        demand(problem_);
        std::cout << top_.text(page_);
    }

private:
    void measure() {
        const auto size = terminalSize();
        top_.rowsAre(size ? size->rows : printedRows);
        if (size && givenWidth_ == 0) page_.width = size->columns;
    }

    void signalled(int signal) {
        if (signal == SIGTSTP) {
            screen_->stop();
        } else if (signal != SIGWINCH) {
            return loop_.stop();
        }
        measure();
        paint();
        askSoon();
    }

    void typed(std::string_view keys) {
        const auto asked = keys.empty() ? Show::Top::Asked::end : top_.typed(keys);
        if (asked == Show::Top::Asked::end) return loop_.stop();
        if (asked == Show::Top::Asked::nothing) return;
        paint();
        askSoon();
    }

    void paint() {
        if (!screen_) return;
        screen_->paint(top_.text(page_, problem_));
    }

    /// Another page is wanted than the one that was asked for.
    void askSoon() {
        if (asker_.waiting()) {
            again_ = true;
        } else {
            next_.armIn({});
        }
    }

    /// Every interval, whatever has come of the last one.
    void round() {
        next_.armIn(interval_);
        if (asker_.waiting()) {
            const Duration silent = loop_.now() - asker_.lastSign();
            if (silent < patience) return;
            return trouble("msrpd has not answered for " +
                           std::to_string(std::chrono::duration_cast<std::chrono::seconds>(silent).count()) +
                           " s; what is shown is older");
        }
        if (!asker_.connected()) {
            if (const std::string problem = asker_.connect(socket_); !problem.empty())
                return trouble(problem);
        }
        askPage();
    }

    void askPage() {
        auto pieces = std::make_shared<const std::vector<Show::Piece>>(top_.pieces());
        ask(*pieces, [this, pieces](std::vector<Value> values, double now) {
            top_.valuesAre(*pieces, std::move(values), now);
            if (top_.wantsList() && loop_.now() >= listNotBefore_) return askList();
            problem_.clear();
            paint();
            if (!screen_) return loop_.stop();
            if (std::exchange(again_, false)) next_.armIn({});
        });
    }

    void askList() {
        ask({Show::Top::list()}, [this](std::vector<Value> values, double) {
            top_.listIs(values.front());
            listNotBefore_ = loop_.now() + listShare * (loop_.now() - askedAt_);
            askPage();
        });
    }

    void ask(const std::vector<Show::Piece>& pieces,
             std::function<void(std::vector<Value> values, double now)> answered) {
        std::vector<Value> requests;
        requests.reserve(pieces.size());
        for (const Show::Piece& piece : pieces)
            requests.push_back(State::Object{{"op", Value{"get"}}, {"path", Value{piece.path()}}});
        askedAt_ = loop_.now();
        asker_.ask(requests, [answered = std::move(answered)](std::vector<Value> replies) {
            double now = 0.0;
            // What is not there any more is refused; it stands for nothing.
            for (Value& reply : replies) {
                now = State::Codec<double>::decode(Show::at(reply, {"now"})).value_or(now);
                reply = Value{Show::at(reply, {"value"})};
            }
            answered(std::move(replies), now);
        });
    }

    void trouble(const std::string& problem) {
        problem_ = problem;
        paint();
        if (!screen_) loop_.stop();
    }

    const std::string socket_;
    const Duration interval_;
    const std::size_t givenWidth_;
    Show::Page page_;
    Show::Top top_;
    std::string problem_;
    Linux::EpollLoop loop_;
    Control::Asker asker_{loop_, [this](const std::string& problem) { trouble(problem); }};
    Runtime::Time askedAt_{};
    Runtime::Time listNotBefore_{};
    bool again_ = false;
    Runtime::Timer next_{loop_, [this] { round(); }};
    std::unique_ptr<Linux::Signals> signals_;
    std::unique_ptr<Screen> screen_;
};

}  // namespace

void addTopWords(Words words, TopOptions& options) {
    constexpr std::uint64_t longest = 60;
    words.flag("--streams", "Begins with the streams", options.streams)
        .flag("--once", "Prints one page and ends", options.once)
        .number("--interval", "Seconds between two looks", options.interval, {1, longest});
}

ExitCode showTop(const std::string& socket, const TopOptions& options, const PageOptions& page) {
    const bool live = !options.once && ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
    TopCommand{socket, options, page, live}.run();
    return done;
}
