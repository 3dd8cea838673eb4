#include "Plan/Workers.h"

namespace Plan {

namespace {

/// Rounds follow one another within microseconds, and to sleep and be woken takes longer than most of them.
constexpr int looks = 2000;

template <class T>
void waitWhile(const std::atomic<T>& at, T value) {
    for (int i = 0; i < looks; ++i) {
        if (at.load(std::memory_order_acquire) != value) return;
    }
    at.wait(value, std::memory_order_acquire);
}

}  // namespace

Workers::Workers(unsigned threads) {
    for (unsigned i = 1; i < threads; ++i) threads_.emplace_back([this] { serve(); });
}

Workers::~Workers() {
    ends_ = true;
    ++round_;
    round_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void Workers::takeAll() {
    for (std::size_t i = next_++; i < count_; i = next_++) (*work_)(i);
}

void Workers::serve() {
    std::uint64_t seen = 0;
    for (;;) {
        waitWhile(round_, seen);
        seen = round_.load(std::memory_order_acquire);
        if (ends_) return;
        takeAll();
        if (--busy_ == 0) busy_.notify_one();
    }
}

void Workers::each(std::size_t count, const std::function<void(std::size_t)>& work) {
    if (threads_.empty() || count < 2) {
        for (std::size_t i = 0; i < count; ++i) work(i);
        return;
    }
    work_ = &work;
    count_ = count;
    next_ = 0;
    busy_ = threads_.size();
    round_.fetch_add(1, std::memory_order_release);
    round_.notify_all();
    takeAll();
    for (std::size_t left = busy_; left != 0; left = busy_) waitWhile(busy_, left);
}

}  // namespace Plan
