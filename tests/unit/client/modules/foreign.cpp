//  A shared object that is not a module.
extern "C" __attribute__((visibility("default"))) int foreignFunction() {
    return 0;
}
