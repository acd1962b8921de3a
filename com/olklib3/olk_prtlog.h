//  The console log. It prints each record on standard output and a line feed after it.
//
//      [2025/4/11 09:05:03.042117] [inf] rdburl: sqlite:///var/lib/addrpubd/rdb.db
//      [year/month/day local time with microseconds] [level name] text
//      [...] [inf][tag] text                                               push with a tag
//
//  The log writes nothing until open("stdout"). It opens no file.
//
//  push flushes standard output; add and append do not. If standard output is a pipe or a file, the C library buffers
//  it fully by default (setvbuf(3)). A record of add then stays in the buffer until the buffer is full, standard output
//  is flushed or the process calls exit(3).
#ifndef OLK_PRTLOG_H
#define OLK_PRTLOG_H

#include "olk_log.h"

#include <cstdint>

namespace olk {

class prtlog : public ilog {
public:
    int32_t level;         // records of a higher level are dropped
    int32_t tostdout = 0;  // 1: prints, 0: drops every record

    explicit prtlog(int32_t configured_level = level_dbg) : level(configured_level) {}

    //  If target is "stdout" in upper or lower case, later records are printed unless the level drops them. Otherwise,
    //  also if target is null, every record is dropped. Returns 0.
    int open(const char* target) override;
    __attribute__((format(printf, 3, 4))) int add(int record_level, const char* format, ...) override;
    //  Prints only the text, without prefix and line feed.
    __attribute__((format(printf, 3, 4))) int append(int record_level, const char* format, ...) override;
    __attribute__((format(printf, 4, 0))) int push(int record_level, const char* tag, const char* format,
                                                   va_list args) override;
    int getlevel() override;
    void setlevel(int configured_level) override;
    void runtime() override;
    void release() override;

private:
    bool drops(int record_level) const { return tostdout == 0 || record_level > level; }
};

}  // namespace olk

#endif
