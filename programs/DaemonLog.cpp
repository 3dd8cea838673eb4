#include "programs/DaemonLog.h"

#include "Runtime/Text.h"
#include "programs/EventWords.h"

#include <utility>

DaemonLog::DaemonLog(Runtime::Loop& loop, std::unique_ptr<Control::LogOutlet> outlet,
                     std::shared_ptr<const Runtime::LogConfig> config,
                     std::shared_ptr<Runtime::RecentLog> recent)
    : loop_{loop},
      config_{std::move(config)},
      recent_{std::move(recent)},
      writer_{loop, std::move(outlet),
              [this](const std::string& line) {
                  recent_->add(Runtime::seconds(loop_.now()), Level::warning, line);
              }},
      limiter_{loop, [this](int severity, const std::string& line) { keep(severity, line); }},
      folder_{loop, [this](int severity, std::string_view port, const std::string& line,
                           std::uint64_t count) { limiter_.line(severity, port, line, count); }} {}

void DaemonLog::portIs(const std::string& port, bool known) {
    if (known) {
        ports_.insert(port);
    } else {
        ports_.erase(port);
    }
}

void DaemonLog::listen(Runtime::SystemLog& events) {
    events.sinkIs(
        [this](const Runtime::LogEvent& event, std::string_view subject, const std::string& text) {
            const std::string_view port = subject.empty() ? portNamed(text) : subject;
            if (subject.empty() && !limiter_.asks(port)) return;
            std::string line = Runtime::concat(event.name, ' ', text);
            if (const std::string words = inWords(event, text); !words.empty())
                line += Runtime::concat(" (", words, ')');
            folder_.line(static_cast<int>(kindOf(event).level), port, line);
        },
        [this](const Runtime::LogEvent& event, std::string_view subject) {
            const EventKind kind = kindOf(event);
            return config_->tells(kind.topic, kind.level) && (subject.empty() || limiter_.asks(subject));
        });
}

void DaemonLog::say(Topic topic, Level level, const std::string& line) {
    if (config_->tells(topic, level)) sayAlways(level, line);
}

void DaemonLog::sayAlways(Level level, const std::string& line) {
    folder_.line(static_cast<int>(level), portNamed(line), line);
}

void DaemonLog::finish() {
    folder_.flush();
    limiter_.flush();
    writer_.finish(std::chrono::milliseconds{200});
}

std::string_view DaemonLog::portNamed(std::string_view line) const {
    return Control::portNamed(line, [this](std::string_view name) { return ports_.contains(name); });
}

void DaemonLog::keep(int severity, const std::string& line) {
    recent_->add(Runtime::seconds(loop_.now()), static_cast<Level>(severity), Control::oneLine(line));
    writer_.line(severity, line);
}
