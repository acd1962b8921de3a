//  The shared library as the service meets it: its name, what it exports, and one run through it.
#include "rdbapi.h"

#include <cstdio>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>

namespace {

std::string outputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return output;
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe))
        output.push_back(static_cast<char>(c));
    pclose(pipe);
    return output;
}

TEST(OpenLibrary, ExportsTheNineFunctionsAndNothingElse) {
    std::istringstream lines(outputOf("nm -D --defined-only " LIBRARY_PATH));
    std::set<std::string> exported;
    for (std::string address, type, name; lines >> address >> type >> name;)
        exported.insert(name);
    const std::set<std::string> functions = {"rdb_create",         "rdb_setmessagenotify", "rdb_connectex",
                                             "rdb_callmsg",        "rdb_tagget",           "rdb_taginport",
                                             "rdb_objputsnapshot", "rdb_disconnect",       "rdb_destory"};
    EXPECT_EQ(exported, functions);
}

TEST(OpenLibrary, ItsSonameIsTheRelativeName) {
    EXPECT_NE(outputOf("readelf -d " LIBRARY_PATH).find("soname: [./librdbapix64.so]"), std::string::npos);
}

#ifndef SANITIZED  // a sanitizer brings the run-time library along
TEST(OpenLibrary, NeedsNoRunTimeLibraryOfCpp) {
    const std::string dynamic = outputOf("readelf -d " LIBRARY_PATH);
    EXPECT_EQ(dynamic.find("libstdc++"), std::string::npos);
    EXPECT_EQ(dynamic.find("libgcc_s"), std::string::npos);
}
#endif

TEST(OpenLibrary, LoadsAndServesACreate) {
    void* library = dlopen(LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto create = reinterpret_cast<decltype(&rdb_create)>(dlsym(library, "rdb_create"));
    const auto destroy = reinterpret_cast<decltype(&rdb_destory)>(dlsym(library, "rdb_destory"));
    ASSERT_NE(create, nullptr);
    ASSERT_NE(destroy, nullptr);
    const int handle = create();
    EXPECT_GE(handle, 0);
    EXPECT_EQ(destroy(handle), 0);
}

}  // namespace
