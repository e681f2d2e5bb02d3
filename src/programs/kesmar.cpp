// The CTF engine's entry: everything lives in the library.
#include "ctf/kesmar.h"

#include "core/report.h"

int main(int argc, char** argv) {
  try {
    KESMAR_A run;
    return run.kesmar_run_all(argc, argv);
  } catch (const ZkError& e) {
    zk_print_error(e);
    return e.status();
  }
}
