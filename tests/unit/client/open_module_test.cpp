//  Loading a module, with files of which most are not to be used, and the edge of a module that throws.
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

Status loaded(const std::string& name, const Module*& module) {
    return loadModule(modules, name, module);
}

TEST(ModuleLoader, AMissingFileIsNotInstalled) {
    const Module* module = nullptr;
    const Status status = loaded("absent", module);
    EXPECT_EQ(status.code, errorNotInstalled);
    EXPECT_EQ(status.reason,
              "the back end absent is not installed: " + modules + "librdbapix64-absent.so does not exist");
    EXPECT_EQ(module, nullptr);
}

TEST(ModuleLoader, AFolderThatIsAFileHoldsNoModule) {
    const Module* module = nullptr;
    EXPECT_EQ(loadModule("/dev/null/", "absent", module).code, errorNotInstalled);
}

TEST(ModuleLoader, AFileThatIsNoSharedObjectCannotBeLoaded) {
    const opentest::Folder folder;
    const Module* module = nullptr;
    std::ofstream(folder.file("librdbapix64-text.so")) << "This is no shared object.\n";
    const Status status = loadModule(folder.file(""), "text", module);
    EXPECT_EQ(status.code, errorNotLoadable);
    EXPECT_EQ(status.reason.find("the back end text cannot be loaded: " + folder.file("librdbapix64-text.so")), 0U)
        << status.reason;
    EXPECT_EQ(module, nullptr);
}

TEST(ModuleLoader, TheReasonNamesALibraryThatAModuleNeeds) {
    const Module* module = nullptr;
    const Status status = loaded("needy", module);
    EXPECT_EQ(status.code, errorNotLoadable);
    EXPECT_EQ(status.reason.find("the back end needy cannot be loaded: libneeded_by_needy.so: "), 0U) << status.reason;
}

TEST(ModuleLoader, AForeignFileHasNoDescriptor) {
    const Module* module = nullptr;
    const Status status = loaded("foreign", module);
    EXPECT_EQ(status.code, errorNotLoadable);
    EXPECT_EQ(status.reason,
              "the back end foreign cannot be used: " + modules + "librdbapix64-foreign.so is no module of it");
    EXPECT_EQ(module, nullptr);
}

TEST(ModuleLoader, TheModuleOfAnotherBackEndUnderTheNameIsForeign) {
    const opentest::Folder folder;
    const Module* module = nullptr;
    std::filesystem::copy_file(modules + "librdbapix64-throwing.so", folder.file("librdbapix64-other.so"));
    EXPECT_EQ(loadModule(folder.file(""), "other", module).code, errorNotLoadable);
    EXPECT_EQ(module, nullptr);
}

TEST(ModuleLoader, AModuleOfAnotherVersionIsNotUsed) {
    for (const std::string name : {"otherversion", "otherinterface", "noversion"}) {
        const Module* module = nullptr;
        const Status status = loaded(name, module);
        EXPECT_EQ(status.code, errorNotLoadable) << name;
        EXPECT_EQ(status.reason, "the back end " + name + " cannot be used: " + modules + "librdbapix64-" + name +
                                     ".so is not of version " RDBAPI_VERSION ", which the client library has");
        EXPECT_EQ(module, nullptr);
    }
}

TEST(ModuleLoader, AModuleOfThisVersionIsLoadedAndStays) {
    const Module* module = nullptr;
    ASSERT_EQ(loaded("throwing", module).code, errorNone);
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->schemes.front(), "throwing");
    const Module* again = nullptr;
    EXPECT_EQ(loaded("throwing", again).code, errorNone);
    EXPECT_EQ(again, module);
    Dl_info info{};
    ASSERT_NE(dladdr(module, &info), 0);
    void* const file = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(file, nullptr);
    for (int i = 0; i < 3; ++i)
        dlclose(file);  // of all references, also those of the loader
    EXPECT_EQ(module->interface, moduleInterface);
}

TEST(ModuleLoader, NoSymbolOfAModuleIsSeenByTheProgram) {
    const Module* module = nullptr;
    ASSERT_EQ(loaded("throwing", module).code, errorNone);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "rdbapix64_throwing"), nullptr);
}

TEST(ModuleLoader, LeavesTheSignalMaskAsItWas) {
    sigset_t before;
    sigset_t after;
    const Module* module = nullptr;
    sigemptyset(&before);
    sigaddset(&before, SIGUSR1);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (const char* name : {"throwing", "foreign", "absent"})
        static_cast<void>(loaded(name, module));
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMAX; ++signal)
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
}

//  The constructor of the module sees the mask of the thread that loads it.
TEST(ModuleLoader, BlocksTheExitSignalsWhileAModuleIsLoaded) {
    const Module* module = nullptr;
    unsetenv("MASKED_MODULE_BLOCKED");
    static_cast<void>(loaded("masked", module));
    EXPECT_STREQ(getenv("MASKED_MODULE_BLOCKED"), "INT TERM");
}

TEST(FolderOfCode, IsThatOfTheFileWhateverTheWorkingFolderIs) {
    const std::string before = std::filesystem::current_path();
    const Module* module = nullptr;
    ASSERT_EQ(loaded("throwing", module).code, errorNone);
    std::filesystem::current_path("/");
    EXPECT_EQ(folderOfCode(module), std::filesystem::canonical(modules).string() + "/");
    std::filesystem::current_path(before);
}

TEST(FolderOfCode, IsEmptyForAnAddressThatNoFileIsMappedAt) {
    const int onTheStack = 0;
    EXPECT_EQ(folderOfCode(&onTheStack), "");
    EXPECT_EQ(folderOfCode(nullptr), "");
}

class ThrowingModule : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(loaded("throwing", module).code, errorNone); }

    const Module* module = nullptr;
};

struct NoWaiter final : Waiter {
    Result wait(int, short, std::chrono::milliseconds) const noexcept override { return Result::failed; }
};

TEST_F(ThrowingModule, AThrowingMakeIsAFailureWithoutABackEnd) {
    std::unique_ptr<Backend> backend;
    std::string reason;
    EXPECT_EQ(module->make(Url{"throwing", "", "/make", {}}, {}, backend, reason), errorNoResources);
    EXPECT_EQ(reason, "out of memory");
    EXPECT_EQ(backend, nullptr);
}

TEST_F(ThrowingModule, AThrowingAdviceKeepsWhatWasSaid) {
    const Url url;
    const Credentials credentials;
    std::vector<Advice> advice;
    module->advise({url, credentials, "rdburl", "rdbpswd", "h", {}}, advice);
    ASSERT_EQ(advice.size(), 1U);
    EXPECT_EQ(advice[0].text, "rdburl");
}

TEST_F(ThrowingModule, AThrowingRequestIsAFailedBackEnd) {
    std::unique_ptr<Backend> backend;
    std::string text;
    ASSERT_EQ(module->make(Url{"throwing", "", "/", {}}, {}, backend, text), errorNone);
    RdbTag tag{};
    RdbSnapshot record{};
    const Status statuses[] = {backend->open(NoWaiter()),           backend->tags()->get(tag),
                               backend->tags()->import(tag),        backend->tags()->put({&record, 1}),
                               backend->updates()->apply("", text), backend->probe(),
                               backend->tags()->checkValue(record), backend->updates()->checkRequest("")};
    for (const Status& status : statuses) {
        EXPECT_EQ(status.code, errorBackendFailed);
        EXPECT_EQ(status.reason, "out of memory");
    }
    EXPECT_EQ(backend->label(), "");
    EXPECT_EQ(backend->updates()->refusal("", 0), "");
}

}  // namespace
