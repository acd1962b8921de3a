//  Reads values from the start of an input. At the end of the input, the missing bytes of a number are 0, and bytes()
//  returns fewer bytes than requested. require() ends the program if its condition is false, in every build.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

class fuzz_input {
public:
    fuzz_input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return rest_.empty(); }

    std::string bytes(size_t most) {
        const std::string taken = rest_.substr(0, most);
        rest_.erase(0, taken.size());
        return taken;
    }
    std::string all() { return bytes(rest_.size()); }

    template <class NUMBER>
    NUMBER number() {
        NUMBER value{};
        const std::string taken = bytes(sizeof value);
        std::memcpy(&value, taken.data(), taken.size());
        return value;
    }

private:
    std::string rest_;
};

inline void require(bool condition, const char* claim) {
    if (condition)
        return;
    std::fprintf(stderr, "does not hold: %s\n", claim);
    std::abort();
}

#endif
