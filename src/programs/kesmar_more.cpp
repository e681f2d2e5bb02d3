// Per-particle defocus, validation and per-frame defocus after a kesmar run.
#include "ctf/kesmar_more.h"

#include "core/report.h"

int main(int argc, char** argv) {
  try {
    return kesmar_more_main(argc, argv);
  } catch (const ZkError& e) {
    zk_print_error(e);
    return e.status();
  }
}
