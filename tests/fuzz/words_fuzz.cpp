//  The first pair of a query beside its model, and the word reader's promises for any separators: the position only moves
//  on, the word is terminated and has no blank at its ends, and the text behind its end is not read.
#include "fuzz_input.h"
#include "level_model.h"
#include "olk_words.h"

#include <memory>

namespace {

void check_pair(const std::string& query) {
    const PairModel model(query);
    char key[olk::word_size];
    char value[olk::word_size];
    size_t position = 0;
    const bool found = olk::read_word(query.data(), query.size(), position, "=", key) == olk::word_end::separator &&
                       olk::read_word(query.data(), query.size(), position, "&", value) != olk::word_end::none;
    require(found == model.found, "both find the pair");
    require(!found || (model.key == key && model.value == value), "the pairs agree");
}

//  The text is alone in a block of its size, so that a byte read behind it is found.
void check_words(const std::string& separators, const std::string& text) {
    const std::unique_ptr<char[]> bytes(new char[text.size()]);
    text.copy(bytes.get(), text.size());
    size_t position = 0;
    olk::word_end end = olk::word_end::separator;
    while (end == olk::word_end::separator) {
        const size_t before = position;
        char word[olk::word_size];
        std::memset(word, 'x', sizeof word);
        end = olk::read_word(bytes.get(), text.size(), position, separators.c_str(), word);
        require(position >= before && position <= text.size(), "the position moves on inside the text");
        require(std::memchr(word, '\0', sizeof word) != nullptr, "the word is terminated");
        require(end != olk::word_end::none || word[0] == '\0', "no word is an empty word");
        require(end == olk::word_end::none || word[0] != '\0' || text.find('\0') != std::string::npos,
                "a word has a character");
        require(word[0] != ' ' && word[0] != '\t', "no blank stands in front");
        require(std::string(word).find_first_of("\r\n") == std::string::npos, "no line end is in the word");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const std::string separators = input.bytes(input.number<uint8_t>() % 4);
    const std::string text = input.all();
    check_pair(text);
    check_words(separators, text);
    return 0;
}
