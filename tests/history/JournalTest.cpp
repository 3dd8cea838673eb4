/// The journal's room: who loses what, and what of its file is believed.
#include "Runtime/VirtualLoop.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/history/Told.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace History {
namespace {

constexpr std::size_t octets = 64 * slotOctets;  // 63 events

Event linkEvent(const std::string& port, const std::string& after) {
    Event event;
    event.kind = Kind::port;
    event.intf = IntfId{port};
    event.field = "link";
    event.after = after;
    return event;
}

/// The numbers that are there, "1-3 7", and the next one.
std::string numbers(const Journal& journal) {
    std::string out;
    std::uint64_t from = 0;
    std::uint64_t last = 0;
    const auto flush = [&] {
        if (from != 0) out += std::to_string(from) + (last > from ? "-" + std::to_string(last) : "") + ' ';
    };
    while (const auto found = journal.find({}, last)) {
        if (found->event.sequence != last + 1 || from == 0) {
            flush();
            from = found->event.sequence;
        }
        last = found->event.sequence;
    }
    flush();
    return out + "next " + std::to_string(journal.next());
}

TEST(Journal, AFlappingPortPushesOutOnlyItsOwn) {
    Runtime::VirtualLoop loop;
    Journal journal;
    ASSERT_EQ(journal.begin(loop, octets), "");
    for (int i = 0; i < 10; ++i) journal.add(linkEvent("quiet" + std::to_string(i % 2), "up"));
    for (int i = 0; i < 100'000; ++i) journal.add(linkEvent("flapping", "down"));
    EXPECT_EQ(numbers(journal), "1-10 99958-100010 next 100011");
    // Another one that never rests gets as much; the quiet ones still have theirs.
    for (int i = 0; i < 100'000; ++i) {
        journal.add(linkEvent("flapping", "down"));
        journal.add(linkEvent("too", "down"));
    }
    EXPECT_EQ(numbers(journal), "1-10 299958-300010 next 300011");
    EXPECT_EQ(told(journal, {.port = "quiet1", .last = 2}),
              "port quiet1 - link:  -> up\nport quiet1 - link:  -> up\n");
}

TEST(Journal, KeepsOfLongTextsWhatThereIsRoomFor) {
    Runtime::VirtualLoop loop;
    Journal journal;
    ASSERT_EQ(journal.begin(loop, octets), "");
    Event event;
    event.kind = Kind::config;
    event.text = "msrp/cliConfig";
    event.field = "name";
    event.before = std::string(300, 'b');
    for (int i = 0; i < 200; ++i) event.after += "ä";
    event.by = "uid 0";
    journal.add(event);
    const Event kept = journal.find({}, 0)->event;
    EXPECT_EQ(kept.text + ' ' + kept.field + ' ' + kept.by, "msrp/cliConfig name uid 0");
    EXPECT_EQ(kept.before, std::string(68, 'b'));
    EXPECT_EQ(kept.after.size(), 68U);
}

/// One life of a daemon, with so many events.
std::string live(const std::string& directory, int events, std::size_t size = octets,
                 std::string* problem = nullptr) {
    Runtime::VirtualLoop loop;
    Journal journal;
    const std::string why = journal.begin(loop, size, directory);
    if (problem != nullptr) *problem = why;
    for (int i = 0; i < events; ++i) journal.add(linkEvent("swp1", "up"));
    return numbers(journal);
}

TEST(Journal, OfItsFileOnlyWhatIsWholeIsBelievedAndNothingOfOthersIsTouched) {
    struct Case {
        const char* name;
        std::function<void(const std::string& file)> damage;
        std::string problem;  ///< a part of it; empty: none
        std::string after;    ///< numbers, after one more event
        std::string files;    ///< in the directory
    };
    const auto overwrite = [](std::size_t at, const std::string& text) {
        return [at, text](const std::string& file) {
            std::fstream{file, std::ios::in | std::ios::out | std::ios::binary}.seekp(
                static_cast<std::streamoff>(at))
                << text;
        };
    };
    const std::string far(8, '\x7f');
    for (const Case& c : std::vector<Case>{
             {"whole", [](const auto&) {}, "", "1-6 next 7", "history"},
             {"torn slot", overwrite(3 * slotOctets + 40, "?"), "", "1-2 4-6 next 7", "history"},
             {"number far off", overwrite(8, far), "", "1-6 next 7", "history"},
             {"number gone", overwrite(8, std::string(8, '\0')), "", "1-6 next 7", "history"},
             {"before a loss of power", overwrite(16, "0"), "", "1-5 4294967302 next 4294967303", "history"},
             {"torn end", [](const auto& file) { std::filesystem::resize_file(file, 4 * slotOctets + 9); },
              "", "1-3 6 next 7", "history"},
             {"empty", [](const auto& file) { std::filesystem::resize_file(file, 0); }, "", "1 next 2",
              "history history.aside"},
             {"another version", overwrite(0, "MSRPHIS9"), "", "1 next 2", "history history.aside"},
             {"another version, and one aside already",
              [&](const auto& file) {
                  overwrite(0, "MSRPHIS9")(file);
                  std::ofstream{file + ".aside"} << "older";
              },
              "it is no history, and cannot be put aside", "1 next 2", "history history.aside"},
             {"a link",
              [](const auto& file) {
                  std::filesystem::rename(file, file + "2");
                  std::filesystem::create_symlink(file + "2", file);
              },
              "it is no plain file", "1 next 2", "history history2"},
             {"two names", [](const auto& file) { std::filesystem::create_hard_link(file, file + "2"); },
              "it is no plain file", "1 next 2", "history history2"},
             {"a folder",
              [](const auto& file) {
                  std::filesystem::remove(file);
                  std::filesystem::create_directory(file);
              },
              "history: ", "1 next 2", "history"},
             {"others may write", [](const auto& file) { ::chmod(file.c_str(), 0666); },
              "others may write it", "1 next 2", "history"},
             {"somebody else's", [](const auto& file) { ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0); },
              "it is somebody else's", "1 next 2", "history"},
         }) {
        SCOPED_TRACE(c.name);
        if (std::string{c.name} == "somebody else's" && ::geteuid() != 0) continue;
        const TemporaryDirectory directory;
        const std::string file = directory.file("history");
        ASSERT_EQ(live(directory.file(""), 5), "1-5 next 6");
        c.damage(file);
        std::string problem;
        EXPECT_EQ(live(directory.file(""), 1, octets, &problem), c.after);
        EXPECT_EQ(problem.empty(), c.problem.empty()) << problem;
        EXPECT_NE(problem.find(c.problem), std::string::npos) << problem;
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator{directory.file("")})
            names.insert(entry.path().filename());
        std::string all;
        for (const std::string& name : names) all += (all.empty() ? "" : " ") + name;
        EXPECT_EQ(all, c.files);
    }
}

TEST(Journal, NumbersThatNobodyHadAreNotMissing) {
    const TemporaryDirectory directory;
    ASSERT_EQ(live(directory.file(""), 5), "1-5 next 6");
    std::fstream{directory.file("history"), std::ios::in | std::ios::out | std::ios::binary}.seekp(16) << "0";
    Runtime::VirtualLoop loop;
    Journal journal;
    ASSERT_EQ(journal.begin(loop, octets, directory.file("")), "");
    journal.add(linkEvent("swp2", "up"));
    EXPECT_EQ(journal.find({.port = "swp2"}, 0)->missing, 0U);
    EXPECT_EQ(journal.find({}, 5)->missing, 0U);
}

TEST(Journal, AnotherSizeKeepsTheNewestAndARunningProcessKeepsItsFile) {
    const TemporaryDirectory directory;
    live(directory.file(""), 100);
    EXPECT_EQ(live(directory.file(""), 0, 32 * slotOctets), "70-100 next 101");
    EXPECT_EQ(live(directory.file(""), 1, 2 * octets), "70-101 next 102");
    Runtime::VirtualLoop loop;
    Journal running;
    ASSERT_EQ(running.begin(loop, octets, directory.file("")), "");
    std::string problem;
    EXPECT_EQ(live(directory.file(""), 1, octets, &problem), "1 next 2");
    EXPECT_NE(problem.find("another process has it"), std::string::npos) << problem;
    running.add(linkEvent("swp1", "down"));
    EXPECT_EQ(numbers(running), "70-102 next 103");
    ::chmod(directory.file("").c_str(), 0777);
    live(directory.file(""), 0, octets, &problem);
    EXPECT_NE(problem.find("others may write in its directory"), std::string::npos) << problem;
}

TEST(Journal, AFileThatIsCutShortOrCannotBeWrittenCostsNoEvents) {
    const TemporaryDirectory directory;
    Runtime::VirtualLoop loop;
    Journal journal;
    ASSERT_EQ(journal.begin(loop, octets, directory.file("")), "");
    std::filesystem::resize_file(directory.file("history"), 0);
    journal.add(linkEvent("swp1", "up"));
    EXPECT_EQ(numbers(journal), "1 next 2");
    // As on a full disk.
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit none{0, before.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &none);
    journal.add(linkEvent("swp1", "down"));
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(numbers(journal), "1-3 next 4");
    EXPECT_EQ(journal.newest(Kind::daemon)->text,
              "history is kept in memory only: " + directory.file("") + "/history: File too large");
}

}  // namespace
}  // namespace History
