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
    struct stat status {};  // of the file when it was read; meaningless when it does not exist
    std::string bytes;
};

//  Reads the whole file; a missing one is no failure. Returns 0 or an errno value: EINVAL for anything but a regular
//  file, EFBIG above maxFileSize.
int readFile(const FilePlace& place, FileText& text);

//  Checks that the directory can be written: makes the temporary file and removes it. Returns 0 or an errno value.
int checkWritable(const FilePlace& place);

//  Replaces the file that was read as before by bytes, with its mode and owner, or mode 0644 when there was none.
//  Returns 0, EAGAIN when the file is not the one that was read any more, EFBIG above maxFileSize, which readFile would
//  refuse from then on, or another errno value; the file is then as it was.
//  The file survives a power cut only after flushDirectory.
//  Requires: the lock is held.
int replaceFile(const FilePlace& place, const FileText& before, std::string_view bytes);

//  Flushes the entry of the file in its directory. Returns 0 or an errno value.
int flushDirectory(const FilePlace& place);

}  // namespace rdbopen

#endif
