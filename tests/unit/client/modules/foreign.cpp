//  A shared object that is no module.
extern "C" __attribute__((visibility("default"))) int foreignFunction() {
    return 0;
}
