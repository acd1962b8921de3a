//  Compares addrpubd-check with the service, on generated files.
#include "check.h"

#include "backends.h"
#include "check_model.h"
#include "olk_udplog.h"
#include "recording_rdb.h"
#include "service_platform.h"
#include "service_support.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>

#include <netinet/in.h>

#include <gtest/gtest.h>

namespace {

using namespace check;

constexpr char secret[] = "S3cr3t-Zq9xKw";

class Generator {
public:
    explicit Generator(unsigned seed) : random_(seed) {}

    std::string file() {
        std::string bytes = oneIn(8) ? "\xEF\xBB\xBF" : "";
        for (std::size_t lines = below(14); lines > 0; --lines)
            bytes += line() + end();
        return bytes;
    }

private:
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_); }
    bool oneIn(std::size_t n) { return below(n) == 0; }

    template <std::size_t N>
    std::string oneOf(const char* const (&words)[N]) {
        return words[below(N)];
    }

    std::string noise() {
        static constexpr char alphabet[] = "abcXYZ019 \t,.:/-_'\"()=[]\\\x01\x1b\x7f\x80\xc3\xa9\xff";
        std::string text;
        for (std::size_t left = below(12); left > 0; --left)
            text += alphabet[below(sizeof alphabet - 1)];
        return text;
    }

    std::string end() {
        static constexpr const char* ends[] = {"\n", "\n",   "\n",        "\n",      "\r\n",
                                               "\r", "\n\n", " ; note\n", "#note\n", ";\n"};
        return oneOf(ends);
    }

    //  Two thirds of the values are words of settings, so that the start often gets past the first checks.
    std::string value() {
        static constexpr const char* words[] = {"h1",
                                                "host.example",
                                                "stdout",
                                                "udp://192.0.2.1:5140/netsvc",
                                                "log:",
                                                "log:",
                                                "sqlite:///x",
                                                "hosts:///x",
                                                "443",
                                                "443, 8443,x,70000",
                                                "user",
                                                "gopher://h/x",
                                                "file:/nonexistent/a b",
                                                "000000000000000000000000000000000000001,2"};
        return oneIn(3) ? noise() : oneOf(words);
    }

    std::string password() {
        return oneIn(6)   ? std::string()
               : oneIn(3) ? secret
               : oneIn(2) ? noise() + secret + noise()
                          : noise() + "#" + secret;
    }

    std::string line() {
        static constexpr const char* keys[] = {"hostname", "hostname", "logurl",   "rdburl", "rdburl",       "rdbuser",
                                               "dnsurl",   "dnsuser",  "Rdb User", "ttl",    "dnshttpsports"};
        static constexpr const char* passwords[] = {"rdbpswd", "dnspswd", "rdb pswd", "RDBPSWD", "rdbpasswd"};
        switch (below(12)) {
        case 0:
            return "junk";
        case 1:
            return "[sec" + noise() + "]";
        case 2:
            return "# " + noise();
        case 3:
            return noise();
        case 4:
        case 5:
        case 6:
            return oneOf(passwords) + " = " + password();
        default:
            return oneOf(keys) + "=" + value();
        }
    }

    std::mt19937 random_;
};

//  Returns the result of rdb_connectex of the open client library for this server.
int refusal(const std::string& url, const std::string& user, const std::string& password) {
    return rdbopen::makeBackend(url.c_str(), {user.c_str(), password.c_str()}).status().code;
}

bool complete(const std::string& url, const std::string& user, const std::string& password) {
    return !url.empty() && !user.empty() && !password.empty();
}

//  Makes the recording client library answer like the open client library.
void scriptConnections(const CRunCls& run) {
    std::size_t index = 0;
    recording_rdb::reset();
    if (complete(run.rdburl, run.rdbuser, run.rdbpswd))
        recording_rdb::script_result(recording_rdb::Function::connectex, index++,
                                     refusal(run.rdburl, run.rdbuser, run.rdbpswd));
    if (complete(run.dnsurl, run.dnsuser, run.dnspswd))
        recording_rdb::script_result(recording_rdb::Function::connectex, index,
                                     refusal(run.dnsurl, run.dnsuser, run.dnspswd));
}

class CheckModel : public testing::Test {
protected:
    CheckModel() {
        platform::reset();
        platform::hooks().getaddrinfo = [](const char* name, addrinfo** list) {
            static sockaddr_in address = {AF_INET, 0, {htonl(0xC0000201)}, {}};
            static addrinfo entry = {0, AF_INET, SOCK_DGRAM, 0, sizeof address, nullptr, nullptr, nullptr};
            entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
            *list = &entry;
            return std::strcmp(name, "192.0.2.1") == 0 ? 0 : EAI_NONAME;
        };
        platform::hooks().readlink = [this](const char*, char* target, std::size_t) {
            const std::string program = folder.file("addrpubd");
            std::memcpy(target, program.data(), program.size());
            return static_cast<ssize_t>(program.size());
        };
        //  The UDP log gets no socket, so that the service sends nothing when it starts.
        platform::hooks().socket = [](int, int, int) { return -1; };
    }
    ~CheckModel() override {
        platform::reset();
        recording_rdb::reset();
    }

    TempFolder folder;
};

TEST_F(CheckModel, PredictsWhatTheServiceStoresFor3000Files) {
    Generator generator(20250411);
    const MemoryFile file;
    for (int i = 0; i < 3000; ++i) {
        const std::string bytes = generator.file();
        file.write(bytes);
        CRunCls run;
        ASSERT_TRUE(run.loadConfig(file.path()));
        CReport report;
        ASSERT_TRUE(checkBytes(bytes, report));
        ASSERT_EQ(disagreement(report.table, run), "") << testing::PrintToString(bytes);
    }
}

TEST_F(CheckModel, PredictsWhetherTheServiceStartsFor2000Files) {
    Generator generator(443);
    const std::string path = folder.file("addrpubd.ini");
    int starts = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string bytes = generator.file();
        writeFile(path, bytes);
        CRunCls run;
        ASSERT_TRUE(run.loadConfig(path.c_str()));
        scriptConnections(run);
        bool started;
        {
            const StdoutCapture out;
            started = run.start();
        }
        CReport report;
        ASSERT_TRUE(checkBytes(bytes, report));
        ASSERT_EQ(report.exitStatus() != 2, started) << report.text() << testing::PrintToString(bytes);
        starts += started ? 1 : 0;
    }
    EXPECT_GT(starts, 200);
    EXPECT_LT(starts, 1800);
}

TEST_F(CheckModel, NoSecretIsInTheOutputFor2000Files) {
    Generator generator(23213);
    int secrets = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string bytes = generator.file();
        secrets += bytes.find(secret) != std::string::npos ? 1 : 0;
        CReport report;
        ASSERT_TRUE(checkBytes(bytes, report));
        for (std::size_t length = 5, start = 0; start + length < sizeof secret; ++start)
            ASSERT_EQ(report.text().find(std::string(secret + start, length)), std::string::npos)
                << report.text() << testing::PrintToString(bytes);
    }
    EXPECT_GT(secrets, 1000);
}

TEST_F(CheckModel, NoControlCharacterIsInTheOutputFor1000Files) {
    Generator generator(999);
    for (int i = 0; i < 1000; ++i) {
        CReport report;
        ASSERT_TRUE(checkBytes(generator.file(), report));
        const std::string text = report.text();
        ASSERT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7f); }))
            << testing::PrintToString(text);
    }
}

}  // namespace
