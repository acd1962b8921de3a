//  The allocated blocks. Checks that no two blocks overlap, that each block keeps its contents, and that the header
//  bytes of a block belong to no other block.
#ifndef FUZZ_LIVE_BLOCKS_H
#define FUZZ_LIVE_BLOCKS_H

#include "fuzz_input.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

//  WHAT: additional data about a block.
template <class WHAT>
class live_blocks {
public:
    struct block {
        size_t usable;
        size_t header;  // number of header bytes that belong to the block
        unsigned char pattern;
        WHAT what;
    };
    using iterator = typename std::map<char*, block>::iterator;

    iterator add(void* p, size_t usable, size_t header, WHAT what) {
        auto* const address = static_cast<char*>(p);
        const auto pattern = static_cast<unsigned char>(++patterns_);
        const auto [place, fresh] = blocks_.emplace(address, block{usable, header, pattern, std::move(what)});
        require(fresh, "an allocated block is not allocated again");
        require(place == blocks_.begin() || end_of(std::prev(place)) <= start_of(place),
                "the previous block ends before the block");
        require(std::next(place) == blocks_.end() || end_of(place) <= start_of(std::next(place)),
                "the block ends before the next block");
        for_each_piece(place, [&](char* piece, size_t length) { std::memset(piece, pattern, length); });
        return place;
    }

    //  Checks the contents of the block and removes the block from the list.
    WHAT remove(iterator place) {
        check(place);
        WHAT what = std::move(place->second.what);
        blocks_.erase(place);
        return what;
    }

    void check(iterator place) {
        for_each_piece(place, [&](const char* piece, size_t length) {
            const auto ours = [&](char c) { return static_cast<unsigned char>(c) == place->second.pattern; };
            require(std::all_of(piece, piece + length, ours), "a block keeps its contents");
        });
    }

    //  Returns a block that depends on `number`. Requires at least one block.
    iterator chosen(size_t number) {
        return std::next(blocks_.begin(), static_cast<ptrdiff_t>(number % blocks_.size()));
    }
    iterator first() { return blocks_.begin(); }
    iterator last() { return std::prev(blocks_.end()); }
    bool empty() const { return blocks_.empty(); }
    size_t size() const { return blocks_.size(); }

private:
    static char* start_of(iterator place) { return place->first - place->second.header; }
    static char* end_of(iterator place) { return place->first + place->second.usable; }

    //  Of a block of more than 256 bytes, only the first 128 and the last 128 bytes are written and checked.
    template <class USE>
    static void for_each_piece(iterator place, USE use) {
        constexpr size_t piece = 128;
        const size_t length = std::min(piece, place->second.usable);
        use(place->first, length);
        use(end_of(place) - length, length);
    }

    std::map<char*, block> blocks_;
    unsigned patterns_ = 0;
};

#endif
