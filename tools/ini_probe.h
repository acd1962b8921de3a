//  Runs the service's own ini reader, and its code that stores settings, on a given text.
//
//  There is no second parser. If the reader does not report a detail, such as the position of a value in its line, a
//  modified text is read: shortened, extended, or with inserted marks.
//
//  Threads: one thread at a time may use an object.
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
    std::string key;    // empty for a section header and for a value without a key
    std::string value;  // empty for a section header

    bool operator==(const IniCall&) const = default;
};

class CIniProbe {
public:
    CIniProbe();
    ~CIniProbe();
    CIniProbe(const CIniProbe&) = delete;
    CIniProbe& operator=(const CIniProbe&) = delete;

    //  Returns the calls that the service's reader makes for a file with these bytes, or an empty list if failed().
    std::vector<IniCall> calls(std::string_view bytes);

    //  Stores the settings of a file with these bytes, as the service does.
    void load(std::string_view bytes, CRunCls& run);

    //  Returns true if a text could not be stored in memory, or could not be opened under its name in /proc; then the
    //  results are invalid.
    bool failed() const { return failed_; }

private:
    void write(std::string_view bytes);

    int file_;          // descriptor of the file in memory; -1 if none
    std::string path_;  // name of that file
    bool failed_;
};

}  // namespace check

#endif
