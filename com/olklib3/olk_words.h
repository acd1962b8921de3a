//  The small word reader: takes one word off the front of a text, into a fixed buffer of 16 bytes.
//
//      "  level = dbg & x=1"
//         ^^^^^ ^ the separator that ended the word; reading goes on behind it
//         word: blanks in front skipped, blanks behind removed (they count until then), carriage returns and line
//         feeds left out
//
//  A separator met before any character of a word is skipped. It allocates nothing.
#ifndef OLK_WORDS_H
#define OLK_WORDS_H

#include <cstddef>

namespace olk {

//  Bytes of a word's buffer, terminator included.
constexpr size_t word_size = 16;

//  True for a space and a tab: what the system's readers skip around words.
constexpr bool is_blank(int c) {
    return c == ' ' || c == '\t';
}

enum class word_end {
    separator,  // a word, ended by a separator; position is behind it
    text_end,   // a word, ended by the end of the text
    none,       // no word: the text ran out, or a 16th character came
};

//  Reads the next word of text[0..length) from position on, which moves. separators is zero-terminated. word is
//  terminated, and empty when the result is none.
word_end read_word(const char* text, size_t length, size_t& position, const char* separators, char (&word)[word_size]);

}  // namespace olk

#endif
