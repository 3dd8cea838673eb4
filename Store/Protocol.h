/// The wire format of Redis (RESP 2); replies are read by hiredis' parser.
#pragma once

#include "Store/Reply.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct redisReader;

namespace Store {

/// One command as it is sent.
std::string commandText(const std::vector<std::string>& words);

/// Makes replies of octets, in whatever pieces these come.
class ReplyReader {
public:
    /// No reply may take more octets than `longest`.
    explicit ReplyReader(std::size_t longest);

    void feed(std::string_view octets);
    /// The next reply; nothing when it is not complete yet, or when there is a problem.
    std::optional<Reply> next();
    /// Empty, or one line on why no more can be read: what came is no reply, or too long.
    [[nodiscard]] const std::string& problem() const { return problem_; }

private:
    struct Free {
        void operator()(redisReader* reader) const;
    };

    const std::size_t longest_;
    std::unique_ptr<redisReader, Free> reader_;
    std::size_t unfinished_ = 0;  ///< octets since the last reply
    std::string problem_;
};

}  // namespace Store
