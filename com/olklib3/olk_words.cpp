#include "olk_words.h"

#include <cstring>

namespace olk {

namespace {

bool is_separator(char c, const char* separators) {
    return c != '\0' && std::strchr(separators, c) != nullptr;
}

//  Removes the trailing blanks from the first `used` characters of word and writes the terminator after them. Returns
//  false if word is then empty.
bool trim_and_terminate(char* word, size_t used) {
    while (used > 0 && is_blank(word[used - 1]))
        --used;
    word[used] = '\0';
    return used != 0;
}

}  // namespace

word_end read_word(const char* text, size_t length, size_t& position, const char* separators, char (&word)[word_size]) {
    size_t used = 0;
    while (position < length) {
        const char c = text[position++];
        if (is_separator(c, separators)) {
            if (trim_and_terminate(word, used))
                return word_end::separator;
            used = 0;
        } else if (c == '\r' || c == '\n' || (used == 0 && is_blank(c))) {
            continue;
        } else if (used == word_size - 1) {
            word[0] = '\0';
            return word_end::none;
        } else {
            word[used++] = c;
        }
    }
    return trim_and_terminate(word, used) ? word_end::text_end : word_end::none;
}

}  // namespace olk
