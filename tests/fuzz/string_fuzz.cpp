//  The pooled string beside the standard one: an input is a list of operations, each a byte with its arguments.
#include "fuzz_input.h"
#include "olk_string.h"

#include <algorithm>
#include <utility>

namespace {

constexpr size_t longest = 1 << 20;

struct both {
    olk::string subject;
    std::string model;

    void check() {
        require(subject.size() == model.size(), "the sizes agree");
        require(model.empty() || model.compare(0, model.size(), subject.data(), subject.size()) == 0,
                "the texts agree");
        if (subject.data() == nullptr)
            return require(subject.capacity() == 0, "without a buffer the capacity is 0");
        require(subject.size() < subject.capacity(), "a terminator fits");
        require(subject.capacity() + 8 <= olk::allocator::usable_size(subject.data() - 8), "the capacity is there");
        require(subject.c_str()[model.size()] == '\0', "c_str terminates");
    }

    void read_until(size_t from, char delimiter, const std::string& source) {
        size_t position = from;
        const bool met = olk::read_until(position, delimiter, source.data(), source.size(), subject);
        const size_t found = from < source.size() ? source.find(delimiter, from) : std::string::npos;
        require(met == (found != std::string::npos), "the delimiter is met when it is there");
        require(position == (met ? found + 1 : std::max(from, source.size())), "the position is behind what was read");
        if (from < source.size())
            model += source.substr(from, met ? found - from : source.size() - from);
    }
};

void step(fuzz_input& input, both& one, both& other) {
    switch (input.number<uint8_t>() % 12) {
    case 0: {
        const char c = input.number<char>();
        one.subject.push_back(c);
        one.model.push_back(c);
        return;
    }
    case 1: {
        const std::string text = input.bytes(input.number<uint8_t>());
        one.subject.append(text.data(), text.size());
        one.model += text;
        return;
    }
    case 2: {
        const std::string text = input.bytes(input.number<uint8_t>());
        one.subject.append(text.c_str());
        one.model += text.c_str();
        return;
    }
    case 3:
        one.subject.append(one.subject.c_str(), one.subject.size());
        one.model += std::string(one.model);
        return;
    case 4: {
        if (one.model.empty())
            return;
        const size_t from = input.number<uint16_t>() % one.model.size();
        const size_t length = input.number<uint16_t>() % (one.model.size() - from + 1);
        one.subject.append(one.subject.data() + from, length);
        one.model += one.model.substr(from, length);
        return;
    }
    case 5:
        return one.subject.reserve(input.number<uint16_t>());
    case 6:
        one.subject.clear();
        return one.model.clear();
    case 7:
        one.subject.release();
        return one.model.clear();
    case 8:
        one.subject = other.subject;
        one.model = other.model;
        return;
    case 9:
        std::swap(one.subject, other.subject);
        return std::swap(one.model, other.model);
    case 10: {
        const size_t from = input.number<uint8_t>();
        const char delimiter = input.number<char>();
        return one.read_until(from, delimiter, input.bytes(input.number<uint8_t>()));
    }
    default: {
        olk::string copy(one.subject);
        one.subject = std::move(copy);
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    both pair[2];
    while (!input.empty()) {
        const uint8_t which = input.number<uint8_t>() % 2;
        step(input, pair[which], pair[1 - which]);
        pair[0].check();
        pair[1].check();
        if (pair[0].model.size() + pair[1].model.size() > longest)
            break;
    }
    return 0;
}
