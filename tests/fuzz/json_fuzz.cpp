//  The JSON writers: a text is read back from what was written, numbers beside the standard library, and times beside
//  their own parts.
#include "fuzz_input.h"
#include "olk_json.h"

namespace {

std::string text_of(const olk::string& s) {
    return s.data() == nullptr ? std::string() : std::string(s.data(), s.size());
}

//  Reads the string value at the front of text back and removes it.
std::string read_back(std::string& text) {
    static const std::string letters = "btnfr\"/\\";
    static const std::string characters = "\b\t\n\f\r\"/\\";
    require(!text.empty() && text[0] == '"', "a value begins with a double quote");
    std::string value;
    size_t at = 1;
    for (; at < text.size() && text[at] != '"'; ++at) {
        require(text[at] == '\\' || characters.find(text[at]) == std::string::npos, "the eight are escaped");
        if (text[at] != '\\') {
            value.push_back(text[at]);
            continue;
        }
        const size_t letter = letters.find(text[++at]);
        require(letter != std::string::npos, "an escape is one of the eight");
        value.push_back(characters[letter]);
    }
    require(at < text.size(), "a value ends with a double quote");
    text.erase(0, at + 1);
    return value;
}

void take(std::string& text, const std::string& expected) {
    require(text.compare(0, expected.size(), expected) == 0, "the punctuation stands where it must");
    text.erase(0, expected.size());
}

void check_string(const std::string& value) {
    olk::string whole;
    olk::writeString(value.data(), value.size(), whole);
    olk::string single;
    single.push_back('"');
    for (char c : value)
        olk::outJsonEsc(c, single);
    single.push_back('"');
    require(text_of(whole) == text_of(single), "one piece and byte by byte agree");
    require(olk::isJsonPlain(value.data(), value.size()) == (whole.size() == value.size() + 2),
            "a plain text grows by its quotes only");
    std::string text = text_of(whole);
    require(read_back(text) == value && text.empty(), "a value reads back");
}

void check_members(fuzz_input& input) {
    const std::string first = input.bytes(input.number<uint8_t>());
    const std::string element = input.bytes(input.number<uint8_t>());
    olk::vector_<olk::string> list;
    const uint8_t elements = input.number<uint8_t>() % 4;
    for (uint8_t i = 0; i < elements; ++i)
        list.push_back(olk::string(element.data(), element.size()));

    olk::string out;
    uint32_t members = 0;
    olk::writeStringMember(&members, "first", olk::string(first.data(), first.size()), out);
    olk::writeStringArrayMember(&members, "list", list, out);
    require(members == (first.empty() ? 1u : 2u), "an empty value is not counted");

    std::string text = text_of(out);
    if (!first.empty()) {
        take(text, "\"first\":");
        require(read_back(text) == first, "the first member reads back");
        take(text, ",");
    }
    take(text, "\"list\":[");
    for (uint8_t i = 0; i < elements; ++i) {
        if (i != 0)
            take(text, ",");
        require(read_back(text) == element, "an element reads back");
    }
    require(text == "]", "the array ends the text");
}

template <class NUMBER>
void check_decimal(NUMBER number) {
    olk::string out;
    olk::writeDecimal(number, out);
    require(text_of(out) == std::to_string(number), "a number has the standard library's digits");
}

void check_time(int64_t milliseconds) {
    olk::string out;
    if (olk::writeIsoTime(milliseconds, out) == 0)
        return require(out.empty(), "a failed time appends nothing");
    require(out.size() <= 47, "a time has at most 47 characters");
    require((text_of(out).find('.') != std::string::npos) == (milliseconds % 1000 != 0),
            "only a remainder gives a fraction");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    check_decimal(input.number<int32_t>());
    check_decimal(input.number<uint32_t>());
    const auto number = input.number<int64_t>();
    check_decimal(number);
    check_time(number);
    check_members(input);
    check_string(input.all());
    return 0;
}
