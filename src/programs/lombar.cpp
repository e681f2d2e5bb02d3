// The movie-frame weighting's entry: everything lives in the library.
#include "core/report.h"
#include "movie/lombar_run.h"

int main(int argc, char** argv) {
  try {
    return lombar_run_all(argc, argv);
  } catch (const ZkError& e) {
    zk_print_error(e);
    return e.status();
  }
}
