#include "programs/Support.h"

#include "Control/Json.h"
#include "Control/SystemProblem.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Text.h"
#include "Show/Snapshot.h"
#include "programs/CommandLine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <set>
#include <string_view>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using State::Value;

/// Octets of one file or command, and of all files together.
constexpr std::size_t mostOfOne = std::size_t{32} << 20;
constexpr std::size_t mostOfFiles = std::size_t{256} << 20;
/// Files of a directory.
constexpr std::size_t mostFiles = 1000;

struct Command {
    const char* file;
    const char* line;
};
constexpr auto commands = std::to_array<Command>({
    {"machine", "date --iso-8601=seconds; uname -a; cat /etc/os-release; uptime"},
    {"links.json", "ip -d -s -j link"},
    {"bridge-links.json", "bridge -d -j link"},
    {"bridge-vlans.json", "bridge -d -j vlan"},
    {"bridge-groups.json", "bridge -d -s -j mdb"},
    {"queues",
     "tc -s qdisc; for port in /sys/class/net/*/master; do port=${port%/master}; port=${port##*/}; "
     "echo \"== $port\"; tc -s class show dev \"$port\"; tc -s filter show dev \"$port\" ingress; done"},
    {"drivers",
     "for port in /sys/class/net/*/master; do port=${port%/master}; port=${port##*/}; "
     "echo \"== $port\"; ethtool -i \"$port\"; ethtool -l \"$port\"; done"},
    {"modules", "lsmod"},
    {"service", "systemctl status --no-pager msrpd; systemctl show msrpd"},
    {"journal", "journalctl -u msrpd -n 5000 --no-pager -o short-iso-precise"},
});

/// Signals that end the process wait as long as this lives, so that what it has made is gone by then.
class Patience {
public:
    Patience() {
        sigset_t ending;
        ::sigemptyset(&ending);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction now {};
            // Who was told to take no notice of one goes on.
            if (::sigaction(signal, nullptr, &now) == 0 && now.sa_handler != SIG_IGN)
                ::sigaddset(&ending, signal);
        }
        ::sigprocmask(SIG_BLOCK, &ending, &before_);
        come_ = Runtime::FileDescriptor{::signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK)};
    }
    Patience(const Patience&) = delete;
    Patience& operator=(const Patience&) = delete;
    ~Patience() { restore(); }

    void restore() const { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    /// Waits until there is something to read.  Throws when the process is to end.
    void wait(int fd) const { look({{{come_.get(), POLLIN, 0}, {fd, POLLIN, 0}}}, -1); }
    void check() const { look({{{come_.get(), POLLIN, 0}, {-1, 0, 0}}}, 0); }

private:
    static void look(std::array<pollfd, 2> both, int span) {
        while (::poll(both.data(), both.size(), span) < 0 && errno == EINTR) {
        }
        if (both[0].revents != 0) throw Failure{"interrupted"};
    }

    sigset_t before_{};
    Runtime::FileDescriptor come_;
};

/// A folder that goes with this object.
class Folder {
public:
    Folder() {
        std::string name = (fs::temp_directory_path() / "msrpctl-support-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) throw Failure{name + ": " + Control::systemProblem(errno)};
        path_ = name;
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    [[nodiscard]] const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

/// The archive, for this user only, which goes with this object unless it is done.
class Archive {
public:
    explicit Archive(std::string path) : path_{std::move(path)} {
        const Runtime::FileDescriptor file{
            ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
        if (!file) throw Failure{path_ + ": " + Control::systemProblem(errno)};
    }
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;
    ~Archive() {
        if (!done_) ::unlink(path_.c_str());
    }
    void done() { done_ = true; }

private:
    const std::string path_;
    bool done_ = false;
};

/// A program that is told to end with this object, and whose output is read.
class Child {
public:
    Child(const Patience& patience, const std::vector<const char*>& words) : patience_{patience} {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw Failure{Control::systemProblem(errno)};
        out_ = Runtime::FileDescriptor{ends[0]};
        const Runtime::FileDescriptor in{ends[1]};
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (const char* word : words) arguments.push_back(const_cast<char*>(word));
        arguments.push_back(nullptr);
        process_ = ::fork();
        if (process_ < 0) throw Failure{Control::systemProblem(errno)};
        if (process_ > 0) return;
        patience.restore();
        const int nothing = ::open("/dev/null", O_RDONLY);
        ::dup2(nothing, STDIN_FILENO);
        ::dup2(in.get(), STDOUT_FILENO);
        ::dup2(in.get(), STDERR_FILENO);
        ::execvp(arguments.front(), arguments.data());
        ::_exit(127);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (process_ <= 0) return;
        ::kill(process_, SIGTERM);
        (void)status();
    }

    /// All that it says, errors included; of much, the beginning.
    std::string said() {
        std::string text;
        std::array<char, 65536> piece{};
        for (;;) {
            patience_.wait(out_.get());
            const ssize_t count = ::read(out_.get(), piece.data(), piece.size());
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return text;
            if (text.size() < mostOfOne) text.append(piece.data(), static_cast<std::size_t>(count));
        }
    }
    /// Of `waitpid`.
    int status() {
        int status = -1;
        while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
        }
        process_ = 0;
        return status;
    }

private:
    const Patience& patience_;
    Runtime::FileDescriptor out_;
    pid_t process_ = 0;
};

/// What is gathered, in a folder of its own.
class Collection {
public:
    Collection(fs::path place, const SupportRequest& request, const Patience& patience)
        : place_{std::move(place)}, request_{request}, patience_{patience} {}

    void take() {
        write("version", programVersion() + '\n');
        takeRecords();
        takeFiles();
        for (const auto& [name, line] : commands)
            write(name, Child{patience_, {"timeout", "20", "sh", "-c", line}}.said());
        if (!missing_.empty()) write("missing", missing_);
    }

private:
    void write(const fs::path& name, std::string_view text) {
        const fs::path file = place_ / name;
        std::error_code error;
        fs::create_directories(file.parent_path(), error);
        if (error) throw Failure{file.string() + ": " + error.message()};
        errno = 0;
        std::ofstream out{file, std::ios::binary};
        if (!(out << text).flush()) throw Failure{file.string() + ": " + Control::systemProblem(errno)};
    }

    void lacks(const std::string& what, const std::string& why) { missing_ += what + ": " + why + '\n'; }

    /// Null, and a line that says what is missing, where the daemon gives no answer; then it is asked no
    /// more, for each of the other questions might take as long.
    Value ask(const Value& what, const std::string& name) {
        patience_.check();
        if (!answers_) return {};
        try {
            return request_.ask(what);
        } catch (const Failure& failure) {
            answers_ = false;
            lacks(name + ", and what is asked for after it", failure.what());
            return {};
        }
    }
    void take(const Value& what, const std::string& name, const fs::path& file) {
        const Value answer = ask(what, name);
        if (answers_) write(file, Control::jsonLines(answer));
    }

    void takeRecords() {
        const Value list = ask(State::Object{{"op", "list"}}, "records");
        if (!answers_) return;
        write("records.json", Control::jsonLines(list));
        for (const auto& [path, about] : Show::membersOf(list)) {
            std::string name = path;
            std::ranges::replace(name, '/', '.');
            take(State::Object{{"op", "get"}, {"path", path}}, path, fs::path{"records"} / (name + ".json"));
        }
        // Wherever the daemon keeps it.
        take(State::Object{{"op", "history"}}, "history", "history.json");
    }

    /// Files of the service, as far as this user may read them, and what else the daemon reads.
    void takeFiles() {
        std::set<fs::path> places{"/etc/msrpd", "/etc/msrpd/msrpd.d", "/var/log/msrpd", "/var/lib/msrpd"};
        const Value unsaved = ask(State::Object{{"op", "unsaved"}}, "places of the configuration");
        for (const auto& [number, source] : Show::membersOf(Show::at(unsaved, {"sources"})))
            places.insert(Show::textOf(Show::at(source, {"path"})));
        for (const fs::path& place : places) {
            std::error_code error;
            if (fs::is_regular_file(place, error)) {
                takeFile(place);
            } else if (fs::exists(place, error) || error) {
                takeDirectory(place);
            }
        }
    }

    void takeDirectory(const fs::path& place) {
        std::error_code error;
        std::size_t count = 0;
        for (fs::directory_iterator entry{place, error}; !error && entry != fs::directory_iterator{};
             entry.increment(error)) {
            std::error_code unknown;
            const fs::file_status about = entry->symlink_status(unknown);
            if (fs::is_directory(about)) continue;
            if (++count > mostFiles) return lacks(place.string(), "more than 1000 files");
            // Whoever may write here may not choose which files of others are gathered.
            if (fs::is_symlink(about)) {
                lacks(entry->path().string(), "is a link");
            } else {
                takeFile(entry->path(), O_NOFOLLOW);
            }
        }
        if (error) lacks(place.string(), error.message());
    }

    /// The end of a long one.
    void takeFile(const fs::path& path, int flags = 0) {
        patience_.check();
        const Runtime::FileDescriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | flags)};
        struct stat about {};
        if (!file || ::fstat(file.get(), &about) != 0)
            return lacks(path.string(), Control::systemProblem(errno));
        if (!S_ISREG(about.st_mode)) return lacks(path.string(), "is no regular file");
        const auto size = static_cast<std::size_t>(about.st_size);
        const std::size_t most = std::min(mostOfOne, room_);
        if (size > most) lacks(path.string(), Runtime::concat("all but the last ", most, " octets"));
        std::string text(std::min(size, most), '\0');
        const auto from = static_cast<off_t>(size - text.size());
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t count =
                ::pread(file.get(), text.data() + done, text.size() - done, from + static_cast<off_t>(done));
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) lacks(path.string(), Control::systemProblem(errno));
            if (count <= 0) break;
            done += static_cast<std::size_t>(count);
        }
        text.resize(done);
        room_ -= done;
        write(fs::path{"files"} / path.relative_path(), text);
    }

    const fs::path place_;
    const SupportRequest& request_;
    const Patience& patience_;
    std::size_t room_ = mostOfFiles;
    bool answers_ = true;  ///< the daemon does
    std::string missing_;  ///< a line for each thing that could not be had
};

}  // namespace

void support(const SupportRequest& request) {
    // Its end is the last: a signal that came meanwhile ends the process there.
    const Patience patience;
    // Made first: what is gathered must not be lost for want of a place.
    Archive archive{request.file};
    const Folder folder;
    Collection{folder.path() / "msrpd", request, patience}.take();
    const std::string target = fs::absolute(request.file).string();
    Child tar{patience, {"tar", "-C", folder.path().c_str(), "-czf", target.c_str(), "msrpd"}};
    const std::string said = tar.said();
    if (tar.status() != 0) throw Failure{request.file + ": tar cannot make it: " + said};
    archive.done();
}
