// Empty on purpose: the program zu_test_headers exists only for its precompiled header.
int main() {}
