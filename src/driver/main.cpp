// The picker's entry: everything lives in the library.
int zavik_main(int argc, char** argv);

int main(int argc, char** argv) { return zavik_main(argc, argv); }
