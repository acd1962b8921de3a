//  Loading a module, mostly from files that must be refused; and exceptions that a module throws.
#include "module/loader.h"
#include "open_support.h"

#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace {

using namespace rdbopen;

const std::string modules = MODULES "/";  // the folder of the test's modules

Result<const Module*> loaded(const std::string& name) {
    return loadModule(modules, name);
}

TEST(ModuleLoader, AMissingFileIsNotInstalled) {
    const Status status = loaded("absent").status();
    EXPECT_EQ(status.code, errorNotInstalled);
    EXPECT_EQ(status.reason,
              "the back end absent is not installed: " + modules + "librdbapix64-absent.so does not exist");
}

TEST(ModuleLoader, AFileInPlaceOfTheFolderContainsNoModule) {
    EXPECT_EQ(loadModule("/dev/null/", "absent").status().code, errorNotInstalled);
}

TEST(ModuleLoader, AFileThatIsNotASharedObjectCannotBeLoaded) {
    const opentest::Folder folder;
    std::ofstream(folder.file("librdbapix64-text.so")) << "This is no shared object.\n";
    const Status status = loadModule(folder.file(""), "text").status();
    EXPECT_EQ(status.code, errorNotLoadable);
    EXPECT_EQ(status.reason.find("the back end text cannot be loaded: " + folder.file("librdbapix64-text.so")), 0U)
        << status.reason;
}

TEST(ModuleLoader, TheReasonNamesAMissingLibraryThatAModuleNeeds) {
    const Status status = loaded("needy").status();
    EXPECT_EQ(status.code, errorNotLoadable);
    EXPECT_EQ(status.reason.find("the back end needy cannot be loaded: libneeded_by_needy.so: "), 0U) << status.reason;
}

TEST(ModuleLoader, AForeignFileHasNoDescriptor) {
    const Status status = loaded("foreign").status();
    EXPECT_EQ(status.code, errorNotLoadable);
    EXPECT_EQ(status.reason, "the back end foreign cannot be used: " + modules +
                                 "librdbapix64-foreign.so is not a module of this back end");
}

TEST(ModuleLoader, TheModuleOfAnotherBackEndIsRefused) {
    const opentest::Folder folder;
    std::filesystem::copy_file(modules + "librdbapix64-throwing.so", folder.file("librdbapix64-other.so"));
    EXPECT_EQ(loadModule(folder.file(""), "other").status().code, errorNotLoadable);
}

TEST(ModuleLoader, AModuleOfAnotherVersionIsNotUsed) {
    for (const std::string name : {"otherversion", "otherinterface", "noversion"}) {
        const Status status = loaded(name).status();
        EXPECT_EQ(status.code, errorNotLoadable) << name;
        EXPECT_EQ(status.reason, "the back end " + name + " cannot be used: " + modules + "librdbapix64-" + name +
                                     ".so is not of version " RDBAPI_VERSION ", which the client library has");
    }
}

TEST(ModuleLoader, AModuleOfThisVersionIsLoadedAndStays) {
    const Result<const Module*> module = loaded("throwing");
    ASSERT_TRUE(module.ok());
    EXPECT_EQ((*module)->schemes.front(), "throwing");
    const Result<const Module*> again = loaded("throwing");
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(*again, *module);
    Dl_info info{};
    ASSERT_NE(dladdr(*module, &info), 0);
    void* const file = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(file, nullptr);
    for (int i = 0; i < 3; ++i)
        dlclose(file);  // drops all references to the file, also those of the loader
    EXPECT_EQ((*module)->interface, moduleInterface);
}

TEST(ModuleLoader, NoSymbolOfAModuleIsVisibleToTheProgram) {
    const Result<const Module*> module = loaded("throwing");
    ASSERT_TRUE(module.ok());
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "rdbapix64_throwing"), nullptr);
}

TEST(ModuleLoader, LeavesTheSignalMaskUnchanged) {
    sigset_t before;
    sigset_t after;
    sigemptyset(&before);
    sigaddset(&before, SIGUSR1);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (const char* name : {"throwing", "foreign", "absent"})
        static_cast<void>(loaded(name));
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMAX; ++signal)
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
}

//  The constructor of the loaded module records whether the thread that loads it blocks SIGINT and SIGTERM.
TEST(ModuleLoader, BlocksTheExitSignalsWhileAModuleIsLoaded) {
    unsetenv("MASKED_MODULE_BLOCKED");
    static_cast<void>(loaded("masked"));
    EXPECT_STREQ(getenv("MASKED_MODULE_BLOCKED"), "INT TERM");
}

TEST(FolderOfCode, IsTheFoldersPathInAnotherWorkingDirectory) {
    const std::string before = std::filesystem::current_path();
    const Result<const Module*> module = loaded("throwing");
    ASSERT_TRUE(module.ok());
    std::filesystem::current_path("/");
    const Result<std::string> folder = folderOfCode(*module);
    ASSERT_TRUE(folder.ok());
    EXPECT_EQ(*folder, std::filesystem::canonical(modules).string() + "/");
    std::filesystem::current_path(before);
}

TEST(FolderOfCode, FailsForAnAddressOutsideAllMappedFiles) {
    const int onTheStack = 0;
    for (const void* const address : {static_cast<const void*>(&onTheStack), static_cast<const void*>(nullptr)}) {
        const Status status = folderOfCode(address).status();
        EXPECT_EQ(status.code, errorNotLoadable);
        EXPECT_EQ(status.reason, "/proc/self/maps does not contain the path of the client library");
    }
}

class ThrowingModule : public testing::Test {
protected:
    void SetUp() override {
        const Result<const Module*> found = loaded("throwing");
        ASSERT_TRUE(found.ok());
        module = *found;
    }

    const Module* module = nullptr;
};

struct NoWaiter final : Waiter {
    Result wait(int, short, std::chrono::milliseconds) const noexcept override { return Result::failed; }
};

TEST_F(ThrowingModule, AnExceptionFromMakeIsAFailureWithoutABackEnd) {
    const Status status = module->make(Url{"throwing", "", "/make", {}}, {}).status();
    EXPECT_EQ(status.code, errorNoResources);
    EXPECT_EQ(status.reason, "out of memory");
}

TEST_F(ThrowingModule, AnExceptionFromAdviceKeepsTheAdviceSoFar) {
    const Url url;
    const Credentials credentials;
    std::vector<Advice> advice;
    module->advise({url, credentials, "rdburl", "rdbpswd", "h", {}}, advice);
    ASSERT_EQ(advice.size(), 1U);
    EXPECT_EQ(advice[0].text, "rdburl");
}

TEST_F(ThrowingModule, AnExceptionFromARequestIsAFailureOfTheBackEnd) {
    const BackendResult made = module->make(Url{"throwing", "", "/", {}}, {});
    ASSERT_TRUE(made.ok());
    const std::unique_ptr<Backend>& backend = *made;
    std::string text;
    RdbTag tag{};
    RdbSnapshot record{};
    const Status statuses[] = {backend->open(NoWaiter()),           backend->tags()->get(tag),
                               backend->tags()->import(tag),        backend->tags()->put({&record, 1}),
                               backend->updates()->apply("", text), backend->probe(),
                               backend->tags()->checkValue(record), backend->tags()->refresh(record, tag),
                               backend->updates()->checkRequest("")};
    for (const Status& status : statuses) {
        EXPECT_EQ(status.code, errorBackendFailed);
        EXPECT_EQ(status.reason, "out of memory");
    }
    EXPECT_EQ(backend->label(), "");
    EXPECT_EQ(backend->updates()->refusal("", 0), "");
    EXPECT_EQ(backend->updates()->repetition("", ""), std::nullopt);
}

}  // namespace
