//  Reads a whole file and replaces it atomically: a reader sees the old or the new text, and after a power failure one
//  of the two is on the disk.
//
//      DIR/NAME                      the file
//      DIR/.NAME.addrpubd.tmp        the new text, until it is renamed
//      DIR/.NAME.addrpubd.lock       the lock that serialises the writers of this library (lock.h)
//
//  dnsmasq's hostsdir ignores names that begin with ".".
#ifndef RDBAPI_OPEN_FILES_REPLACE_H
#define RDBAPI_OPEN_FILES_REPLACE_H

#include "files/path.h"

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace rdbopen {

//  Maximum size in bytes of a file that is read or written.
inline constexpr std::size_t maxFileSize = 16 << 20;

struct FileText {
    bool exists = false;
    struct stat inode {};  // status of the file when it was read; undefined if it does not exist
    std::string bytes;
};

//  Reads the whole file; a missing file is no failure. Fails with errorTooLarge above maxFileSize, and fails for
//  anything except a regular file.
Result<FileText> readFile(const FilePlace& place);

//  Tests whether the directory can be written to: creates the temporary file and removes it.
Status testWritable(const FilePlace& place);

//  Replaces the file that was read as before by bytes, with its mode and owner, or with mode 0644 if it did not exist.
//  Fails with errorFileChanged if the file is not the one that was read, and with errorTooLarge above maxFileSize,
//  which readFile would refuse. On failure the file is unchanged. The file survives a power failure only after
//  flushDirectory. Requires: the lock is held.
Status replaceFile(const FilePlace& place, const FileText& before, std::string_view bytes);

//  Flushes the file's entry in its directory.
Status flushDirectory(const FilePlace& place);

}  // namespace rdbopen

#endif
