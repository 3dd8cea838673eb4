#include "Control/Watches.h"

#include <algorithm>
#include <utility>

namespace Control {

/// What all topics of one record hear: a record with thousands of changes in a turn must not call every one
/// of them for each.
struct Watches::Topic::Feed {
    Feed(Watches& owner, std::shared_ptr<const State::Entity> entity)
        : watches{owner},
          record{std::move(entity)},
          changes{*record, [&owner](std::function<void()> task) { owner.loop_.post(std::move(task)); },
                  [this] {
                      for (Topic* topic : topics) topic->changed();
                  }} {}
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;
    ~Feed() { watches.feeds_.erase(record.get()); }

    Watches& watches;
    const std::shared_ptr<const State::Entity> record;
    std::vector<Topic*> topics;
    State::ChangeFeed changes;
};

Watches::Topic::Topic(Watches& owner, std::string path, std::shared_ptr<const State::Entity> record)
    : owner_{owner}, path_{std::move(path)}, timer_{owner.loop_, [this] { tell(); }} {
    std::weak_ptr<Feed>& held = owner_.feeds_[record.get()];
    feed_ = held.lock();
    if (!feed_) held = feed_ = std::make_shared<Feed>(owner_, std::move(record));
    feed_->topics.push_back(this);
}

Watches::Topic::~Topic() {
    std::erase(feed_->topics, this);
    owner_.topics_.erase(path_);
}

void Watches::Topic::changed() {
    changed_ = true;
    if (!timer_.armed()) timer_.armAt(std::max(notBefore_, owner_.loop_.now()));
}

void Watches::Topic::tell() {
    changed_ = false;
    ++version_;
    text_.reset();
    notBefore_ = owner_.loop_.now() + (long_ ? longPause : shortPause);
    owner_.notice_();
}

std::shared_ptr<TextPart> Watches::Topic::text(bool fresh) {
    auto text = fresh && changed_ ? nullptr : text_.lock();
    if (!text) {
        std::string problem;
        auto walk = owner_.records_.read(path_, problem);
        // A record that has gone stays without a value.
        text = walk ? owner_.parts_.first(RecordText{std::move(*walk)})
                    : std::make_shared<TextPart>(TextPart{"null", true, RecordText{}});
        text_ = text;
        long_ = !text->last;
    }
    return text;
}

std::shared_ptr<Watches::Topic> Watches::topic(const std::string& path, std::string& problem) {
    // A topic takes itself out when it ends.
    if (const auto held = topics_.find(path); held != topics_.end()) return held->second.lock();
    auto record = records_.watchable(path, problem);
    if (!record) return nullptr;
    auto topic = std::make_shared<Topic>(*this, path, std::move(record));
    topics_.emplace(path, topic);
    return topic;
}

}  // namespace Control
