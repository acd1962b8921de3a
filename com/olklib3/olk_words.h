//  The word reader: reads one word of a text into a fixed buffer of 16 bytes.
//
//      "  level = dbg & x=1"
//         ^^^^^ ^ the separator that ends the word; reading continues after it
//         word: leading and trailing blanks are removed; carriage returns and line feeds are ignored; trailing
//         blanks are part of the maximum of 15 characters
//
//  A separator before the first character of a word is skipped. Nothing is allocated.
#ifndef OLK_WORDS_H
#define OLK_WORDS_H

#include <cstddef>

namespace olk {

//  Size of a word's buffer in bytes, including the terminator.
constexpr size_t word_size = 16;

//  Returns true for a space and a tab.
constexpr bool is_blank(int c) {
    return c == ' ' || c == '\t';
}

enum class word_end {
    separator,  // a separator ends the word; position is after this separator
    text_end,   // the end of the text ends the word
    none,       // there is no word, or the word is longer than 15 characters
};

//  Reads the next word of text[0..length), starting at position, and advances position. separators is zero-terminated.
//  word is zero-terminated, and empty if the result is none.
word_end read_word(const char* text, size_t length, size_t& position, const char* separators, char (&word)[word_size]);

}  // namespace olk

#endif
