#include "programs/Save.h"

#include "Control/Json.h"
#include "Control/SystemProblem.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Text.h"
#include "Show/Snapshot.h"
#include "programs/ConfigChanges.h"
#include "programs/ConfigRecords.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

namespace fs = std::filesystem;
using Control::ConfigFile;
using State::Value;

/// An entry that one file takes away and the saved one makes anew needs a second look; nothing needs more.
constexpr int roundsMost = 3;

/// Whoever may read the old one may read the new one; of a first one, the daemon, whoever that is.
bool giveTo(int fd, const struct stat* before) {
    if (before == nullptr) return ::fchmod(fd, 0644) == 0;
    if (::fchown(fd, before->st_uid, before->st_gid) != 0) {
        // Not everybody may give files away; its group is what others read it by.
        const bool matters = (before->st_mode & S_IRWXG) != 0;
        if (errno != EPERM || (::fchown(fd, static_cast<uid_t>(-1), before->st_gid) != 0 && matters))
            return false;
    }
    return ::fchmod(fd, before->st_mode & 07777) == 0;
}

/// Makes the directory where only that is missing, for everybody to read; else the next step tells.
void makeDirectory(const fs::path& directory) {
    std::error_code error;
    if (fs::create_directory(directory, error))
        fs::permissions(directory, static_cast<fs::perms>(0755), error);
}

/// Writes all of `text` into a new file beside `file`, and then puts that in its place.
std::string replaceFile(const std::string& file, const std::string& text) {
    const fs::path place{file};
    makeDirectory(place.parent_path());
    const std::string fresh =
        (place.parent_path() / Runtime::concat('.', place.filename().string(), '.', ::getpid())).string();
    const auto failed = [&](const std::string& what) {
        std::string problem = what + ": " + Control::systemProblem(errno);
        ::unlink(fresh.c_str());
        return problem;
    };
    const Runtime::FileDescriptor fd{
        ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)};
    if (!fd) return fresh + ": " + Control::systemProblem(errno);
    struct stat before {};
    const bool replaced = ::stat(file.c_str(), &before) == 0;
    if (!giveTo(fd.get(), replaced ? &before : nullptr)) return failed(fresh);
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(fd.get(), text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return failed(fresh);
        done += static_cast<std::size_t>(count);
    }
    if (::fsync(fd.get()) != 0) return failed(fresh);
    if (::rename(fresh.c_str(), file.c_str()) != 0) return failed(file);
    const Runtime::FileDescriptor directory{
        ::open(place.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (directory) ::fsync(directory.get());
    return {};
}

/// The files as they are read, and which of them is written.
struct Files {
    std::vector<ConfigFile> all;
    std::size_t saved = 0;
    bool isRead = false;  ///< the daemon does so
};

std::string readOne(const std::string& name, Files& files) {
    std::error_code error;
    files.all.push_back({name, Value{State::Object{}}, 0});
    return fs::exists(name, error) ? Control::readConfig(name, Control::ConfigReading::once, files.all.back())
                                   : std::string{};
}

std::string readAll(const Value& sources, const std::string& file, Files& files) {
    for (const auto& [number, source] : Show::membersOf(sources)) {
        const std::string path = Show::textOf(Show::at(source, {"path"}));
        std::vector<std::string> names;
        std::string problem =
            Control::listConfig({{path, Show::isTrue(Show::at(source, {"mayLack"}))}}, names);
        if (Control::realPath(path) == fs::path{file}.parent_path() &&
            fs::path{file}.extension() == ".json") {
            // Where it will be found once it is there.
            const std::string name = (fs::path{path} / fs::path{file}.filename()).string();
            const auto at = std::ranges::lower_bound(names, name);
            if (at == names.end() || *at != name) names.insert(at, name);
        }
        for (const std::string& name : names) {
            if (Control::realPath(name) == file) {
                files.saved = files.all.size();
                files.isRead = true;
            }
            if (problem.empty()) problem = readOne(name, files);
        }
        if (!problem.empty()) return problem;
    }
    if (files.isRead) return {};
    files.saved = files.all.size();
    return readOne(file, files);
}

/// Whether it is there and has more to lose than values.
bool hasComments(const std::string& file) {
    std::ifstream in{file, std::ios::binary};
    const std::string text{std::istreambuf_iterator<char>{in}, {}};
    return in && Control::parseJson(text).problem;
}

/// Whether it is lost before any later file is read.
bool contradictsItself(const Files& files, const ConfigRecords& wanted, const State::Difference& lost) {
    ConfigRecords loaded;
    (void)loaded.take({files.all.begin(), files.all.begin() + static_cast<std::ptrdiff_t>(files.saved) + 1});
    return std::ranges::any_of(differences(loaded, wanted),
                               [&](const auto& field) { return field.where == lost.where; });
}

/// Makes the file that is saved say what is wanted, whatever the others say.
std::string complete(Files& files, const ConfigRecords& wanted) {
    ConfigFile& saved = files.all[files.saved];
    for (int round = 1;; ++round) {
        ConfigRecords loaded;
        if (std::string problem = loaded.take(files.all); !problem.empty()) return problem;
        const std::vector<State::Difference> missing = differences(loaded, wanted);
        if (missing.empty()) return {};
        if (round == roundsMost) {
            const State::Difference& lost = missing.front();
            return saved.name + ": " + lost.path() + ": " +
                   (contradictsItself(files, wanted, lost) ? "this file says it twice, like \"2\" and \"002\""
                                                           : "a file that comes later says otherwise");
        }
        for (const State::Difference& field : missing) State::put(saved.content, field.where, field.is);
    }
}

}  // namespace

std::string SaveResult::text() const {
    if (fields.empty()) return "nothing to save\n";
    std::string text = changesText(changesValue(fields)) + "saved to " + file + '\n';
    if (!isRead) text += "the daemon does not read that file\n";
    return text;
}

Value SaveResult::value() const {
    return State::Object{{"file", file}, {"isRead", isRead}, {"fields", changesValue(fields)}};
}

SaveResult save(const Value& unsaved, std::string file) {
    SaveResult result;
    if (file.empty()) file = Show::textOf(Show::at(unsaved, {"file"}));
    if (file.empty()) {
        result.problem = "the daemon reads no directory of files: say which file to save to";
        return result;
    }
    result.file = file = Control::realPath(file);
    Files files;
    ConfigRecords before;
    ConfigRecords wanted;
    std::string& problem = result.problem;
    problem = readAll(Show::at(unsaved, {"sources"}), file, files);
    if (problem.empty()) problem = before.take(files.all);
    if (problem.empty()) problem = wanted.take(files.all);
    if (problem.empty()) problem = wanted.take(Value{Show::membersOf(Show::at(unsaved, {"patch"}))});
    if (problem.empty()) problem = complete(files, wanted);
    if (!problem.empty()) return result;
    result.isRead = files.isRead;
    result.fields = differences(before, wanted);
    if (result.fields.empty()) return result;
    if (hasComments(file)) {
        problem = file + ": has comments, which would be lost: save to another file";
        return result;
    }
    problem = replaceFile(file, Control::jsonLines(files.all[files.saved].content) + '\n');
    return result;
}
