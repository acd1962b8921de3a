//  The log interface of the service, and the log levels.
//
//  Levels are signed numbers; a lower number is more severe. A log drops each record whose level is above its own.
//
//      10 err   20 wrn   30 inf   31 mor   40 dbg   999 all
//
//  A log is created once and passed on as a pointer. The pointer is null while there is no log; callers test it. The
//  operator new of a log object takes its memory from the pooled allocator.
//
//  Threads: the logs take no lock. The console log writes a record in several steps, so records of two threads may mix.
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

//  One destination of records.
//
//  In a prtlog, add, append and push return the result of vprintf(3) for the text, or 0 for a dropped record.
//  olk_udplog.h lists their results in a udplog. format and its arguments are those of printf.
class ilog {
public:
    ilog() = default;
    ilog(const ilog&) = delete;
    ilog& operator=(const ilog&) = delete;

    virtual ~ilog();

    //  Sets the destination from a word or a url; see the derived classes. Returns 0, or -1 on failure.
    virtual int open(const char* target) = 0;

    //  Writes one complete record.
    __attribute__((format(printf, 3, 4))) virtual int add(int level, const char* format, ...) = 0;

    //  Writes text that continues the previous record.
    __attribute__((format(printf, 3, 4))) virtual int append(int level, const char* format, ...) = 0;

    //  Writes one complete record with arguments from va_start. Writes tag in brackets before the text, unless tag is
    //  null or empty. The base class does nothing and returns 0.
    __attribute__((format(printf, 4, 0))) virtual int push(int level, const char* tag, const char* format,
                                                           va_list args);

    //  getlevel returns the log's own level, and setlevel sets it. Every number is valid.
    virtual int getlevel() = 0;
    virtual void setlevel(int level) = 0;

    //  A place for periodic maintenance. It does nothing in both logs.
    virtual void runtime() = 0;

    //  Destroys the object. The function release(ilog*) below also accepts null.
    virtual void release() = 0;

    //  Allocates from the pooled allocator. A new expression yields null if memory is exhausted.
    static void* operator new(size_t size) noexcept;
    static void operator delete(void* p) noexcept;
};

//  Destroys log. Does nothing if log is null.
void release(ilog* log);

//  Size of the buffer for level_name in bytes, including the terminator.
constexpr size_t level_name_size = 16;

//  Returns the name of a level, which is the name in the first table row with this number. Without such a row, writes
//  the number in decimal into buffer and returns buffer, or returns "ndf" if the number does not fit. The name of 30 is
//  always "inf": "msg" has the same number, but only level_from_text uses it.
const char* level_name(int level, char (&buffer)[level_name_size]);

//  Returns the level that text names: a name of the table in upper or lower case, or a decimal number as strtol reads
//  it, reduced to 32 bits. text must not be null. Returns 30 for an empty text, for a text that is neither, and for a
//  number that is then 0.
int level_from_text(const char* text);

}  // namespace olk

#endif
