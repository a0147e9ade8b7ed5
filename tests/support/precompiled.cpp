// Nothing but the headers that ../CMakeLists.txt has read once for all tests.
int main() {}
