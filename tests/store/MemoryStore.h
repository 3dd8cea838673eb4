/// What a server would have of batches, without one: fields by keys, each question answered at once.
#pragma once

#include "Store/Reply.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

class MemoryStore {
public:
    void take(const std::vector<std::string>& words) {
        for (std::size_t i = 0; i + 2 < words.size();) {
            const std::size_t count = std::stoul(words[i + 2]);
            auto& record = records[words[i + 1]];
            for (std::size_t n = i + 3; words[i] == "set" && n + 1 < i + 3 + count; n += 2)
                record[words[n]] = words[n + 1];
            i += 3 + count;
        }
    }
    [[nodiscard]] Store::Reply answer(const std::vector<std::string>& words) const {
        using Kind = Store::Reply::Kind;
        const auto text = [](const std::string& value) { return Store::Reply{Kind::text, value, 0, {}}; };
        Store::Reply reply{Kind::list, {}, 0, {}};
        if (words[0] == "HMGET") {
            reply.list = {text("1"), text("0"), text("1")};
        } else if (words[0] == "SSCAN") {
            reply.list = {text("0"), {Kind::list, {}, 0, {}}};
            for (const auto& record : records) reply.list[1].list.push_back(text(record.first));
        } else if (words[0] == "SISMEMBER") {
            return {Kind::number, {}, 1, {}};
        } else {
            const auto record = records.find(words[1].substr(words[1].find("record:") + 7));
            for (const auto& [field, value] : record->second) {
                reply.list.push_back(text(field));
                reply.list.push_back(text(value));
            }
        }
        return reply;
    }

    std::map<std::string, std::map<std::string, std::string>> records;
};
