// The picker as a RELION External job: everything lives in the library.
#include <cstdio>
#include <exception>

#include "core/report.h"
#include "driver/relion_job.h"

int main(int argc, char** argv) {
  try {
    return zavik_relion_job(argc, argv);
  } catch (const ZkError& e) {
    zk_print_error(e);
  } catch (const std::exception& e) {
    fflush(stdout);
    fprintf(stderr, "zavik_relion: %s\n", e.what());
  }
  relion_job_mark_failure(argc, argv);
  return 1;
}
