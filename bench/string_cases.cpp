//  The pooled string compared with std::string.
#include "cases.h"
#include "olk_string.h"

#include <string>

namespace bench {

namespace {

template <class STRING>
void single_bytes(std::size_t length, std::size_t times) {
    for (; times-- > 0;) {
        STRING s;
        for (std::size_t i = 0; i < length; ++i)
            s.push_back('x');
        keep(s.data());
    }
}

//  34 pieces of 12 bytes: 408 bytes.
template <class STRING>
void pieces(std::size_t times) {
    for (; times-- > 0;) {
        STRING s;
        for (int i = 0; i < 34; ++i)
            s.append("2001:db8::1,", 12);
        keep(s.data());
    }
}

//  Constructs and destroys a text of 39 bytes, the longest form of an address without an IPv4 part.
template <class STRING>
void made(std::size_t times) {
    const char* text = "2001:0db8:1234:5678:9abc:def0:1234:5678";
    std::size_t length = 39;
    for (; times-- > 0;) {
        forget(text);
        forget(length);
        STRING s(text, length);
        keep(s.data());
    }
}

template <class STRING>
void add_strings(const std::string& who) {
    add("string/" + who + "/100000_bytes", 1, [](std::size_t times) { single_bytes<STRING>(100'000, times); });
    add("string/" + who + "/pieces_of_12", 100, pieces<STRING>);
    add("string/" + who + "/400_bytes", 100, [](std::size_t times) { single_bytes<STRING>(400, times); });
    add("string/" + who + "/39_made", 1000, made<STRING>);
}

const bool added = [] {
    add_strings<olk::string>("olk");
    add_strings<std::string>("std");
    return true;
}();

}  // namespace

}  // namespace bench
