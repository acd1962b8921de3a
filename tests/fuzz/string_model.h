//  A model of the pooled string: a standard string, the growth rule, and the requests for memory that fail.
#ifndef FUZZ_STRING_MODEL_H
#define FUZZ_STRING_MODEL_H

#include "size_table.h"

#include <algorithm>
#include <cstdint>
#include <string>

//  The next `left` requests fail. In string_fuzz.cpp, the allocator of the string has an object of this type, and the
//  target passes another one with an equal `left` to the model.
struct refusals {
    uint32_t left = 0;

    bool refuse() {
        if (left == 0)
            return false;
        --left;
        return true;
    }
};

struct string_model {
    std::string text;
    uint64_t block = 0;  // usable bytes, 0 without a buffer
    uint64_t capacity = 0;

    void append(const std::string& added, refusals& memory) {
        if (added.empty())
            return text.empty() ? release() : void();
        if (lengthen(added.size(), memory))
            text += added;
    }
    void append_terminated(const std::string& added, refusals& memory) {
        if (!added.empty())
            append(added, memory);
    }
    void assign(const string_model& other, refusals& memory) {
        const std::string copied = other.text;
        text.clear();
        append_terminated(copied, memory);
    }
    bool has_room(uint64_t length) const { return length < capacity; }
    void reserve(uint64_t n, refusals& memory) {
        if (!has_room(n))
            grow(n, memory);
    }
    void release() { *this = {}; }

private:
    static constexpr uint64_t ceiling = 4294967263;

    bool lengthen(uint64_t added, refusals& memory) {
        const uint64_t needed = text.size() + added;
        return has_room(needed) || grow(needed <= 15999 ? 2 * needed : needed + needed / 2, memory);
    }
    bool grow(uint64_t target, refusals& memory) {
        if (target > ceiling)
            return false;
        const uint64_t request = std::max<uint64_t>(16, (target + 9 + 7) & ~uint64_t{7});
        if (request <= block) {
            capacity = target + 1;
            return true;
        }
        if (memory.refuse())
            return false;
        block = usable_for(request);
        capacity = block - 8;
        return true;
    }
};

#endif
