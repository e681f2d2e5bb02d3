// The picker's entry: everything lives in the library.  Under mpirun each
// rank runs the same command line on its share of the micrographs; a rank
// that fails ends the whole job.
#include <cstdio>

#include "driver/zavik_run.h"
#include "parallel/zk_parallel.h"

int main(int argc, char** argv) {
  zk_par_init(&argc, &argv);
  if (zk_par_size() > 1) zk_par_tag_output();
  const int status = zavik_main(argc, argv);
  if (status != 0 && zk_par_size() > 1) {
    fputs(zk_par_failure_line().c_str(), stdout);
    zk_par_abort(status);
  }
  zk_par_finalize();
  return status;
}
