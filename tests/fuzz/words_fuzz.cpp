//  Compares the first parameter of a query, and all words for any separators, with a model. Checks that the position
//  never decreases, that the word is terminated, and that nothing after the end of the text is read.
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

//  The model supports one separator and no line ends. So all separators are replaced by one, and line ends are removed.
std::string for_model(std::string text, const std::string& separators, char separator) {
    for (char& c : text)
        if (separators.find(c) != std::string::npos)
            c = separator;
    std::erase_if(text, [&](char c) { return c != separator && (c == '\r' || c == '\n'); });
    return text;
}

//  The text is in a block of exactly its size, so that a sanitizer detects reading beyond it. Requires that `separator`
//  is one of `separators` or does not occur in `text`, and that the model does not treat it as a blank.
void check_words(const std::string& separators, char separator, const std::string& text) {
    const std::unique_ptr<char[]> bytes(new char[text.size()]);
    text.copy(bytes.get(), text.size());
    std::string rest = for_model(text, separators, separator);
    size_t position = 0;
    olk::word_end end = olk::word_end::separator;
    while (end == olk::word_end::separator) {
        const size_t before = position;
        char word[olk::word_size];
        std::memset(word, 'x', sizeof word);
        end = olk::read_word(bytes.get(), text.size(), position, separators.c_str(), word);
        require(position >= before && position <= text.size(), "the position does not decrease and stays in the text");
        require(std::memchr(word, '\0', sizeof word) != nullptr, "the word is terminated");
        bool ended = false;
        const auto model = modelWord(rest, separator, ended);
        require((end == olk::word_end::none) == !model, "both find a word");
        require(model.value_or("") == word, "the words agree");
        require(!model || (end == olk::word_end::separator) == ended, "both report what ended the word");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const std::string separators = input.bytes(input.number<uint8_t>() % 4).c_str();
    const std::string text = input.all();
    check_pair(text);
    for (const char separator : {'=', '\x01', '\x02', '\x7f', '\xff'})
        if (text.find(separator) == std::string::npos || separators.find(separator) != std::string::npos)
            return check_words(separators, separator, text), 0;
    return 0;
}
