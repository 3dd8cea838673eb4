/// Threads that share pieces of work which have nothing to do with each other.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

namespace Plan {

class Workers {
public:
    /// Who calls `each` is one of them; 1: there are no others.
    explicit Workers(unsigned threads);
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers();

    /// Does `work` for every number below `count`, each once, and returns when all are done.
    void each(std::size_t count, const std::function<void(std::size_t)>& work);

private:
    void serve();
    void takeAll();

    const std::function<void(std::size_t)>* work_ = nullptr;
    std::size_t count_ = 0;
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> busy_{0};     ///< threads that have not come back from this round
    std::atomic<std::uint64_t> round_{0};  ///< grows with each call
    std::atomic<bool> ends_{false};
    std::vector<std::thread> threads_;
};

}  // namespace Plan
