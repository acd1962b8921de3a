#include "redis/reply.h"

#include <new>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

//  The reader of libhiredis calls these functions from C, so they must not throw. For the reader, the result null means
//  that memory is exhausted.
//  The reader frees only the root reply. This frees every other reply, too, as an element of its parent.
RedisReply* place(const redisReadTask* task) noexcept {
    if (task->parent == nullptr)
        return new (std::nothrow) RedisReply;
    auto* parent = static_cast<RedisReply*>(task->parent->obj);
    return &parent->elements[static_cast<std::size_t>(task->idx)];
}

template <class Fill>
void* make(const redisReadTask* task, Fill fill) noexcept {
    RedisReply* reply = place(task);
    if (reply == nullptr)
        return nullptr;
    try {
        fill(*reply);
        return reply;
    } catch (...) {
        if (task->parent == nullptr)
            delete reply;
        return nullptr;
    }
}

void* makeString(const redisReadTask* task, char* text, std::size_t length) {
    return make(task, [&](RedisReply& reply) {
        reply.text.assign(text, length);
        reply.kind = task->type == REDIS_REPLY_ERROR    ? Kind::error
                     : task->type == REDIS_REPLY_STATUS ? Kind::status
                                                        : Kind::text;
    });
}

//  An array's size arrives before its elements. The size is limited to elementsLeft_ (reply.h), so that a false size
//  cannot exhaust the memory.
void* makeArray(const redisReadTask* task, int count) {
    const auto size = static_cast<std::size_t>(count);
    auto& left = *static_cast<std::size_t*>(task->privdata);
    if (size > left)
        return nullptr;
    left -= size;
    return make(task, [&](RedisReply& reply) {
        reply.elements.resize(size);
        reply.kind = Kind::array;
    });
}

void* makeInteger(const redisReadTask* task, long long value) {
    return make(task, [&](RedisReply& reply) {
        reply.integer = value;
        reply.kind = Kind::integer;
    });
}

void* makeNil(const redisReadTask* task) {
    return make(task, [](RedisReply& reply) { reply.kind = Kind::nil; });
}

void freeReply(void* reply) {
    delete static_cast<RedisReply*>(reply);
}

//  Not const, because the reader takes a pointer to non-const.
redisReplyObjectFunctions functions{makeString, makeArray, makeInteger, makeNil, freeReply};

}  // namespace

Status RedisReplyParser::reset() {
    reader_.reset(redisReaderCreateWithFunctions(&functions));
    fed_ = 0;
    elementsLeft_ = maxRedisElements;
    if (!reader_)
        return fault();
    reader_->privdata = &elementsLeft_;
    reader_->maxbuf = 0;  // otherwise libhiredis may replace its buffer and assert that the allocation succeeds
    return {};
}

void RedisReplyParser::feed(std::string_view bytes) {
    fed_ += bytes.size();
    if (reader_ && fed_ <= maxRedisReplySize)
        redisReaderFeed(reader_.get(), bytes.data(), bytes.size());
}

Result<std::optional<RedisReply>> RedisReplyParser::next() {
    void* made = nullptr;
    if (!reader_ || fed_ > maxRedisReplySize || redisReaderGetReply(reader_.get(), &made) != REDIS_OK)
        return fault();
    if (made == nullptr)
        return std::optional<RedisReply>();
    const std::unique_ptr<RedisReply> owned(static_cast<RedisReply*>(made));
    fed_ = reader_->len - reader_->pos;
    elementsLeft_ = maxRedisElements;
    return std::optional<RedisReply>(std::move(*owned));
}

bool RedisReplyParser::drained() const noexcept {
    return reader_ && fed_ == 0;
}

Status RedisReplyParser::fault() const {
    if (fed_ > maxRedisReplySize)
        return backendFailed("an answer of the server is too long");
    if (!reader_ || reader_->err == REDIS_ERR_OOM)
        return backendFailed("an answer of the server is too long, or memory is exhausted");
    return backendFailed("the server does not speak the Redis protocol");
}

}  // namespace rdbopen
