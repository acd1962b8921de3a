//  Resolves the path of a file to a path without symbolic links. This code follows the links itself, one component of
//  the path after the other.
//
//      /var/lib/db -> ../spool/db          place.directory   /var/spool/db/
//      /var/lib/db/file                    place.name        file
//
//  A sticky folder that all users may write to, such as /tmp, allows them to create files, but only owners to remove
//  files. In such a folder, a link is followed only if it belongs to this process's effective user or to the owner of
//  the folder. The kernel has the same rule, but not on every system (sysctl fs.protected_symlinks). A directory in
//  such a folder is entered even if it belongs to another user, who then controls the contents of this directory.
#ifndef RDBAPI_OPEN_FILES_PATH_H
#define RDBAPI_OPEN_FILES_PATH_H

#include "engine/status.h"

namespace rdbopen {

struct FilePlace {
    std::string directory;  // ends with "/"; neither directory nor name contains a link
    std::string name;
    std::string shared;  // first folder of the path that is sticky and that all users may write to; empty if none

    std::string path() const { return directory + name; }
    std::string temporary() const { return directory + "." + name + ".addrpubd.tmp"; }
    std::string lock() const { return directory + "." + name + ".addrpubd.lock"; }
};

//  Resolves path and stores the result in place. The last component need not exist. On failure, the reason contains the
//  path that cannot be resolved, and place.shared is valid for the components that were resolved. Requires: path is
//  absolute.
Status resolveFile(const std::string& path, FilePlace& place);

}  // namespace rdbopen

#endif
