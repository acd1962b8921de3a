//  Compares an allocator with a map of its allocated blocks and with a model that predicts the next block. An input is
//  a list of operations. Each operation is one byte, followed by its arguments.
#include "fuzz_input.h"
#include "heap_model.h"
#include "live_blocks.h"
#include "olk_allocator.h"
#include "size_table.h"

#include <memory>

namespace {

constexpr uint64_t most_bytes = uint64_t{1} << 28;
constexpr size_t most_blocks = 4000;

struct home {
    uint64_t number;  // index of the class; `classes` for a big block
    class_model::place place;
};

class run {
public:
    explicit run(fuzz_input input) : input_(std::move(input)) {
        for (const size_row& row : size_table)
            models_.emplace_back(row.blksize, row.first, row.blkperheap);
        for (uint64_t i = 0; i < first_heaps_at_start; ++i)
            models_[i].prepare();
        bases_.resize(classes);
        require(subject_.classcount == classes, "all classes exist");
    }

    void all() {
        while (!input_.empty() && blocks_.size() < most_blocks)
            step(input_.number<uint8_t>());
        require(subject_.valid(), "the structures are valid");
        for (uint64_t i = 0; i < classes; ++i)
            check_class(i);
        end(input_.number<uint8_t>());
    }

private:
    void step(unsigned what) {
        switch (what % 10) {
        case 0:
            return take(input_.number<uint8_t>());
        case 1:
            return take(input_.number<uint16_t>());
        case 2:
            return take(input_.number<uint32_t>() % 8000000);
        case 3:
            return take(near_a_size());
        case 4:
            return give_back_one(input_.number<uint8_t>());
        case 5:
            return give_back_one(input_.number<uint16_t>());
        case 6:
            return take_many(input_.number<uint8_t>() % classes, input_.number<uint16_t>() % 256);
        case 7:
            return give_back_many(input_.number<uint8_t>() % 3, input_.number<uint8_t>());
        case 8:
            return ask_for_too_much(input_.number<uint16_t>());
        default:
            return subject_.free_(nullptr);
        }
    }

    size_t near_a_size() {
        const uint32_t size = size_table[input_.number<uint8_t>() % classes].blksize;
        return size + input_.number<uint8_t>() % 3 - 1;
    }

    void take(size_t size) {
        const uint64_t number = class_for(size);
        if (bytes_ + usable_for(size) > most_bytes)
            return;
        bytes_ += usable_for(size);
        size_t usable = 0;
        void* p = subject_.malloc_(size, size % 5 == 0 ? nullptr : &usable);
        require(p != nullptr, "memory is available");
        require(size % 5 == 0 || usable == usable_for(size), "the usable bytes are those of the table");
        require(olk::allocator::usable_size(p) == usable_for(size), "the usable bytes of a block are reported");
        if (number == classes)
            return take_big(p, usable_for(size));
        home where{number, models_[number].take()};
        check_place(static_cast<char*>(p), where);
        blocks_.add(p, usable_for(size), olk::blk_header_size, where);
        check_class(number);
    }

    void take_big(void* p, size_t usable) {
        require(reinterpret_cast<uintptr_t>(p) % 4096 == 16, "a big block is 16 bytes after the start of its mapping");
        require(++big_ == subject_.bigcount, "allocator and model have the same number of big blocks");
        blocks_.add(p, usable, 16, {classes, {}});
    }

    //  Calculates the address of a heap from its first block. Every other block must be at its expected place.
    void check_place(const char* p, const home& where) {
        std::map<uint32_t, const char*>& bases = bases_[where.number];
        const uint64_t offset = models_[where.number].offset(where.place);
        const auto [base, fresh] = bases.emplace(where.place.heap, p - offset);
        require(!fresh || where.place.block == 0, "the first block of a heap is allocated first");
        require(base->second + offset == p, "the block is the expected one");
        require(reinterpret_cast<uintptr_t>(base->second) % 4096 == 0, "a heap starts at a page");
    }

    void check_class(uint64_t number) {
        const auto& subject = *subject_.classes[number];
        const class_model& model = models_[number];
        require(subject.blksize == size_table[number].blksize, "the sizes of the classes agree");
        require(subject.freecount == model.free_blocks(), "the free blocks agree");
        require(static_cast<size_t>(subject.heapcount) == model.heap_count(), "the heaps agree");
    }

    void give_back(live_blocks<home>::iterator place) {
        char* const p = place->first;
        bytes_ -= place->second.usable;
        const home where = blocks_.remove(place);
        subject_.free_(p);
        if (where.number == classes)
            return require(--big_ == subject_.bigcount, "allocator and model have the same number of big blocks");
        models_[where.number].give_back(where.place);
        check_class(where.number);
    }

    void give_back_one(size_t number) {
        if (!blocks_.empty())
            give_back(blocks_.chosen(number));
    }

    void take_many(uint64_t number, unsigned count) {
        for (unsigned i = 0; i < count; ++i)
            take(size_table[number].blksize);
    }

    //  Frees several blocks: from the front, from the back, or every third block from the second on. After the last
    //  block the choice continues at the front.
    void give_back_many(unsigned order, unsigned count) {
        for (unsigned i = 0; i < count && !blocks_.empty(); ++i)
            give_back(order == 0 ? blocks_.first() : order == 1 ? blocks_.last() : blocks_.chosen(2 * i + 1));
    }

    void ask_for_too_much(uint64_t less) {
        size_t usable = 1;
        require(subject_.malloc_(SIZE_MAX - less, &usable) == nullptr, "a request of this size is refused");
        require(usable == 1 && subject_.bigcount == big_, "a refused request changes nothing");
    }

    //  Frees all blocks, or only the big blocks: the allocator's destructor frees the others.
    void end(unsigned how) {
        while (!blocks_.empty()) {
            const auto place = how % 2 == 0 ? blocks_.first() : blocks_.last();
            if (how < 128 || place->second.what.number == classes)
                give_back(place);
            else
                blocks_.remove(place);
        }
        require(subject_.bigcount == 0 && subject_.valid(), "the structures are valid at the end");
    }

    fuzz_input input_;
    olk::allocator subject_;
    std::vector<class_model> models_;
    std::vector<std::map<uint32_t, const char*>> bases_;  // for each class: base addresses of its heaps
    live_blocks<home> blocks_;
    uint64_t bytes_ = 0;
    uint32_t big_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& records = olk::get_olk_alloctor_self()->objheap;
    const uint64_t before = records.freecount;
    run(fuzz_input(data, size)).all();
    require(records.freecount == before && records.valid(), "every record was freed");
    return 0;
}
