//  Reads a whole file and replaces it atomically: a reader sees either the old or the new text, and after a power
//  failure the disk has one of the two.
//
//      DIR/NAME                      the file
//      DIR/.NAME.addrpubd.tmp        the file with the new text, until it is renamed to NAME
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

//  Reads the whole file. A missing file is not a failure. Fails with errorTooLarge above maxFileSize, and with
//  errorBackendFailed if it is not a regular file or cannot be read.
Result<FileText> readFile(const FilePlace& place);

//  Tests whether the directory can be written to: creates the temporary file and removes it.
Status testWritable(const FilePlace& place);

//  Replaces the contents of the file by `bytes` and keeps its mode and owner; a new file has mode 0644. `before` is the
//  state of the file when the caller read it, usually the result of readFile. Fails with errorFileChanged if the file
//  has changed since. A change immediately before the rename is not detected. Fails with errorTooLarge above
//  maxFileSize, because readFile would refuse the new file. On failure the file is unchanged. The new file survives a
//  power failure only after flushDirectory. Requires: the lock is held.
Status replaceFile(const FilePlace& place, const FileText& before, std::string_view bytes);

//  Flushes the directory of the file to the disk, so that a rename survives a power failure.
Status flushDirectory(const FilePlace& place);

}  // namespace rdbopen

#endif
