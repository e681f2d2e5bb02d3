int zavik_main(int, char**) { return 0; }
