#include "Store/Address.h"
#include "Store/Protocol.h"
#include "Store/Reply.h"

#include <algorithm>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

TEST(Address, TakesWhatNeedsNoLookingUp) {
    const std::string forms = "neither ADDRESS:PORT, like 127.0.0.1:6379 or [::1]:6379, nor unix:/PATH";
    const std::string named = "is no address in figures, and names are not looked up";
    const std::string port = "the port is no number from 1 to 65535";
    const std::string path = "a path of 2 to 107 octets that begins with / is needed after unix:";
    const struct {
        std::string text, becomes, problem;
    } table[] = {
        {"127.0.0.1:6379", "127.0.0.1:6379", ""},
        {"localhost:1", "127.0.0.1:1", ""},
        {"[::1]:65535", "[::1]:65535", ""},
        {"unix:/run/redis.sock", "unix:/run/redis.sock", ""},
        {"redis.example:6379", "", "address \"redis.example:6379\": \"redis.example\" " + named},
        {"1.2.3:6379", "", "address \"1.2.3:6379\": \"1.2.3\" " + named},
        {"[fe80::zz]:1", "", "address \"[fe80::zz]:1\": \"fe80::zz\" " + named},
        {"[1.2.3.4]:1", "", "address \"[1.2.3.4]:1\": " + forms},
        {"::1:6379", "", "address \"::1:6379\": " + forms},
        {"127.0.0.1", "", "address \"127.0.0.1\": " + forms},
        {":1", "", "address \":1\": " + forms},
        {"a\n" + std::string(300, 'b'), "", "address \"a?" + std::string(198, 'b') + "...\": " + forms},
        {"127.0.0.1:0", "", "address \"127.0.0.1:0\": " + port},
        {"127.0.0.1:65536", "", "address \"127.0.0.1:65536\": " + port},
        {"127.0.0.1:1x", "", "address \"127.0.0.1:1x\": " + port},
        {"127.0.0.1:", "", "address \"127.0.0.1:\": " + port},
        {"unix:redis.sock", "", "address \"unix:redis.sock\": " + path},
        {"unix:/" + std::string(107, 'x'), "", "address \"unix:/" + std::string(107, 'x') + "\": " + path},
    };
    for (const auto& [text, becomes, expected] : table) {
        std::string problem;
        const auto address = Store::Address::parse(text, problem);
        EXPECT_EQ(address ? address->text() : "", becomes);
        EXPECT_EQ(problem, expected);
    }
}

TEST(Reply, IsTemporaryByItsFirstWord) {
    using Kind = Store::Reply::Kind;
    for (const char* passes :
         {"LOADING Redis is loading", "READONLY You can't", "MASTERDOWN", "BUSY Redis is busy"})
        EXPECT_TRUE(Store::temporary({.kind = Kind::error, .text = passes})) << passes;
    for (const char* stays : {"ERR LOADING", "NOAUTH Authentication required.", "LOADINGS", "READ", ""})
        EXPECT_FALSE(Store::temporary({.kind = Kind::error, .text = stays})) << stays;
    EXPECT_FALSE(Store::temporary({.kind = Kind::text, .text = "LOADING"}));
}

/// What a reader makes of octets that come in pieces of `piece`; the last is the problem, if there is one.
std::vector<std::string> readIn(std::size_t piece, std::string_view octets) {
    struct {
        std::string operator()(const Store::Reply& reply) const {
            if (reply.kind == Store::Reply::Kind::error) return '!' + reply.text;
            if (reply.kind != Store::Reply::Kind::list) return inOneLine(reply);
            std::string text = "[";
            for (const auto& item : reply.list) text += (*this)(item) + ' ';
            return text + ']';
        }
    } const shown;
    Store::ReplyReader reader{64};
    std::vector<std::string> out;
    for (; !octets.empty(); octets.remove_prefix(std::min(piece, octets.size()))) {
        reader.feed(octets.substr(0, piece));
        while (const auto reply = reader.next()) out.push_back(shown(*reply));
    }
    if (!reader.problem().empty()) out.push_back(reader.problem());
    return out;
}

TEST(ReplyReader, BelievesNoLength) {
    const std::string odd = "no answer of a Redis server: ";
    const std::string tooLong = "an answer of more than 64 octets";
    const struct {
        std::string octets;
        std::vector<std::string> replies;
    } table[] = {
        {"+OK\r\n:-7\r\n$3\r\na\nb\r\n$-1\r\n-ERR no\r\n", {"OK", "-7", "a?b", "nothing", "!ERR no"}},
        {"*3\r\n*2\r\n:1\r\n*0\r\n*-1\r\n*1\r\n+x\r\n*0\r\n", {"[[1 [] ] nothing [x ] ]", "[]"}},
        {"*2147483647\r\n+a\r\n", {}},
        {"*2\r\n*2147483647\r\n*2147483647\r\n:1\r\n", {}},
        {"*2\r\n:1\r\nnonsense\r\n", {odd + "Protocol error, got \"n\" as reply type byte"}},
        {"*9223372036854775807\r\n", {odd + "Multi-bulk length out of range"}},
        {"*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n",
         {odd + "No support for nested multi bulk replies with depth > 7"}},
        {"+OK\r\n$9000000000000000000\r\n" + std::string(64, 'x'), {"OK", tooLong}},
        {"+" + std::string(60, 'x') + "\r\n+" + std::string(62, 'x') + "\r\n",
         {std::string(60, 'x'), tooLong}},
        {"*-1\r\n*100\r\n:1\r\n:2\r\n" + std::string(64, '+'), {"nothing", tooLong}},
    };
    for (const std::size_t piece : {1U, 7U, 1000U})
        for (const auto& [octets, replies] : table) EXPECT_EQ(readIn(piece, octets), replies) << octets;
}

}  // namespace
