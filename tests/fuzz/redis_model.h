//  A second implementation of the parser of one Redis answer, which works recursively on the whole text
//  (https://redis.io/docs/reference/protocol-spec, RESP2). It returns no result for incomplete and malformed answers,
//  types of later versions, numbers of ten digits or more and deeply nested arrays, because parsers may differ there.
#ifndef FUZZ_REDIS_MODEL_H
#define FUZZ_REDIS_MODEL_H

#include "redis/reply.h"

#include <algorithm>
#include <optional>

class RedisModel {
public:
    using Reply = rdbopen::RedisReply;

    explicit RedisModel(const std::string& text) : text_(text) {}

    //  Returns the answer at the start of the text, or nothing for the answers listed above.
    std::optional<Reply> read(int depth = 0) {
        const std::size_t end = text_.find("\r\n", at_);
        if (end == std::string::npos || end == at_ || depth > maxDepth)
            return std::nullopt;
        const char type = text_[at_];
        const std::string line = text_.substr(at_ + 1, end - at_ - 1);
        at_ = end + 2;
        if (type == '+' || type == '-')
            return simple(type == '+' ? Reply::Kind::status : Reply::Kind::error, line);
        const std::optional<long long> number = decimal(line);
        if (!number)
            return std::nullopt;
        if (type == ':') {
            Reply reply;
            reply.kind = Reply::Kind::integer;
            reply.integer = *number;
            return reply;
        }
        return type == '$' ? bulk(*number) : type == '*' ? array(*number, depth) : std::nullopt;
    }

    static bool same(const Reply& one, const Reply& other) {
        return one.kind == other.kind && one.integer == other.integer && one.text == other.text &&
               std::equal(one.elements.begin(), one.elements.end(), other.elements.begin(), other.elements.end(), same);
    }

private:
    static constexpr int maxDepth = 6;

    //  A line that contains a carriage return or a line feed is malformed.
    static std::optional<Reply> simple(Reply::Kind kind, const std::string& line) {
        if (line.find_first_of("\r\n") != std::string::npos)
            return std::nullopt;
        Reply reply;
        reply.kind = kind;
        reply.text = line;
        return reply;
    }

    //  At most nine digits, without a leading zero. A number other than 0 may be negative.
    static std::optional<long long> decimal(const std::string& line) {
        const std::string digits = line.substr(line.starts_with('-') ? 1 : 0);
        const bool good = !digits.empty() && digits.size() < 10 && (digits == line || digits[0] != '0') &&
                          (digits.size() == 1 || digits[0] != '0') &&
                          digits.find_first_not_of("0123456789") == std::string::npos;
        return good ? std::optional(std::stoll(line)) : std::nullopt;
    }

    std::optional<Reply> bulk(long long length) {
        Reply reply;
        if (length == -1)
            return reply;
        const auto size = static_cast<std::size_t>(length);
        if (length < 0 || size > text_.size() || text_.size() - size < at_ + 2 || text_.substr(at_ + size, 2) != "\r\n")
            return std::nullopt;
        reply.kind = Reply::Kind::text;
        reply.text = text_.substr(at_, size);
        at_ += size + 2;
        return reply;
    }

    std::optional<Reply> array(long long count, int depth) {
        Reply reply;
        if (count == -1)
            return reply;
        reply.kind = Reply::Kind::array;
        for (; count > 0; --count) {
            std::optional<Reply> element = read(depth + 1);
            if (!element)
                return std::nullopt;
            reply.elements.push_back(std::move(*element));
        }
        return count == 0 ? std::optional(std::move(reply)) : std::nullopt;
    }

    const std::string& text_;
    std::size_t at_ = 0;
};

#endif
