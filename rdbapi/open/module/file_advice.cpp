#include "module/file_advice.h"

#include "files/path.h"

namespace rdbopen {

void adviseOnFile(const UrlUse& use, std::vector<Advice>& advice) {
    FilePlace place;
    const Result<std::string> path = filePathOf(use.url);
    if (!path.ok())
        return;
    static_cast<void>(resolveFile(*path, place));  // place.shared is set after a failure, too
    if (!place.shared.empty())
        advice.push_back({Setting::url, std::string(use.urlName) + ": other users can create files in " + place.shared +
                                            ", a folder of the path: use a folder that only the service may write to"});
}

}  // namespace rdbopen
