/// What clients watch: for each path one look at its record, at a bounded rate, and one text for all who
/// watch it.
///
/// The first change after a quiet time is told in the next turn of the loop; those that follow are gathered.
#pragma once

#include "Control/RecordAccess.h"
#include "Control/RecordText.h"
#include "Runtime/Loop.h"
#include "State/ChangeFeed.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Control {

class Watches {
public:
    /// Between two tellings of a value whose text is one part, and of a longer one.
    static constexpr Runtime::Duration shortPause = std::chrono::milliseconds{100};
    static constexpr Runtime::Duration longPause = std::chrono::seconds{1};

    /// One path that somebody watches.
    class Topic {
    public:
        Topic(Watches& owner, std::string path, std::shared_ptr<const State::Entity> record);
        Topic(const Topic&) = delete;
        Topic& operator=(const Topic&) = delete;
        ~Topic();

        [[nodiscard]] const std::string& path() const { return path_; }
        /// Another one than before when there may be something to tell.
        [[nodiscard]] std::uint64_t version() const { return version_; }
        /// The beginning of the value's text, "null" when nothing stands there.  One that somebody else has
        /// begun for this version serves as well, unless it is to be `fresh`: what has changed since then
        /// makes another version.
        [[nodiscard]] std::shared_ptr<TextPart> text(bool fresh);

    private:
        struct Feed;
        void changed();
        void tell();

        Watches& owner_;
        const std::string path_;
        std::uint64_t version_ = 1;
        bool changed_ = false;  ///< since the version became what it is
        bool long_ = false;
        std::weak_ptr<TextPart> text_;
        Runtime::Time notBefore_{};
        Runtime::Timer timer_;
        std::shared_ptr<Feed> feed_;
        friend class Watches;
    };

    /// `notice` is called when a topic has another version.  All of it must outlive this, and this its
    /// topics.
    Watches(Runtime::Loop& loop, const RecordAccess& records, TextParts& parts, std::function<void()> notice)
        : loop_{loop}, records_{records}, parts_{parts}, notice_{std::move(notice)} {}

    /// Null, and why, when nothing can ever stand at that path.
    std::shared_ptr<Topic> topic(const std::string& path, std::string& problem);

private:
    Runtime::Loop& loop_;
    const RecordAccess& records_;
    TextParts& parts_;
    const std::function<void()> notice_;
    std::map<std::string, std::weak_ptr<Topic>> topics_;
    std::map<const State::Entity*, std::weak_ptr<Topic::Feed>> feeds_;
};

}  // namespace Control
