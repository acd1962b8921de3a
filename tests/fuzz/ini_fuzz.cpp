//  Compares the ini reader with an independent reader of the same grammar.
#include "fuzz_input.h"
#include "ini_model.h"
#include "inifile.h"

#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int file = memfd_create("ini", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    const std::string bytes = fuzz_input(data, size).all();
    require(ftruncate(file, 0) == 0 && pwrite(file, bytes.data(), size, 0) == static_cast<ssize_t>(size),
            "the input can be written to memory");

    const std::vector<IniEvent> expected = modelIniEvents(bytes);
    std::vector<IniEvent> events;
    require(read_ini_file(path.c_str(),
                          [&](const std::string& section, const std::string& key, const std::string& value) {
                              events.emplace_back(section, key, value);
                              return false;
                          }),
            "every file is read");
    require(events == expected, "both readers make the same calls");

    //  If a call of the callback returns true, it must be the last call.
    const size_t stop = expected.empty() ? 0 : size % expected.size();
    size_t calls = 0;
    read_ini_file(path.c_str(),
                  [&](const std::string&, const std::string&, const std::string&) { return calls++ == stop; });
    require(calls == (expected.empty() ? 0 : stop + 1), "reading stops after the callback returns true");
    return 0;
}
