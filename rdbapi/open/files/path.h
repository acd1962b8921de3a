//  The real place of a file: its path without symbolic links. This code follows the links itself, component by
//  component.
//
//      /var/lib/db -> ../spool/db          place.directory   /var/spool/db/
//      /var/lib/db/file                    place.name        file
//
//  In a folder where all users may create files and only owners may remove them (sticky, like /tmp), a link is followed
//  only if it belongs to this process's effective user or to the owner of the folder. The kernel has the same rule, but
//  not on every system (fs.protected_symlinks, proc_sys_fs(5)). A folder of another user is not a link: it is entered,
//  and its owner controls its contents.
#ifndef RDBAPI_OPEN_FILES_PATH_H
#define RDBAPI_OPEN_FILES_PATH_H

#include "engine/status.h"

namespace rdbopen {

struct FilePlace {
    std::string directory;  // ends with "/"; neither it nor the name contains a link
    std::string name;
    std::string shared;  // the first sticky folder on the path that all users may write to; empty if none

    std::string path() const { return directory + name; }
    std::string temporary() const { return directory + "." + name + ".addrpubd.tmp"; }
    std::string lock() const { return directory + "." + name + ".addrpubd.lock"; }
};

//  Stores the place of path, whose last component may be missing. On failure, the reason contains the path that cannot
//  be resolved, and place.shared is the result up to there. Requires: path is absolute.
Status resolveFile(const std::string& path, FilePlace& place);

}  // namespace rdbopen

#endif
