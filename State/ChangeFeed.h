/// What a watcher outside the process hears of a record: one notice per turn of the loop, however often the
/// record and the records below it changed in that turn.
#pragma once

#include "State/Entity.h"

#include <functional>
#include <memory>
#include <utility>

namespace State {

class ChangeFeed {
public:
    /// Runs the given task once, later in the same turn of the loop or in the next one.
    using Defer = std::function<void(std::function<void()>)>;

    /// `notice` runs through `defer`, never inline; it should read the record anew.
    ChangeFeed(const Entity& entity, Defer defer, std::function<void()> notice)
        : pending_{std::make_shared<bool>(false)},
          defer_{std::move(defer)},
          notice_{std::move(notice)},
          reactor_{entity.watch([this](const Change&) { mark(); })} {}
    ChangeFeed(const ChangeFeed&) = delete;
    ChangeFeed& operator=(const ChangeFeed&) = delete;

private:
    void mark() {
        if (*pending_) return;  // a notice is on its way
        *pending_ = true;
        defer_([this, weak = std::weak_ptr<bool>{pending_}] {
            const auto pending = weak.lock();
            if (!pending) return;  // the feed has ended
            *pending = false;
            notice_();
        });
    }
    std::shared_ptr<bool> pending_;  ///< lives as long as the feed
    Defer defer_;
    std::function<void()> notice_;
    Reactor reactor_;
};

}  // namespace State
