#include "Store/Members.h"

#include <memory>
#include <utility>

namespace Store {

namespace {

constexpr const char* membersAtATime = "1000";

struct Reading {
    Ask ask;
    std::string key;
    std::function<bool(const std::vector<Reply>&)> some;
    std::function<void(const Reply* problem)> done;
};

void readFrom(const std::shared_ptr<Reading>& reading, const std::string& cursor) {
    const Ask& ask = reading->ask;
    ask({"SSCAN", reading->key, cursor, "COUNT", membersAtATime}, [reading](const Reply& reply) {
        if (reply.kind != Reply::Kind::list || reply.list.size() != 2) return reading->done(&reply);
        if (!reading->some(reply.list[1].list)) return;
        if (reply.list[0].isText("0")) return reading->done(nullptr);
        readFrom(reading, reply.list[0].text);
    });
}

}  // namespace

void readMembers(const Ask& ask, const std::string& key, std::function<bool(const std::vector<Reply>&)> some,
                 std::function<void(const Reply* problem)> done) {
    readFrom(std::make_shared<Reading>(Reading{ask, key, std::move(some), std::move(done)}), "0");
}

}  // namespace Store
