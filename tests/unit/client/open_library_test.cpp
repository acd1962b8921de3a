//  The shared library and its modules: soname, exported symbols, needed libraries, and one load of the library.
#include "rdbapi.h"

#include <algorithm>
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

std::set<std::string> exportsOf(const std::string& file) {
    std::istringstream lines(outputOf("nm -D --defined-only " + file));
    std::set<std::string> exported;
    for (std::string address, type, name; lines >> address >> type >> name;)
        exported.insert(name);
    return exported;
}

std::string descriptorOf(std::string backEnd) {
    std::replace(backEnd.begin(), backEnd.end(), '-', '_');
    return "rdbapix64_" + backEnd;
}

TEST(OpenLibrary, ExportsTheNineFunctionsAndNothingElse) {
    const std::set<std::string> functions = {"rdb_create",         "rdb_setmessagenotify", "rdb_connectex",
                                             "rdb_callmsg",        "rdb_tagget",           "rdb_taginport",
                                             "rdb_objputsnapshot", "rdb_disconnect",       "rdb_destory"};
    EXPECT_EQ(exportsOf(LIBRARY_PATH), functions);
}

TEST(OpenLibrary, AModuleExportsItsDescriptorAndNothingElse) {
    std::istringstream names(BACK_ENDS);
    for (std::string name; names >> name;)
        EXPECT_EQ(exportsOf(LIBRARY_FOLDER "/librdbapix64-" + name + ".so"), std::set{descriptorOf(name)});
}

TEST(OpenLibrary, ItsSonameIsTheRelativeName) {
    EXPECT_NE(outputOf("readelf -d " LIBRARY_PATH).find("soname: [./librdbapix64.so]"), std::string::npos);
}

#ifndef SANITIZED  // with a sanitizer the library needs the C++ run-time library
std::set<std::string> neededBy(const std::string& file) {
    std::istringstream lines(outputOf("readelf -dW " + file));
    std::set<std::string> needed;
    for (std::string line; std::getline(lines, line);)
        if (line.find("(NEEDED)") != std::string::npos)
            needed.insert(line.substr(line.find('[')));
    return needed;
}

TEST(OpenLibrary, NeedsOnlyTheCLibrary) {
    std::set<std::string> needed = neededBy(LIBRARY_PATH);
    std::erase_if(needed, [](const std::string& name) { return name.starts_with("[ld-linux-"); });
    EXPECT_EQ(needed, std::set<std::string>{"[libc.so.6]"});
}

TEST(OpenLibrary, AModuleNeedsNoRunTimeLibraryOfCpp) {
    std::istringstream names(BACK_ENDS);
    for (std::string name; names >> name;) {
        const std::set<std::string> needed = neededBy(LIBRARY_FOLDER "/librdbapix64-" + name + ".so");
        EXPECT_TRUE(needed.contains("[libc.so.6]")) << name;
        EXPECT_FALSE(needed.contains("[libstdc++.so.6]")) << name;
        EXPECT_FALSE(needed.contains("[libgcc_s.so.1]")) << name;
    }
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
