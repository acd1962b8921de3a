//  Compares the settings that addrpubd-check prints with the settings that the service reads from the same file, and
//  with those that a model reads. Checks that the output contains no password.
#include "check.h"
#include "check_model.h"
#include "fuzz_input.h"
#include "ini_model.h"
#include "level_model.h"

#include <algorithm>
#include <map>

#include <netdb.h>
#include <sys/mman.h>
#include <unistd.h>

//  Replaces the resolver, so that no input causes a query to a name server.
extern "C" int __wrap_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
    return EAI_NONAME;
}

namespace {

constexpr char secret[] = "S3cr3t-Zq9xKw";

void storeAsTheServiceDoes(const std::string& bytes, CRunCls& run) {
    static const int file = memfd_create("ini", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    require(ftruncate(file, 0) == 0 &&
                pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "the input can be written to memory");
    require(run.loadConfig(path.c_str()), "every file is read");
}

void storeAsTheModelDoes(const std::string& bytes, CRunCls& run) {
    const std::map<std::string, std::string*> texts = {
        {"hostname", &run.hostname}, {"logurl", &run.logurl}, {"rdburl", &run.rdburl},   {"rdbuser", &run.rdbuser},
        {"rdbpswd", &run.rdbpswd},   {"dnsurl", &run.dnsurl}, {"dnsuser", &run.dnsuser}, {"dnspswd", &run.dnspswd}};
    for (const auto& [section, key, value] : modelIniEvents(bytes)) {
        const std::string name = modelLowerCase(key);
        if (const auto text = texts.find(name); text != texts.end())
            *text->second = value;
        if (name != "dnshttpsports")
            continue;
        run.dnshttpsports.clear();
        for (const std::uint16_t port : modelPorts(value))
            run.dnshttpsports.push_back(port);
    }
}

std::string check_one(const std::string& bytes) {
    CRunCls run;
    storeAsTheServiceDoes(bytes, run);
    check::CReport report;
    require(check::checkBytes(bytes, report), "every file is examined");
    CRunCls model;
    storeAsTheModelDoes(bytes, model);
    for (const CRunCls* settings : {&run, &model}) {
        const std::string row = disagreement(report.table, *settings);
        require(row.empty(), row.c_str());
    }
    require(run.hostname.find_first_of(std::string("'\"():\0", 6)) == std::string::npos || report.exitStatus() == 2,
            "a host name that is refused is an error");
    require(!run.hostname.empty() || report.exitStatus() == 2, "a missing host name is an error");
    const std::string text = report.text();
    require(std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7f); }),
            "the output has only printable ASCII and line feeds");
    return text;
}

//  Returns the input, a line that sets rdbpswd, and the input again. The password is the secret between two parts of
//  the input. It starts with p, because after `file:` it would be the path of a file, which is not secret.
std::string with_secret(const std::string& bytes) {
    std::string line = bytes.substr(0, bytes.size() / 2);
    line.erase(std::remove(line.begin(), line.end(), '\n'), line.end());
    const std::size_t middle = line.size() / 2;
    return bytes + "\nrdbpswd = p" + line.substr(0, middle) + secret + line.substr(middle) + "\n" + bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes = fuzz_input(data, size).all();
    check_one(bytes);
    if (bytes.find(secret) == std::string::npos)
        require(check_one(with_secret(bytes)).find(secret) == std::string::npos, "no password is shown");
    return 0;
}
