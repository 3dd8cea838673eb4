#include "Plan/explore/Copies.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace Plan {

namespace {

/// Seconds of one answer.
constexpr unsigned longest = 900;

template <class T>
T* mapped() {
    void* at = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED) throw std::system_error{errno, std::generic_category(), "mmap"};
    return new (at) T{};
}

/// Nothing of the copy's own end runs: what it has open is ours.
template <class Body>
pid_t copyThat(Body&& body) {
    const pid_t child = fork();
    if (child < 0) throw std::system_error{errno, std::generic_category(), "fork"};
    if (child != 0) return child;
    try {
        body();
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "%s\n", error.what());
        _exit(2);
    }
    _exit(0);
}

/// How it ended; empty for well.
std::string endOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return Runtime::concat("it went on for more than ", longest, " s");
    if (WIFSIGNALED(status)) return Runtime::concat("the process ended by signal ", WTERMSIG(status));
    if (WEXITSTATUS(status) != 0) return Runtime::concat("the process ended with code ", WEXITSTATUS(status));
    return {};
}

}  // namespace

struct Copy::Page {
    std::size_t length = 0;
    std::array<char, 60'000> text{};
};

Copy::Copy() : page_{mapped<Page>()} {}
Copy::~Copy() { munmap(page_, sizeof(Page)); }

std::string Copy::answer(const std::function<std::string()>& body, bool& died) {
    page_->length = 0;
    const pid_t child = copyThat([&] {
        // An agent that never comes back is a fault, too.
        alarm(longest);
        const std::string text = body();
        page_->length = std::min(text.size(), page_->text.size());
        std::memcpy(page_->text.data(), text.data(), page_->length);
    });
    const std::string end = endOf(child);
    died = !end.empty();
    return died ? end : std::string{page_->text.data(), page_->length};
}

std::string together(unsigned copies, const std::function<std::string(unsigned, Shared&)>& body, bool& died) {
    Shared* const shared = mapped<Shared>();
    const std::unique_ptr<Shared, void (*)(Shared*)> unmapped{shared,
                                                              [](Shared* at) { munmap(at, sizeof(Shared)); }};
    died = false;
    if (copies == 1) return body(0, *shared);
    // Files without a name: nothing is left of them, whatever happens.
    struct Closer {
        void operator()(std::FILE* file) const { (void)std::fclose(file); }
    };
    std::vector<std::pair<pid_t, std::unique_ptr<std::FILE, Closer>>> all;
    for (unsigned i = 0; i < copies; ++i) {
        std::unique_ptr<std::FILE, Closer> file{std::tmpfile()};
        if (!file) throw std::system_error{errno, std::generic_category(), "a temporary file"};
        const pid_t child = copyThat([&] {
            const std::string text = body(i, *shared);
            if (std::fwrite(text.data(), 1, text.size(), file.get()) != text.size() ||
                std::fflush(file.get()) != 0)
                throw std::system_error{errno, std::generic_category(), "a temporary file"};
        });
        all.emplace_back(child, std::move(file));
    }
    std::string out;
    for (auto& [child, file] : all) {
        const std::string end = endOf(child);
        if (!end.empty()) {
            died = true;
            out = end;
        }
        if (died) continue;
        std::rewind(file.get());
        std::array<char, 65536> piece{};
        while (const std::size_t count = std::fread(piece.data(), 1, piece.size(), file.get()))
            out.append(piece.data(), count);
    }
    return out;
}

}  // namespace Plan
