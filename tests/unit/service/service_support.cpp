#include "service_support.h"

#include "service_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include <arpa/inet.h>
#include <sys/mman.h>
#include <unistd.h>

void Trace::add(std::string line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
}

Lines Trace::take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
}

RecordingLog::~RecordingLog() = default;

int RecordingLog::add(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    trace_.add(std::to_string(level) + " " + std::string(text, static_cast<std::size_t>(length)));
    std::free(text);
    return length;
}

int RecordingLog::append(int level, const char*, ...) {
    trace_.add(std::to_string(level) + " append");
    return 0;
}

FakeInterfaces::FakeInterfaces() {
    platform::hooks().getifaddrs = [this](ifaddrs** list) { return give(list); };
    platform::hooks().freeifaddrs = [this](ifaddrs* list) {
        if (entries_.empty() || list != &entries_.front().item)
            ++wrong_frees;
        --lists_out;
    };
}

FakeInterfaces::~FakeInterfaces() {
    platform::hooks().getifaddrs = nullptr;
    platform::hooks().freeifaddrs = nullptr;
    clear();
}

void FakeInterfaces::clear() {
    for (const Entry& entry : entries_)
        std::free(entry.address);
    entries_.clear();
}

void FakeInterfaces::append(int family, const void* bytes) {
    Entry entry = {};
    if (family == AF_INET6) {
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        std::memcpy(&address.sin6_addr, bytes, 16);
        entry.address = static_cast<sockaddr*>(std::malloc(sizeof address));
        std::memcpy(entry.address, &address, sizeof address);
    } else if (family != AF_UNSPEC) {
        entry.address = static_cast<sockaddr*>(std::calloc(1, sizeof(sockaddr_in)));
        entry.address->sa_family = static_cast<sa_family_t>(family);
    }
    entries_.push_back(entry);
}

void FakeInterfaces::set(const Lines& addresses) {
    clear();
    for (const std::string& text : addresses) {
        if (text.empty())
            append(AF_UNSPEC, nullptr);
        else if (text == "packet")
            append(AF_PACKET, nullptr);
        else if (text.find(':') == std::string::npos)
            append(AF_INET, nullptr);
        else
            append(AF_INET6, ipv6(text).data());
    }
}

void FakeInterfaces::set(const std::vector<Address>& addresses) {
    clear();
    for (const Address& address : addresses)
        append(AF_INET6, address.data());
}

int FakeInterfaces::give(ifaddrs** list) {
    static char name[] = "lo";
    ++asked;
    if (fails)
        return -1;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        entries_[i].item.ifa_next = i + 1 < entries_.size() ? &entries_[i + 1].item : nullptr;
        entries_[i].item.ifa_addr = entries_[i].address;
        entries_[i].item.ifa_name = name;
        entries_[i].item.ifa_flags = flagless ? 0 : 0x49;
    }
    *list = entries_.empty() ? nullptr : &entries_.front().item;
    if (!entries_.empty())
        ++lists_out;
    return 0;
}

FakeInterfaces::Address ipv6(const std::string& text) {
    FakeInterfaces::Address bytes = {};
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1)
        std::abort();
    return bytes;
}

TempFolder::TempFolder() {
    char name[] = "/tmp/addrpubd-service-XXXXXX";
    path_ = mkdtemp(name);
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

StdoutCapture::StdoutCapture() : saved_(-1), memory_(memfd_create("stdout", MFD_CLOEXEC)) {
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    dup2(memory_, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    close(memory_);
}

std::string StdoutCapture::text() const {
    std::fflush(stdout);
    return readFile("/proc/self/fd/" + std::to_string(memory_));
}

MemoryFile::MemoryFile() : fd_(memfd_create("file", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {}

MemoryFile::~MemoryFile() {
    close(fd_);
}

void MemoryFile::write(const std::string& bytes) const {
    if (ftruncate(fd_, 0) != 0 || pwrite(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        std::abort();
}

namespace {

std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        const char c = text.at(++i);
        if (c == 'x') {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
        }
    }
    return out;
}

}  // namespace

std::vector<Lines> readTable(const std::string& name) {
    std::ifstream file(std::string(TEST_DATA) + "/" + name);
    std::vector<Lines> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line.starts_with("//"))
            continue;
        Lines fields;
        std::istringstream parts(line);
        for (std::string field; std::getline(parts, field, '\t');)
            fields.push_back(unescape(field));
        rows.push_back(fields);
    }
    return rows;
}
