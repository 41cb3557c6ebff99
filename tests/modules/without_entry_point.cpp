// A shared object that is not a module.
extern "C" [[gnu::visibility("default")]] int zu_test_something_else() {
    return 0;
}
