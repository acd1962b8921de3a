#include "ini_lines.h"

#include "olk_words.h"

#include <algorithm>

namespace check {

namespace {

//  Parses one line. The reader gets the text front_, and then the line or a changed copy of the line. front_ brings the
//  reader into the state that it has at the start of the line. It is empty for the first line. For later lines it is a
//  line feed and, if earlier lines left an unfinished key, letters that stand for this key.
//
//  The bytes of this key do not change how the reader parses. So front_ contains letters x instead of them: one more
//  than the line has bytes. So a key that is longer than the line starts with these letters. The
//  time for a line depends only on the length of the line.
class CLineReader {
public:
    CLineReader(const std::string& text, const std::string& carried, bool first, CIniProbe& probe)
        : text_(text), carried_(carried), filler_(carried.empty() ? 0 : text.size() + 1),
          //  The reader skips a byte order mark at the start of its text. The line feed prevents this for all lines
          //  except the first.
          front_(first ? std::string() : "\n" + std::string(filler_, 'x')), probe_(probe) {}

    void read(bool ended, IniLine& line);

private:
    bool hasFront(const std::string& key) const { return key.size() > text_.size(); }
    std::string ownPart(const std::string& key) const { return key.substr(hasFront(key) ? filler_ : 0); }
    std::size_t findEquals();
    bool dropsText(std::size_t end);
    void readAfterValue(std::size_t equals, const std::string& value, IniLine& line);

    const std::string& text_;
    const std::string& carried_;
    const std::size_t filler_;
    const std::string front_;
    CIniProbe& probe_;
};

//  The added "=" makes the reader report the key that is unfinished at the end of the line.
void CLineReader::read(bool ended, IniLine& line) {
    line.calls = probe_.calls(front_ + text_ + "\n=");
    if (!line.calls.empty()) {
        line.keeps_front = hasFront(line.calls.back().key);
        line.left = ownPart(line.calls.back().key);
        line.calls.pop_back();
    }
    if (!ended)
        line.calls = probe_.calls(front_ + text_);

    const std::size_t equals = line.calls.empty() ? std::string::npos : findEquals();
    line.sets = equals != std::string::npos;
    if (line.sets) {
        std::string& key = line.calls.back().key;
        line.key_front = hasFront(key) ? carried_.size() : 0;
        key = carried_.substr(0, line.key_front) + ownPart(key);
        line.setting = settingOf(key, probe_);
        readAfterValue(equals, line.calls.back().value, line);
    }
    const std::size_t end = text_.find_first_of("#;[");
    line.drops_text = end < equals && end != std::string::npos && dropsText(end);
    const auto holdsSetting = [](const IniCall& call) {
        return call.key.empty() && call.value.empty() && call.section.find('=') != std::string::npos;
    };
    line.swallows_setting = !line.sets && std::any_of(line.calls.begin(), line.calls.end(), holdsSetting);
}

//  Returns the position of the "=" that ends the key of the line's setting, or npos. The reader parses a copy of the
//  line in which each "=" is followed by its position. So the value that the reader reports begins with the position of
//  its "=". The inserted digits do not change where headers and comments begin and end.
std::size_t CLineReader::findEquals() {
    std::string numbered;
    for (std::size_t at = 0; at < text_.size(); ++at) {
        numbered += text_[at];
        if (text_[at] == '=')
            numbered += std::to_string(at) + ':';
    }
    const std::vector<IniCall> calls = probe_.calls(front_ + numbered);
    return calls.empty() || calls.back().value.empty() ? std::string::npos : std::stoul(calls.back().value);
}

//  Returns whether the unfinished key at the position end contains text of the line.
bool CLineReader::dropsText(std::size_t end) {
    const std::string until = front_ + text_.substr(0, end);
    const std::vector<IniCall> calls = probe_.calls(until + "=");
    return calls.size() > probe_.calls(until).size() && !ownPart(calls.back().key).empty();
}

//  Stores the text after the value. The value occurs unchanged in the line.
void CLineReader::readAfterValue(std::size_t equals, const std::string& value, IniLine& line) {
    std::size_t at = equals + 1;
    const auto skipBlanks = [&] {
        const std::size_t start = at;
        while (at < text_.size() && olk::is_blank(text_[at]))
            ++at;
        return at > start;
    };
    const bool blank_in_front = skipBlanks();
    at += value.size();
    const bool blank_behind = skipBlanks();
    line.glued = !(value.empty() ? blank_in_front : blank_behind);
    if (at < text_.size())
        line.rest = text_.substr(at);
}

}  // namespace

std::vector<IniLine> readLines(const std::string& bytes, CIniProbe& probe) {
    std::vector<IniLine> lines;
    std::string carried;  // the key that is unfinished at the start of the line
    std::size_t carried_from = 0;
    for (std::size_t start = 0; start < bytes.size();) {
        const std::size_t end = std::min(bytes.find('\n', start), bytes.size());
        const std::string text = bytes.substr(start, end - start);
        IniLine line;
        line.number = lines.size() + 1;
        CLineReader(text, carried, lines.empty(), probe).read(end < bytes.size(), line);
        line.key_from = line.key_front == 0 ? 0 : carried_from;
        if (!line.keeps_front)
            carried.clear();
        if (carried.empty())
            carried_from = line.number;
        carried += line.left;
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

}  // namespace check
