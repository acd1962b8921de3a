#include "file_url.h"

namespace rdbopen {

bool namesOneFile(const Url& url, std::string& reason) {
    if (!url.options.empty()) {
        reason = "malformed url: " + url.scheme + " has no options (write ? as %3F in a path)";
        return false;
    }
    if (url.authority.empty() && url.path.size() > 1 && url.path.front() == '/' && url.path.back() != '/')
        return true;
    reason = "malformed url: " + url.scheme + " needs the absolute path of a file, as in " + url.scheme +
             ":///var/lib/addrpubd/file";
    return false;
}

}  // namespace rdbopen
