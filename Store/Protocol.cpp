#include "Store/Protocol.h"

#include "Runtime/Assert.h"
#include "Runtime/Text.h"

#include <hiredis/hiredis.h>
#include <hiredis/read.h>
#include <utility>

namespace Store {

namespace {

/// Where the parser's next value goes.  The parser keeps what it gets here as the parents of later values,
/// and that is good for as long as it does: a list grows only when the lists within its last item are
/// complete.
Reply* placeOf(const redisReadTask* task) {
    if (task->parent == nullptr) return new Reply;
    return &static_cast<Reply*>(task->parent->obj)->list.emplace_back();
}

void* makeText(const redisReadTask* task, char* text, std::size_t length) {
    Reply* const reply = placeOf(task);
    reply->kind = task->type == REDIS_REPLY_ERROR ? Reply::Kind::error : Reply::Kind::text;
    reply->text.assign(text, length);
    return reply;
}

/// The list grows by what really comes: the length that is announced may be anything.
void* makeList(const redisReadTask* task, int) {
    Reply* const reply = placeOf(task);
    reply->kind = Reply::Kind::list;
    return reply;
}

void* makeNumber(const redisReadTask* task, long long number) {
    Reply* const reply = placeOf(task);
    reply->kind = Reply::Kind::number;
    reply->number = number;
    return reply;
}

void* makeNothing(const redisReadTask* task) { return placeOf(task); }

/// The parser gives back only what has no parent.
void freeReply(void* reply) { delete static_cast<Reply*>(reply); }

redisReplyObjectFunctions makers{makeText, makeList, makeNumber, makeNothing, freeReply};

}  // namespace

std::string commandText(const std::vector<std::string>& words) {
    std::size_t octets = 16;
    for (const std::string& word : words) octets += word.size() + 16;
    std::string text;
    text.reserve(octets);
    const auto announce = [&text](char kind, std::size_t count) {
        text += kind;
        text += std::to_string(count);
        text += "\r\n";
    };
    announce('*', words.size());
    for (const std::string& word : words) {
        announce('$', word.size());
        text += word;
        text += "\r\n";
    }
    return text;
}

void ReplyReader::Free::operator()(redisReader* reader) const { redisReaderFree(reader); }

ReplyReader::ReplyReader(std::size_t longest)
    : longest_{longest}, reader_{redisReaderCreateWithFunctions(&makers)} {
    Runtime::require(reader_ != nullptr, "memory for a parser");
}

void ReplyReader::feed(std::string_view octets) {
    unfinished_ += octets.size();
    redisReaderFeed(reader_.get(), octets.data(), octets.size());
}

std::optional<Reply> ReplyReader::next() {
    if (!problem_.empty()) return std::nullopt;
    void* made = nullptr;
    if (redisReaderGetReply(reader_.get(), &made) != REDIS_OK) {
        problem_ = Runtime::concat("no answer of a Redis server: ", inOneLine(reader_->errstr));
        return std::nullopt;
    }
    const std::unique_ptr<Reply> reply{static_cast<Reply*>(made)};
    const std::size_t rest = reader_->len - reader_->pos;
    const std::size_t length = reply ? unfinished_ - rest : unfinished_;
    if (length > longest_) {
        problem_ = Runtime::concat("an answer of more than ", longest_, " octets");
        return std::nullopt;
    }
    if (!reply) return std::nullopt;
    unfinished_ = rest;
    return std::move(*reply);
}

}  // namespace Store
