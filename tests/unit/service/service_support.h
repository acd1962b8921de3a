//  Shared by the tests of the service: a log that stores its records, a simulated interface list, temporary folders and
//  files, standard output as text, and the tables of tests/data.
#ifndef SERVICE_SUPPORT_H
#define SERVICE_SUPPORT_H

#include "olk_log.h"

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <ifaddrs.h>
#include <netinet/in.h>

using Lines = std::vector<std::string>;

//  A list of events in order, one line each. Any thread may add lines.
class Trace {
public:
    void add(std::string line);
    //  Returns the lines since the last call of take().
    Lines take();

private:
    std::mutex mutex_;
    Lines lines_;
};

//  Adds each record to a trace as "level text". The test owns the object, so release() only counts its calls.
class RecordingLog final : public olk::ilog {
public:
    explicit RecordingLog(Trace& trace) : trace_(trace) {}
    ~RecordingLog() override;

    int open(const char*) override { return 0; }
    __attribute__((format(printf, 3, 4))) int add(int level, const char* format, ...) override;
    __attribute__((format(printf, 3, 4))) int append(int level, const char* format, ...) override;
    int getlevel() override { return olk::level_all; }
    void setlevel(int) override {}
    void runtime() override {}
    void release() override { ++released; }

    int released = 0;

private:
    Trace& trace_;
};

//  Replaces getifaddrs and freeifaddrs while it exists.
class FakeInterfaces {
public:
    using Address = std::array<std::uint8_t, 16>;

    FakeInterfaces();
    ~FakeInterfaces();
    FakeInterfaces(const FakeInterfaces&) = delete;
    FakeInterfaces& operator=(const FakeInterfaces&) = delete;

    //  Sets one entry for each text: an IPv6 or IPv4 address, "packet" for another address family, or "" for an entry
    //  without an address.
    void set(const Lines& addresses);
    //  Sets one IPv6 entry for each address.
    void set(const std::vector<Address>& addresses);

    bool fails = false;     // getifaddrs returns -1
    int asked = 0;          // calls of getifaddrs
    int lists_out = 0;      // lists returned and not freed
    int wrong_frees = 0;    // calls of freeifaddrs with another pointer
    bool flagless = false;  // entries are neither up nor running

private:
    struct Entry {
        ifaddrs item;
        sockaddr* address;  // a separate block of a sockaddr_in6 or sockaddr_in; a sanitizer detects reading beyond it
    };
    void clear();
    void append(int family, const void* bytes);
    int give(ifaddrs** list);

    std::vector<Entry> entries_;
};

//  Returns the address in binary form. Requires a valid address.
FakeInterfaces::Address ipv6(const std::string& text);

class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

//  Number of open descriptors of this process.
std::size_t openDescriptors();

//  Redirects standard output to memory while it exists.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;
    //  Returns all output so far.
    std::string text() const;

private:
    int saved_;
    int memory_;
};

//  A file that exists only in memory, but has a path.
class MemoryFile {
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    void write(const std::string& bytes) const;
    const char* path() const { return path_.c_str(); }

private:
    int fd_;
    std::string path_;
};

//  Returns the rows of a table in tests/data: the fields between tabs, with \n \r \t \\ \xHH replaced. Lines that start
//  with // and empty lines are skipped.
std::vector<Lines> readTable(const std::string& name);

#endif
