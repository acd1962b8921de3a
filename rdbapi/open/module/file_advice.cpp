#include "module/file_advice.h"

#include "files/path.h"

namespace rdbopen {

void adviseOnFile(const UrlUse& use, std::vector<Advice>& advice) {
    FilePlace place;
    std::string reason;
    if (!isFileUrl(use.url, reason))
        return;
    static_cast<void>(resolveFile(use.url.path, place));  // place.shared is known after a failure, too
    if (!place.shared.empty())
        advice.push_back({Setting::url, std::string(use.urlName) + ": other users can create files in " + place.shared +
                                            ", a folder of the path: use a folder that only the service may write to"});
}

}  // namespace rdbopen
