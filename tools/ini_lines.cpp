#include "ini_lines.h"

#include "olk_words.h"

#include <algorithm>

namespace check {

namespace {

//  The reader is asked about front + a part of text. front brings it into the state in which it reaches the line.
class CLineReader {
public:
    CLineReader(const std::string& text, const std::string& front, CIniProbe& probe)
        : text_(text), front_(front), probe_(probe) {}

    void read(bool ended, IniLine& line);

private:
    std::size_t callsUpTo(std::size_t end) { return probe_.calls(front_ + text_.substr(0, end)).size(); }
    std::size_t findEquals(std::size_t calls);
    std::string keyUpTo(std::size_t end);
    void readBehind(std::size_t equals, const std::string& value, IniLine& line);

    const std::string& text_;
    const std::string& front_;
    CIniProbe& probe_;
};

//  A "=" behind the line makes the reader tell the key that it has read so far.
void CLineReader::read(bool ended, IniLine& line) {
    line.calls = probe_.calls(front_ + text_ + "\n=");
    if (!line.calls.empty()) {
        line.carry = line.calls.back().key;
        line.calls.pop_back();
    }
    if (!ended)
        line.calls = probe_.calls(front_ + text_);

    const std::size_t equals = line.calls.empty() ? std::string::npos : findEquals(line.calls.size());
    line.sets = equals != std::string::npos;
    if (line.sets) {
        line.setting = settingOf(line.calls.back().key, probe_);
        readBehind(equals, line.calls.back().value, line);
    }
    const std::size_t end = text_.find_first_of("#;[");
    line.drops_text = end < equals && end != std::string::npos && keyUpTo(end).size() > line.carried.size();
    const auto holdsSetting = [](const IniCall& call) {
        return call.key.empty() && call.value.empty() && call.section.find('=') != std::string::npos;
    };
    line.swallows_setting = !line.sets && std::any_of(line.calls.begin(), line.calls.end(), holdsSetting);
}

//  Returns where the "=" stands that makes the last of the line's calls: behind it there is one call more than in front
//  of it. Everywhere else a "=" is part of a value, a header or a comment.
std::size_t CLineReader::findEquals(std::size_t calls) {
    std::size_t at = text_.find('=');
    while (at != std::string::npos && !(callsUpTo(at) + 1 == calls && callsUpTo(at + 1) == calls))
        at = text_.find('=', at + 1);
    return at;
}

//  Returns the key as far as it was read at end; empty inside a comment, a header or a value.
std::string CLineReader::keyUpTo(std::size_t end) {
    const std::vector<IniCall> calls = probe_.calls(front_ + text_.substr(0, end) + "=");
    return calls.size() > callsUpTo(end) ? calls.back().key : std::string();
}

//  The value's characters stand in the line as they are.
void CLineReader::readBehind(std::size_t equals, const std::string& value, IniLine& line) {
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
        line.behind = text_.substr(at);
}

}  // namespace

std::vector<IniLine> readLines(const std::string& bytes, CIniProbe& probe) {
    std::vector<IniLine> lines;
    std::string carried;
    std::size_t carried_from = 0;
    for (std::size_t start = 0; start < bytes.size();) {
        const std::size_t end = std::min(bytes.find('\n', start), bytes.size());
        const std::string text = bytes.substr(start, end - start);
        //  A byte order mark is skipped at the start of the file only: elsewhere a line feed stands in front.
        const std::string front = lines.empty() ? std::string() : "\n" + carried;
        IniLine line;
        line.number = lines.size() + 1;
        line.carried = carried;
        line.carried_from = carried_from;
        CLineReader(text, front, probe).read(end < bytes.size(), line);
        carried = line.carry;
        carried_from = carried.empty() ? 0 : (line.carried.empty() ? line.number : line.carried_from);
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

}  // namespace check
