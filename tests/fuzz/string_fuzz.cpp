//  Compares the pooled string with a model that uses the standard string. An input is a list of operations, each a byte
//  with its arguments. Each input is run twice: with the pooled allocator; and with blocks of the C library and failing
//  requests. The address sanitizer checks the ends of the C library's blocks.
#include "fuzz_input.h"
#include "olk_string.h"
#include "string_model.h"

#include <map>
#include <utility>

namespace {

constexpr size_t longest = 1 << 17;

//  An allocator whose blocks have exactly the reported number of usable bytes.
struct watched_alloctor {
    static inline refusals memory;
    static inline std::map<const void*, size_t> blocks;  // usable bytes of each allocated block

    static void* malloc_(size_t size, size_t* outsize) {
        if (memory.refuse())
            return nullptr;
        *outsize = usable_for(size);
        void* p = std::malloc(*outsize);
        blocks[p] = *outsize;
        return p;
    }
    static void free_(void* p) {
        require(blocks.erase(p) == 1, "the freed block was allocated");
        std::free(p);
    }
    static size_t usable_size(const void* p) { return blocks.at(p); }
};

struct pooled_alloctor : olk::olk_string_alloctor {
    static inline refusals memory;  // no request fails
};

template <class ALLOCTOR>
struct both {
    using subject_type = olk::string_<ALLOCTOR, unsigned int, char, void>;

    subject_type subject;
    string_model model;

    void check() const {
        require(subject.size() == model.text.size(), "the sizes agree");
        require(subject.capacity() == model.capacity, "the capacities agree");
        require((subject.data() == nullptr) == (model.block == 0), "both have a buffer or both have none");
        if (subject.data() != nullptr)
            require(ALLOCTOR::usable_size(subject.data() - 8) == model.block, "the blocks have the same size");
        require(subject.empty() == model.text.empty(), "both are empty or not");
    }
    void check_text() const {
        require(std::string(subject.c_str(), subject.size()) == model.text, "the texts agree");
        require(subject.c_str()[model.text.size()] == '\0', "c_str terminates");
    }

    void read_until(size_t from, char delimiter, const std::string& source, refusals& memory) {
        size_t position = from;
        const bool met = olk::read_until(position, delimiter, source.data(), source.size(), subject);
        const size_t found = from < source.size() ? source.find(delimiter, from) : std::string::npos;
        require(met == (found != std::string::npos), "the delimiter is found if the text contains it");
        require(position == (met ? found + 1 : std::max(from, source.size())),
                "the position is after the text that was read");
        for (size_t i = from; i < std::min(found, source.size()); ++i)
            model.append(std::string(1, source[i]), memory);
    }

    void write_into_spare(const std::string& written) {
        char* place = subject.spare(written.size());
        require((place != nullptr) == model.has_room(model.text.size() + written.size()),
                "both agree whether there is room");
        if (place == nullptr)
            return;
        written.copy(place, written.size());
        subject.lengthen(written.size());
        model.text += written;
    }

    //  Lowers the stored capacity, so that growth finds unused bytes in the block.
    void lower_capacity() {
        if (subject.data() == nullptr)
            return;
        model.capacity = model.text.size() + 1;
        olk::store_word(olk::at(subject.data(), -8), static_cast<uint32_t>(model.capacity));
    }

    void append_own(fuzz_input& input, refusals& memory) {
        if (model.text.empty())
            return;
        const size_t from = input.number<uint16_t>() % model.text.size();
        const size_t length = input.number<uint16_t>() % (model.text.size() - from + 1);
        subject.append(subject.data() + from, length);
        model.append(model.text.substr(from, length), memory);
    }

    //  The request fails, so no bytes are read. The length is hidden from the compiler, which otherwise warns of an
    //  invalid copy.
    void append_beyond_the_ceiling(uint64_t more) {
        const volatile uint64_t least = 2863311510;
        subject.append(subject.c_str(), least + more);
        subject.reserve(uint64_t{4294967264} + more);
    }
};

template <class ALLOCTOR>
class run {
public:
    explicit run(fuzz_input input) : input_(std::move(input)) { ALLOCTOR::memory = {}; }

    void all() {
        while (!input_.empty() && pair_[0].model.text.size() + pair_[1].model.text.size() <= longest) {
            const auto what = input_.number<uint8_t>();
            step(what / 2, pair_[what % 2], pair_[1 - what % 2]);
            pair_[0].check();
            pair_[1].check();
            if (what >= 128)
                pair_[what % 2].check_text();
        }
        pair_[0].check_text();
        pair_[1].check_text();
        require(ALLOCTOR::memory.left == memory_.left, "string and model have requested the same number of blocks");
    }

private:
    using both_ = both<ALLOCTOR>;

    std::string text() { return input_.bytes(input_.number<uint8_t>()); }

    void step(unsigned what, both_& one, both_& other) {
        switch (what % 16) {
        case 0:
            return add(one, input_.number<char>());
        case 1: {
            const std::string added = text();
            one.subject.append(added.data(), added.size());
            return one.model.append(added, memory_);
        }
        case 2: {
            const std::string added = text().c_str();
            one.subject.append(added.c_str());
            return one.model.append_terminated(added, memory_);
        }
        case 3:
            one.subject.append(one.subject.c_str(), one.subject.size());
            return one.model.append(std::string(one.model.text), memory_);
        case 4:
            return one.append_own(input_, memory_);
        case 5: {
            const auto n = input_.number<uint16_t>();
            one.subject.reserve(n);
            return one.model.reserve(n, memory_);
        }
        case 6:
            one.subject.clear();
            return one.model.text.clear();
        case 7:
            one.subject.release();
            return one.model.release();
        default:
            return step_of_two(what % 16, one, other);
        }
    }

    void step_of_two(unsigned what, both_& one, both_& other) {
        switch (what) {
        case 8:
            one.subject = other.subject;
            return one.model.assign(other.model, memory_);
        case 9:
            std::swap(one.subject, other.subject);
            return std::swap(one.model, other.model);
        case 10: {
            const size_t from = input_.number<uint8_t>();
            const char delimiter = input_.number<char>();
            return one.read_until(from, delimiter, text(), memory_);
        }
        case 11:
            return copy_and_move(one);
        case 12:
            return one.write_into_spare(text());
        case 13:
            return one.lower_capacity();
        case 14:
            return one.append_beyond_the_ceiling(input_.number<uint32_t>());
        default:
            return shorten_memory(input_.number<uint8_t>() % 4);
        }
    }

    void add(both_& one, char c) {
        one.subject.push_back(c);
        one.model.append(std::string(1, c), memory_);
    }

    void copy_and_move(both_& one) {
        typename both_::subject_type copy(one.subject);
        string_model model;
        model.assign(one.model, memory_);
        one.subject = std::move(copy);
        one.model = model;
    }

    void shorten_memory(uint32_t count) {
        if constexpr (std::is_same_v<ALLOCTOR, watched_alloctor>)
            ALLOCTOR::memory.left = memory_.left = count;
    }

    fuzz_input input_;
    refusals memory_;
    both_ pair_[2];
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz_input input(data, size);
    run<pooled_alloctor>(input).all();
    run<watched_alloctor>(input).all();
    require(watched_alloctor::blocks.empty(), "every block was freed");
    return 0;
}
