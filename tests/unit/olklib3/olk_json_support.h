//  Shared by the tests of the JSON writers: the text of a buffer, and a time zone that is set for the duration of a
//  test.
#ifndef OLK_JSON_SUPPORT_H
#define OLK_JSON_SUPPORT_H

#include "olk_json.h"

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

//  Returns the text that the function `write` appends to an empty buffer.
template <class WRITE>
std::string written(WRITE write) {
    olk::string out;
    write(out);
    return out.data() == nullptr ? std::string() : std::string(out.data(), out.size());
}

//  Sets the time zone of the process from a POSIX TZ text; its destructor restores the previous one.
class zone {
public:
    explicit zone(const char* tz) {
        if (const char* before = std::getenv("TZ"))
            before_ = before;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~zone() {
        if (before_)
            setenv("TZ", before_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    zone(const zone&) = delete;
    zone& operator=(const zone&) = delete;

private:
    std::optional<std::string> before_;
};

#endif
