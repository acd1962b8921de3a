//  A shared object that needs a library which the dynamic loader does not find.
extern "C" int foreignFunction();
extern "C" __attribute__((visibility("default"))) int needyFunction() {
    return foreignFunction();
}
