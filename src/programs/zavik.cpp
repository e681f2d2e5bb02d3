// The picker's entry: everything lives in the library.
#include "driver/zavik_run.h"

int main(int argc, char** argv) { return zavik_main(argc, argv); }
