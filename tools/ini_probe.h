//  Runs the service's own ini reader, and its own storing of settings, on a text.
//
//  There is no second parser. Something that the reader does not report, such as the position of a value in its line,
//  is found by reading a changed text: a shorter, a longer or a marked one.
//
//  Threads: as for any plain object.
#ifndef TOOLS_INI_PROBE_H
#define TOOLS_INI_PROBE_H

#include <string>
#include <string_view>
#include <vector>

class CRunCls;

namespace check {

//  One call of the reader's callback.
struct IniCall {
    std::string section;
    std::string key;    // empty for a section header, and for a line that begins with "="
    std::string value;  // empty for a section header

    bool operator==(const IniCall&) const = default;
};

class CIniProbe {
public:
    CIniProbe();
    ~CIniProbe();
    CIniProbe(const CIniProbe&) = delete;
    CIniProbe& operator=(const CIniProbe&) = delete;

    //  Returns the calls that the service's reader makes for a file of these bytes; none when failed().
    std::vector<IniCall> calls(std::string_view bytes);

    //  Stores the settings of a file of these bytes as the service does.
    void load(std::string_view bytes, CRunCls& run);

    //  Returns true after the system refused the memory or the name for a text; no answer is valid then.
    bool failed() const { return failed_; }

private:
    void write(std::string_view bytes);

    int file_;          // in memory; -1 when there is none
    std::string path_;  // its name
    bool failed_;
};

}  // namespace check

#endif
