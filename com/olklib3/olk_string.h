//  A byte string in memory of the pooled allocator. The object is one pointer.
//
//      one block from allocator::malloc_
//      | capacity u32 | size u32 | characters ... | terminator once requested | unused |
//      0              4          8 <- the object points here                           8 + capacity
//
//  Invariant: with a buffer, size <= capacity - 1, so a terminator always fits. Without a buffer, the pointer is null.
//
//  Characters are bytes, including zero bytes; no encoding is assumed. Only c_str terminates the text.
//
//  An operation that lengthens the text either succeeds or changes nothing. If memory is exhausted or the new capacity
//  would exceed max_capacity, the string is unchanged, and this is not reported. A caller that must detect this
//  compares the sizes before and after. assign clears the string first, so the string is empty after a failed assign.
//
//  Threads: one thread at a time may use a string. Strings of different threads share only the allocator.
#ifndef OLK_STRING_H
#define OLK_STRING_H

#include "olk_allocator.h"

#include <utility>

namespace olk {

//  The allocation functions of the string, which call the process-wide allocator. The type has no state.
struct olk_string_alloctor {
    static void* malloc_(size_t size, size_t* outsize) { return g_olk_allocator.alloc.malloc_(size, outsize); }
    static void free_(void* p) { g_olk_allocator.alloc.free_(p); }
    static size_t usable_size(const void* p) { return allocator::usable_size(p); }
};

//  ALLOCTOR: a type with static malloc_, free_ and usable_size. SIZE: type of the two counts before the text. CHAR: a
//  one-byte character. TRAITS is unused.
template <class ALLOCTOR, class SIZE, class CHAR, class TRAITS>
class string_ {
public:
    static_assert(sizeof(SIZE) == 4 && sizeof(CHAR) == 1, "the buffer starts with two 32-bit counts, then bytes");

    //  If the new size of a growing text is below this limit, the text requests a capacity of twice the new size,
    //  otherwise of one and a half times the new size.
    static constexpr uint64_t doubling_limit = 16000;
    //  Maximum capacity that is requested. A block may be a few bytes larger; its size still fits 32 bits.
    static constexpr uint64_t max_capacity = 4294967263;

    string_() : data_(nullptr) {}
    //  text must not be null.
    explicit string_(const CHAR* text) : data_(nullptr) { append(text); }
    string_(const CHAR* text, size_t length) : data_(appended_(nullptr, text, length)) {}
    string_(const string_& other) : data_(nullptr) { assign(other); }
    string_(string_&& other) noexcept : data_(std::exchange(other.data_, nullptr)) {}
    ~string_() { release(); }

    string_& operator=(const string_& other) {
        if (this != &other)
            assign(other);
        return *this;
    }
    //  Exchanges the buffers; afterwards other contains the previous text of this string.
    string_& operator=(string_&& other) noexcept {
        std::swap(data_, other.data_);
        return *this;
    }

    //  Clears, then appends. text must not be null and must not point into this string.
    void assign(const CHAR* text) {
        clear();
        append(text);
    }
    void assign(const CHAR* text, size_t length) {
        clear();
        append(text, length);
    }
    //  Copies the text of other. Buffers are never shared. After copying an empty text this string keeps its buffer.
    void assign(const string_& other) {
        if (this == &other)
            return;
        clear();
        if (other.size() != 0)
            append(other.data_, other.size());
    }

    void push_back(CHAR c) {
        CHAR* text = data_;
        const SIZE longer = size() + 1;  // at most the capacity, or 1, so it cannot overflow
        if (text == nullptr || !fits_(longer)) {
            text = grown_(text, growth_(longer));
            if (text == nullptr)
                return;
            data_ = text;
        }
        text[longer - 1] = c;
        set_size_(text, longer);
    }

    //  Appends length bytes, which may be part of this string. If length is 0 and this string is empty, frees the
    //  buffer. This is deliberate: it lets a caller free the buffer of a cleared string.
    void append(const CHAR* text, size_t length) {
        if (length == 0 || !takes_(length)) {
            data_ = appended_(data_, text, length);
            return;
        }
        CHAR* const own = data_;
        const SIZE old_size = size_of_(own);
        std::memcpy(own + old_size, text, length);
        set_size_(own, static_cast<SIZE>(old_size + length));
    }

    //  Appends a zero-terminated text, which must not be null. An empty text changes nothing.
    void append(const CHAR* text) {
        const size_t length = std::strlen(text);
        if (length != 0)
            append(text, length);
    }

    //  Returns the end of the text if length more bytes fit without growing, else null. The caller writes there, then
    //  calls lengthen with the number of bytes written.
    CHAR* spare(size_t length) { return takes_(length) ? data_ + size() : nullptr; }
    //  Lengthens the text by length bytes that the caller has written. Requires that spare(length) is not null.
    void lengthen(size_t length) { set_size_(data_, static_cast<SIZE>(size_of_(data_) + length)); }

    //  Reserves capacity for n bytes.
    void reserve(size_t n) {
        if (fits_(n))
            return;
        CHAR* text = grown_(data_, n);
        if (text != nullptr)
            data_ = text;
    }

    //  Removes the text and keeps the buffer.
    void clear() {
        if (data_ != nullptr)
            set_size_(data_, 0);
    }

    //  Frees the buffer.
    void release() {
        if (data_ != nullptr)
            ALLOCTOR::free_(block_(data_));
        data_ = nullptr;
    }

    SIZE size() const { return data_ == nullptr ? 0 : size_of_(data_); }
    //  Returns the number of bytes for characters and terminator; 0 without a buffer.
    SIZE capacity() const { return data_ == nullptr ? 0 : load_word<SIZE>(at(data_, -8)); }
    bool empty() const { return size() == 0; }

    //  Returns the address of the first character, null without a buffer. The text need not be terminated.
    CHAR* data() { return data_; }
    const CHAR* data() const { return data_; }

    //  Returns the terminated text; if there is no buffer, an empty text. Does not write a terminator that is already
    //  there.
    const CHAR* c_str() const {
        static constexpr CHAR nothing[1] = {};
        if (data_ == nullptr)
            return nothing;
        const SIZE length = size();
        if (data_[length] != 0)
            data_[length] = 0;
        return data_;
    }

private:
    static constexpr size_t header_size = 8;

    static void* block_(CHAR* text) { return at(text, -ptrdiff_t{header_size}); }
    static SIZE size_of_(const CHAR* text) { return load_word<SIZE>(at(text, -4)); }
    static void set_size_(CHAR* text, SIZE size) { store_word(at(text, -4), size); }
    static void set_capacity_(CHAR* text, size_t capacity) { store_word(at(text, -8), static_cast<SIZE>(capacity)); }

    //  Returns true if needed bytes and a terminator fit. Returns false without a buffer, because the capacity is 0.
    bool fits_(uint64_t needed) const { return needed < capacity(); }
    bool takes_(size_t added) const { return added <= max_capacity && fits_(size() + uint64_t{added}); }

    //  Returns the capacity for a text that grows to needed bytes.
    static uint64_t growth_(uint64_t needed) { return needed < doubling_limit ? needed * 2 : needed + needed / 2; }

    //  The following functions take the buffer pointer (null without a buffer) and return the new pointer. They do not
    //  take the string, so that callers can keep the pointer in a register.

    //  Grows the buffer for new_capacity bytes and a terminator. Returns null and changes nothing if memory is
    //  exhausted or new_capacity is above max_capacity.
    static CHAR* grown_(CHAR* text, uint64_t new_capacity);
    //  Implements append for every case, including no buffer, a full buffer and a length of 0.
    static CHAR* appended_(CHAR* text, const CHAR* added, size_t length);

    CHAR* data_;
};

template <class ALLOCTOR, class SIZE, class CHAR, class TRAITS>
CHAR* string_<ALLOCTOR, SIZE, CHAR, TRAITS>::appended_(CHAR* text, const CHAR* added, size_t length) {
    const SIZE old_size = text == nullptr ? 0 : size_of_(text);
    if (length == 0) {
        if (text == nullptr || old_size != 0)
            return text;
        ALLOCTOR::free_(block_(text));
        return nullptr;
    }
    if (length > max_capacity)
        return text;
    const uintptr_t offset = reinterpret_cast<uintptr_t>(added) - reinterpret_cast<uintptr_t>(text);
    const bool own = text != nullptr && offset < old_size;
    CHAR* grown = grown_(text, growth_(old_size + uint64_t{length}));
    if (grown == nullptr)
        return text;
    std::memcpy(grown + old_size, own ? grown + offset : added, length);
    set_size_(grown, static_cast<SIZE>(old_size + length));
    return grown;
}

template <class ALLOCTOR, class SIZE, class CHAR, class TRAITS>
CHAR* string_<ALLOCTOR, SIZE, CHAR, TRAITS>::grown_(CHAR* text, uint64_t new_capacity) {
    constexpr size_t min_request = 16;
    if (new_capacity > max_capacity)
        return nullptr;
    size_t request = (new_capacity + header_size + 1 + 7) / 8 * 8;
    if (request < min_request)
        request = min_request;

    const size_t old_usable = text == nullptr ? 0 : ALLOCTOR::usable_size(block_(text));
    if (request <= old_usable) {
        set_capacity_(text, new_capacity + 1);
        return text;
    }
    size_t usable = 0;
    void* block = ALLOCTOR::malloc_(request, &usable);
    if (block == nullptr)
        return nullptr;
    auto* grown = static_cast<CHAR*>(at(block, header_size));
    if (text == nullptr) {
        set_size_(grown, 0);
    } else {
        std::memcpy(block, block_(text), old_usable);
        ALLOCTOR::free_(block_(text));
    }
    set_capacity_(grown, usable - header_size);
    return grown;
}

//  The string type of the library.
using string = string_<olk_string_alloctor, unsigned int, char, void>;

//  Appends to target the bytes of source from position up to the delimiter. Returns true if it finds the delimiter;
//  position is then the index after it. Returns false if it reaches the end of source; position is then length. Returns
//  false and changes nothing if position is length or more. If memory is exhausted, bytes are skipped.
template <class STRING>
bool read_until(size_t& position, char delimiter, const char* source, size_t length, STRING& target) {
    while (position < length) {
        const char c = source[position++];
        if (c == delimiter)
            return true;
        target.push_back(c);
    }
    return false;
}

}  // namespace olk

#endif
