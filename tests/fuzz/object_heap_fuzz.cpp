//  Compares the object heap with a model that predicts the next slot. An input is the size of the largest object and a
//  list of operations. Pages are small, so that they are mapped and unmapped often.
#include "fuzz_input.h"
#include "live_blocks.h"
#include "olk_objalloctor.h"

#include <vector>

namespace {

constexpr size_t page_bytes = 4096;
constexpr size_t most_slots = 400;
constexpr size_t most_steps = 100;

struct slot_place {
    unsigned page;  // number of the page, never reused
    size_t slot;
};

//  The pages in search order. Freed slots are reused first, last in first out.
class page_model {
public:
    explicit page_model(size_t largest)
        : slotsize_((largest + 15) & ~size_t{15}), slots_((page_bytes - 56) / slotsize_) {
        add();
    }

    slot_place take() {
        auto serving = std::find_if(pages_.begin(), pages_.end(), [](const page& p) { return p.free_slots() != 0; });
        if (serving == pages_.end()) {
            add();
            serving = pages_.begin();
        }
        const slot_place taken{serving->number, serving->next(slots_)};
        if (serving->free_slots() != 0)
            std::rotate(pages_.begin(), serving, serving + 1);
        return taken;
    }

    void give_back(slot_place given) {
        const auto home =
            std::find_if(pages_.begin(), pages_.end(), [&](const page& p) { return p.number == given.page; });
        home->returned.push_back(given.slot);
        if (home != pages_.begin() && home->free_slots() == slots_)
            pages_.erase(home);
    }

    size_t offset(slot_place where) const { return 56 + where.slot * slotsize_; }
    std::vector<size_t> free_slots() const {
        std::vector<size_t> counts;
        for (const page& p : pages_)
            counts.push_back(p.free_slots());
        return counts;
    }

private:
    struct page {
        unsigned number;
        size_t never_out;
        std::vector<size_t> returned;

        size_t free_slots() const { return never_out + returned.size(); }
        size_t next(size_t slots) {
            if (returned.empty())
                return slots - never_out--;
            const size_t last = returned.back();
            returned.pop_back();
            return last;
        }
    };

    void add() { pages_.insert(pages_.begin(), page{made_++, slots_, {}}); }

    size_t slotsize_;
    size_t slots_;
    unsigned made_ = 0;
    std::vector<page> pages_;
};

class run {
public:
    run(fuzz_input input, size_t largest)
        : input_(std::move(input)), largest_(largest), subject_(page_bytes, largest), model_(largest) {}

    void all() {
        for (size_t steps = 0; !input_.empty() && steps < most_steps && slots_.size() < most_slots; ++steps) {
            step(input_.number<uint8_t>());
            require(subject_.valid(), "the structures are valid");
            check_pages();
        }
        while (!slots_.empty())
            give_back(slots_.chosen(input_.number<uint8_t>()));
        check_pages();
    }

private:
    //  Takes several slots, or frees several: from the front, from the back, or every second slot.
    void step(unsigned what) {
        const unsigned count = what / 8 + 1;
        const size_t start = what % 8 == 7 ? input_.number<uint8_t>() : 0;
        for (unsigned i = 0; i < count; ++i) {
            if (what % 8 < 4)
                take(largest_ - (start + i) % (largest_ + 1));
            else if (!slots_.empty())
                give_back(what % 8 == 5 ? slots_.first() : what % 8 == 6 ? slots_.last() : slots_.chosen(start + i));
        }
        require(subject_.malloc_(largest_ + 1 + what) == nullptr, "the heap refuses a larger object");
        require(!subject_.free_(nullptr) && !subject_.free_(&input_), "a foreign address is ignored");
    }

    void take(size_t size) {
        auto* const p = static_cast<char*>(subject_.malloc_(size));
        require(p != nullptr, "memory is available");
        const slot_place place = model_.take();
        const char* const start = p - model_.offset(place);
        require(reinterpret_cast<uintptr_t>(start) % 4096 == 0, "a page starts at a page of the system");
        require(bases_.emplace(place.page, start).first->second == start, "the slot is the expected one");
        slots_.add(p, largest_, 0, place);
    }

    void give_back(live_blocks<slot_place>::iterator slot) {
        char* const p = slot->first;
        const slot_place place = slots_.remove(slot);
        require(subject_.free_(p), "the heap accepts the freed slot");
        model_.give_back(place);
    }

    void check_pages() const {
        std::vector<size_t> counts;
        for (const olk::obj_page* page = subject_.pages; page != nullptr; page = page->next)
            counts.push_back(page->freecount);
        require(counts == model_.free_slots(), "the pages and their free slots agree");
    }

    fuzz_input input_;
    size_t largest_;
    olk::objalloctor_<olk::spinlock> subject_;
    page_model model_;
    std::map<unsigned, const char*> bases_;
    live_blocks<slot_place> slots_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const size_t largest = input.number<uint16_t>() % 2000 + 8U;
    run(input, largest).all();
    return 0;
}
