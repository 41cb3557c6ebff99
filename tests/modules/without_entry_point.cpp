// A shared object that is no module.
extern "C" [[gnu::visibility("default")]] int zu_test_something_else() {
    return 0;
}
