//  A growing array in memory of the pooled allocator, for short lists.
//
//  push_back either appends or, when memory is exhausted, changes nothing and returns false. When the array grows, it
//  requests memory for twice the elements plus one, and uses the whole block that it gets.
//
//  Threads: one thread at a time may use an array.
#ifndef OLK_VECTOR_H
#define OLK_VECTOR_H

#include "olk_allocator.h"

#include <new>
#include <type_traits>
#include <utility>

namespace olk {

template <class T>
class vector_ {
public:
    static_assert(alignof(T) <= 8, "pooled blocks are aligned to 8 bytes");

    vector_() = default;
    ~vector_() {
        clear();
        get_olk_allocator()->free_(items_);
    }
    vector_(const vector_&) = delete;
    vector_& operator=(const vector_&) = delete;

    //  Appends item. Returns false and changes nothing if memory is exhausted.
    bool push_back(const T& item) requires std::is_trivially_copyable_v<T> { return push_back(T(item)); }
    bool push_back(T&& item) {
        if (size_ == capacity_ && !grow_())
            return false;
        new (items_ + size_) T(std::move(item));
        ++size_;
        return true;
    }

    //  Removes all elements and keeps the memory.
    void clear() {
        while (size_ != 0)
            items_[--size_].~T();
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    //  Requires: i < size().
    const T& operator[](size_t i) const { return items_[i]; }
    T& operator[](size_t i) { return items_[i]; }
    const T* begin() const { return items_; }
    const T* end() const { return items_ + size_; }

private:
    bool grow_() {
        size_t usable = 0;
        auto* grown = static_cast<T*>(get_olk_allocator()->malloc_((size_ * 2 + 1) * sizeof(T), &usable));
        if (grown == nullptr)
            return false;
        for (size_t i = 0; i < size_; ++i) {
            new (grown + i) T(std::move(items_[i]));
            items_[i].~T();
        }
        get_olk_allocator()->free_(items_);
        items_ = grown;
        capacity_ = usable / sizeof(T);
        return true;
    }

    T* items_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

}  // namespace olk

#endif
