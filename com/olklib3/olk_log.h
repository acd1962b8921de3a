//  The abstract log that every message of the service goes through, and the level scheme.
//
//  Levels are signed numbers; a smaller one is more severe. A log drops every record whose level is above its own.
//
//      10 err   20 wrn   30 inf   31 mor   40 dbg   999 all
//
//  A log is made once and handed around as one pointer, which is null while there is none; callers test it. Log objects
//  live in the pooled allocator.
//
//  Threads: the sinks take no lock. A console record is several writes, so records of two threads may interleave there.
#ifndef OLK_LOG_H
#define OLK_LOG_H

#include <cstdarg>
#include <cstddef>

namespace olk {

constexpr int level_err = 10;
constexpr int level_wrn = 20;
constexpr int level_inf = 30;
constexpr int level_mor = 31;
constexpr int level_dbg = 40;
constexpr int level_all = 999;

//  One sink of records.
//
//  add, append and push return 0 for a record that the level drops, a negative value for a sink that cannot write or a
//  record that cannot be formatted, else what the underlying write returned. format and its arguments are printf's.
class ilog {
public:
    ilog() = default;
    ilog(const ilog&) = delete;
    ilog& operator=(const ilog&) = delete;

    virtual ~ilog();

    //  Configures the sink from a target word or a url; see the sinks. Returns 0, or -1 on failure.
    virtual int open(const char* target) = 0;

    //  Writes one complete record.
    __attribute__((format(printf, 3, 4))) virtual int add(int level, const char* format, ...) = 0;

    //  Writes text that continues the record before it.
    __attribute__((format(printf, 3, 4))) virtual int append(int level, const char* format, ...) = 0;

    //  Writes one complete record from arguments already started, with a tag in brackets unless it is null or empty.
    //  The base does nothing and returns 0.
    __attribute__((format(printf, 4, 0))) virtual int push(int level, const char* tag, const char* format,
                                                           va_list args);

    //  Reads and sets the log's own level. Every number is valid.
    virtual int getlevel() = 0;
    virtual void setlevel(int level) = 0;

    //  Periodic housekeeping.
    virtual void runtime() = 0;

    //  Destroys the object. For a pointer that may be null, use release(ilog*) below.
    virtual void release() = 0;

    //  From the pooled allocator; a new that finds no memory gives null.
    static void* operator new(size_t size) noexcept;
    static void operator delete(void* p) noexcept;
};

//  Destroys log; does nothing when it is null.
void release(ilog* log);

//  Bytes of the buffer that level_name may need, terminator included.
constexpr size_t level_name_size = 16;

//  Returns the name of the first table row with this number, else the number in decimal, written into buffer (or "ndf"
//  when that does not fit). 30 is always "inf": the name "msg" shares its number and is found by name only.
const char* level_name(int level, char (&buffer)[level_name_size]);

//  Returns the level that text names: a name of the table in any case, else a decimal number read as strtol reads it and
//  cut to 32 bits. text may not be null. An empty text, a text that is no number and the number 0 give 30.
int level_from_text(const char* text);

}  // namespace olk

#endif
