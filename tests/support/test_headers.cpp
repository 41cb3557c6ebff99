// Nothing: the program that it belongs to exists for its precompiled headers.
int main() {}
