//  A byte string on the pooled allocator, one pointer wide.
//
//      one block from allocator::malloc_
//      | capacity u32 | size u32 | characters ... | terminator when asked for | unused |
//      0              4          8 <- the object points here                           8 + capacity
//
//  Invariant: with a buffer, size <= capacity - 1, so a terminator always fits. Without a buffer the pointer is null.
//
//  Characters are bytes, zero bytes included; no encoding is assumed. The text is terminated only by c_str.
//
//  Every operation that lengthens the text is all or nothing: when no memory can be had, or the text would pass the
//  ceiling just under 4 GiB, the string stays as it was and nothing is reported. A caller that must know compares sizes.
//  Assignment clears first: without memory the string is then empty.
//
//  Threads: a string belongs to one thread at a time; strings of different threads share nothing but the allocator.
#ifndef OLK_STRING_H
#define OLK_STRING_H

#include "olk_allocator.h"

#include <utility>

namespace olk {

//  The string's way to the process-wide allocator. It has no state.
struct olk_string_alloctor {
    static void* malloc_(size_t size, size_t* outsize) { return g_olk_allocator.alloc.malloc_(size, outsize); }
    static void free_(void* p) { g_olk_allocator.alloc.free_(p); }
    static size_t usable_size(const void* p) { return allocator::usable_size(p); }
};

//  ALLOCTOR: static malloc_, free_ and usable_size. SIZE: the counts in front of the text. CHAR: a one-byte character.
//  TRAITS is unused.
template <class ALLOCTOR, class SIZE, class CHAR, class TRAITS>
class string_ {
public:
    static_assert(sizeof(SIZE) == 4 && sizeof(CHAR) == 1, "the buffer starts with two 32-bit counts, then bytes");

    //  A needed length below this doubles the capacity, from here on it grows by half.
    static constexpr uint64_t doubling_limit = 16000;
    //  The largest capacity that growth may ask for. A block gives a few bytes more, and its figures still fit 32 bits.
    static constexpr uint64_t max_capacity = 4294967263;

    string_() : data_(nullptr) {}
    //  text may not be null.
    explicit string_(const CHAR* text) : data_(nullptr) { append(text); }
    string_(const CHAR* text, size_t length) : data_(nullptr) { append(text, length); }
    string_(const string_& other) : data_(nullptr) { assign(other); }
    string_(string_&& other) noexcept : data_(std::exchange(other.data_, nullptr)) {}
    ~string_() { release(); }

    string_& operator=(const string_& other) {
        if (this != &other)
            assign(other);
        return *this;
    }
    //  Swaps the buffers: other holds the old text afterwards.
    string_& operator=(string_&& other) noexcept {
        std::swap(data_, other.data_);
        return *this;
    }

    //  Clears, then appends. text may not be null and may not lie in this string.
    void assign(const CHAR* text) {
        clear();
        append(text);
    }
    void assign(const CHAR* text, size_t length) {
        clear();
        append(text, length);
    }
    //  Copies the text of other. The buffer is never shared, and an empty text keeps this string's buffer.
    void assign(const string_& other) {
        if (this == &other)
            return;
        clear();
        if (other.size() != 0)
            append(other.data_, other.size());
    }

    void push_back(CHAR c) {
        const SIZE length = size();
        CHAR* text = make_room_(uint64_t{length} + 1);
        if (text == nullptr)
            return;
        text[length] = c;
        set_size_(length + 1);
    }

    //  Appends length bytes; they may lie in this string. Zero bytes appended to a buffer that holds no text release
    //  the buffer, on purpose: that is how a caller gives a cleared buffer back.
    void append(const CHAR* text, size_t length);

    //  Appends a zero-terminated text, which may not be null. An empty one changes nothing.
    void append(const CHAR* text) {
        const size_t length = std::strlen(text);
        if (length != 0)
            append(text, length);
    }

    //  Makes room for n bytes.
    void reserve(size_t n) {
        if (!fits_(n))
            grow_(n);
    }

    //  Empties the text and keeps the buffer.
    void clear() {
        if (data_ != nullptr)
            set_size_(0);
    }

    //  Gives the buffer back.
    void release() {
        if (data_ != nullptr)
            ALLOCTOR::free_(block_());
        data_ = nullptr;
    }

    SIZE size() const { return data_ == nullptr ? 0 : load_word<SIZE>(at(data_, -4)); }
    //  Bytes available for characters, terminator included; 0 without a buffer.
    SIZE capacity() const { return data_ == nullptr ? 0 : load_word<SIZE>(at(data_, -8)); }
    bool empty() const { return size() == 0; }

    //  Returns the first character, null without a buffer. Not terminated.
    CHAR* data() { return data_; }
    const CHAR* data() const { return data_; }

    //  Returns the text terminated, an empty text without a buffer. A terminator that already stands is not written.
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

    void* block_() const { return at(data_, -ptrdiff_t{header_size}); }
    void set_size_(SIZE size) { store_word(at(data_, -4), size); }
    void set_capacity_(size_t capacity) { store_word(at(data_, -8), static_cast<SIZE>(capacity)); }

    bool fits_(uint64_t needed) const { return data_ != nullptr && needed <= capacity() - 1; }
    //  Makes room for needed bytes in all and returns the text, or null when there is no memory.
    CHAR* make_room_(uint64_t needed);
    bool grow_(uint64_t new_capacity);

    CHAR* data_;
};

template <class ALLOCTOR, class SIZE, class CHAR, class TRAITS>
void string_<ALLOCTOR, SIZE, CHAR, TRAITS>::append(const CHAR* text, size_t length) {
    const SIZE old_size = size();
    if (length == 0) {
        if (old_size == 0)
            release();
        return;
    }
    const uintptr_t offset = reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(data_);
    const bool own = data_ != nullptr && offset < old_size;
    CHAR* grown = length > max_capacity ? nullptr : make_room_(old_size + uint64_t{length});
    if (grown == nullptr)
        return;
    std::memcpy(grown + old_size, own ? grown + offset : text, length);
    set_size_(static_cast<SIZE>(old_size + length));
}

template <class ALLOCTOR, class SIZE, class CHAR, class TRAITS>
CHAR* string_<ALLOCTOR, SIZE, CHAR, TRAITS>::make_room_(uint64_t needed) {
    if (fits_(needed) || grow_(needed < doubling_limit ? needed * 2 : needed + needed / 2))
        return data_;
    return nullptr;
}

template <class ALLOCTOR, class SIZE, class CHAR, class TRAITS>
bool string_<ALLOCTOR, SIZE, CHAR, TRAITS>::grow_(uint64_t new_capacity) {
    constexpr size_t least_request = 16;
    if (new_capacity > max_capacity)
        return false;
    size_t request = (new_capacity + header_size + 1 + 7) / 8 * 8;
    if (request < least_request)
        request = least_request;

    const size_t old_usable = data_ == nullptr ? 0 : ALLOCTOR::usable_size(block_());
    if (request <= old_usable) {
        set_capacity_(new_capacity + 1);
        return true;
    }
    size_t usable = 0;
    void* block = ALLOCTOR::malloc_(request, &usable);
    if (block == nullptr)
        return false;
    if (data_ != nullptr) {
        std::memcpy(block, block_(), old_usable);
        ALLOCTOR::free_(block_());
    }
    const bool fresh = data_ == nullptr;
    data_ = static_cast<CHAR*>(at(block, header_size));
    set_capacity_(usable - header_size);
    if (fresh)
        set_size_(0);
    return true;
}

//  The library's string.
using string = string_<olk_string_alloctor, unsigned int, char, void>;

//  Appends the bytes of source from position on to target, up to the delimiter. Returns true, with position just behind
//  the delimiter, when one was met, and false, with position at length, when the source ran out; a position at or beyond
//  length stays as it is. A byte for which no memory can be had is skipped.
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
