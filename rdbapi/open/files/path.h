//  Where a file really is: a path without its symbolic links, which are followed by hand, one component after the other.
//
//      /var/lib/db -> ../spool/db          place.directory   /var/spool/db/
//      /var/lib/db/file                    place.name        file
//
//  In a folder where everybody may make files and only owners may remove them (sticky, as /tmp), a link is followed only
//  when it belongs to this process's effective user or to the owner of the folder. The kernel has the same rule for the
//  links that it follows itself, but not on every system (fs.protected_symlinks, proc_sys_fs(5)). A folder of somebody
//  else's on the way is no link: it is entered, and its owner decides what is in it.
#ifndef RDBAPI_OPEN_FILES_PATH_H
#define RDBAPI_OPEN_FILES_PATH_H

#include "engine/status.h"

namespace rdbopen {

struct FilePlace {
    std::string directory;  // ends with "/"; neither it nor the name holds a link
    std::string name;
    std::string shared;  // the first folder on the way that is sticky and that all users may write; empty without one

    std::string path() const { return directory + name; }
    std::string temporary() const { return directory + "." + name + ".addrpubd.tmp"; }
    std::string lock() const { return directory + "." + name + ".addrpubd.lock"; }
};

//  Stores where path leads; its last component may be missing. After a failure, which names the path that cannot be
//  passed, place.shared is what was seen up to there. Requires: path is absolute.
Status resolveFile(const std::string& path, FilePlace& place);

}  // namespace rdbopen

#endif
