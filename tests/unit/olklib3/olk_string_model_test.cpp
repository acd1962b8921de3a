#include "olk_string_watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

//  A string of the library, a standard string with the same text, and the capacity that the growth rule requires.
class pair_of_strings {
public:
    void push_back(char c) {
        subject.push_back(c);
        lengthen(std::string(1, c));
    }
    void append(const std::string& text) {
        subject.append(text.data(), text.size());
        if (text.empty() && model.empty())
            release_model();
        else
            lengthen(text);
    }
    void append_terminated(const std::string& text) {
        subject.append(text.c_str());
        lengthen(text.c_str());
    }
    void append_own(size_t from, size_t length) {
        subject.append(subject.data() + from, length);
        if (length != 0)
            lengthen(model.substr(from, length));
    }
    void assign(const pair_of_strings& other) {
        subject = other.subject;
        if (this == &other)
            return;
        model.clear();
        lengthen(other.model);
    }
    void swap_with(pair_of_strings& other) {
        watched_string moved(std::move(subject));
        subject = std::move(other.subject);
        other.subject = std::move(moved);
        std::swap(model, other.model);
        std::swap(block, other.block);
        std::swap(capacity, other.capacity);
    }
    void reserve(uint64_t n) {
        subject.reserve(n);
        grow_for(n, n);
    }
    void clear() {
        subject.clear();
        model.clear();
    }
    void release() {
        subject.release();
        release_model();
    }
    //  Lowers the stored capacity to the minimum, so that the next growth may keep the block.
    void lower_capacity() {
        if (block == 0)
            return;
        capacity = model.size() + 1;
        set_stored_capacity(subject, static_cast<uint32_t>(capacity));
    }
    void read_until(size_t from, char delimiter, const std::string& source) {
        size_t position = from;
        const bool met = olk::read_until(position, delimiter, source.data(), source.size(), subject);
        const size_t found = from < source.size() ? source.find(delimiter, from) : std::string::npos;
        EXPECT_EQ(met, found != std::string::npos);
        EXPECT_EQ(position, met ? found + 1 : std::max(from, source.size()));
        for (size_t i = from; i < std::min(found, source.size()); ++i)
            lengthen(std::string(1, source[i]));
    }

    bool agrees(bool terminated) const {
        if (terminated &&
            std::string(subject.c_str(), model.size() + 1) != std::string(model.c_str(), model.size() + 1))
            return false;
        return text_of(subject) == model && subject.size() == model.size() && subject.capacity() == capacity &&
               (subject.data() != nullptr) == (block != 0);
    }

    size_t length() const { return model.size(); }

private:
    //  Returns the usable size of the block with which the allocator serves `request` bytes.
    static uint64_t block_for(uint64_t request) {
        const olk::allocator& pool = *olk::get_olk_allocator();
        for (int i = 0; i < pool.classcount; ++i)
            if (pool.classes[i]->blksize >= request)
                return pool.classes[i]->blksize;
        return (request + 16 + 4095) / 4096 * 4096 - 16;
    }
    void release_model() {
        model.clear();
        block = 0;
        capacity = 0;
    }
    void lengthen(const std::string& text) {
        if (text.empty())
            return;
        const uint64_t need = model.size() + text.size();
        grow_for(need, need <= 15999 ? 2 * need : need + need / 2);
        model += text;
    }
    void grow_for(uint64_t need, uint64_t target) {
        if (block != 0 && need <= capacity - 1)
            return;
        const uint64_t request = std::max<uint64_t>(16, (target + 9 + 7) & ~uint64_t{7});
        if (block != 0 && request <= block) {
            capacity = target + 1;
            return;
        }
        block = block_for(request);
        capacity = block - 8;
    }

    watched_string subject;
    std::string model;
    uint64_t block = 0;
    uint64_t capacity = 0;
};

using generator = std::mt19937_64;

size_t below(generator& random, size_t n) {
    return random() % n;
}

//  Returns a text, usually short, sometimes of several thousand bytes, including zero bytes.
std::string some_text(generator& random) {
    std::string text(below(random, 20) == 0 ? below(random, 9000) : below(random, 40), ' ');
    for (char& c : text)
        c = static_cast<char>(random());
    return text;
}

void step(generator& random, std::vector<pair_of_strings>& all) {
    pair_of_strings& one = all[below(random, all.size())];
    pair_of_strings& other = all[below(random, all.size())];
    switch (below(random, 16)) {
    case 0:
        return one.clear();
    case 1:
        return below(random, 4) == 0 ? one.release() : one.push_back('x');
    case 2:
        return one.reserve(below(random, 30000));
    case 3:
        return one.length() < 60000 ? one.assign(other) : one.release();
    case 4:
        return &one != &other ? one.swap_with(other) : one.push_back('s');
    case 5:
        return one.lower_capacity();
    case 6: {
        const std::string source = some_text(random);
        return one.read_until(below(random, source.size() + 3), static_cast<char>(below(random, 8)), source);
    }
    case 7: {
        if (one.length() == 0 || one.length() > 30000)
            return one.clear();
        const size_t from = below(random, one.length());
        return one.append_own(from, below(random, one.length() - from + 1));
    }
    case 8:
    case 9:
        return one.append_terminated(some_text(random));
    case 10:
    case 11:
    case 12:
        return one.append(some_text(random));
    default:
        return one.push_back(static_cast<char>(random()));
    }
}

TEST(StringModel, AgreesWithTheStandardStringAndTheGrowthRuleOver150000Operations) {
    generator random(20250411);
    std::vector<pair_of_strings> all(6);
    for (int i = 0; i < 150000; ++i) {
        step(random, all);
        for (const pair_of_strings& one : all)
            ASSERT_TRUE(one.agrees(i % 7 == 0)) << "after operation " << i;
        if (i % 1000 == 0)
            watched_alloctor::take();
    }
    for (pair_of_strings& one : all)
        one.release();
    ASSERT_TRUE(olk::get_olk_allocator()->valid());
}

TEST(StringModel, StringsOfSeveralThreadsGrowAndAreFreedAtTheSameTime) {
    constexpr int rounds = 300;
    std::vector<std::thread> threads;
    std::vector<int> right(4, 0);
    for (size_t id = 0; id < right.size(); ++id)
        threads.emplace_back([id, &right] {
            for (int round = 0; round < rounds; ++round) {
                olk::string s;
                std::string model;
                for (int i = 0; i < 500; ++i) {
                    s.push_back(static_cast<char>('a' + id));
                    model.push_back(static_cast<char>('a' + id));
                }
                const olk::string copy(s);
                right[id] += text_of(copy) == model ? 1 : 0;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, std::vector<int>(4, rounds));
}

}  // namespace
