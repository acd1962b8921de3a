//  A module that needs a library which is not installed.
extern "C" int foreignFunction();
extern "C" __attribute__((visibility("default"))) int needyFunction() {
    return foreignFunction();
}
