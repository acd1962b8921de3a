//  Reading a file whole and replacing it in one step: a reader sees the old text or the new one, and after a power cut
//  one of the two is there.
//
//      DIR/NAME                      the file
//      DIR/.NAME.addrpubd.tmp        the new text, until it is renamed
//      DIR/.NAME.addrpubd.lock       the lock that serialises the writers of this library (lock.h)
//
//  Names that begin with "." are passed over by dnsmasq's hostsdir.
#ifndef RDBAPI_OPEN_FILES_REPLACE_H
#define RDBAPI_OPEN_FILES_REPLACE_H

#include "files/path.h"

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace rdbopen {

//  Bytes of a file that is read or written at all.
inline constexpr std::size_t maxFileSize = 16 << 20;

struct FileText {
    bool exists = false;
    struct stat inode {};  // of the file when it was read; meaningless when it does not exist
    std::string bytes;
};

//  Reads the whole file; a missing one is no failure. Fails with errorTooLarge above maxFileSize, and for anything but
//  a regular file.
Result<FileText> readFile(const FilePlace& place);

//  Tests that the directory can be written: makes the temporary file and removes it.
Status testWritable(const FilePlace& place);

//  Replaces the file that was read as before by bytes, with its mode and owner, or mode 0644 when there was none.
//  Fails with errorFileChanged when the file is not the one that was read any more, and with errorTooLarge above
//  maxFileSize, which readFile would refuse from then on. After a failure the file is as it was. The file survives a
//  power cut only after flushDirectory. Requires: the lock is held.
Status replaceFile(const FilePlace& place, const FileText& before, std::string_view bytes);

//  Flushes the entry of the file in its directory.
Status flushDirectory(const FilePlace& place);

}  // namespace rdbopen

#endif
