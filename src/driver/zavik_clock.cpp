#include "driver/zavik_clock.h"

#include <sys/time.h>

#include <cstdio>

#include "core/report.h"

double zk_wall_seconds() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1000000.0;
}

void zk_clock_init(ZkStageClock* clock) { clock->depth = 0; }

void zk_clock_open(ZkStageClock* clock) {
  if (clock->depth >= ZK_CLOCK_DEPTH) ZK_FATAL("too many stage timers open");
  clock->start[clock->depth++] = zk_wall_seconds();
}

double zk_clock_close(ZkStageClock* clock, const char* name, bool print) {
  if (clock->depth <= 0) ZK_FATAL("no stage timer open");
  int d = --clock->depth;
  clock->end[d] = zk_wall_seconds();
  double elapsed = clock->end[d] - clock->start[d];
  if (print) printf(">>>>>>TIME<<<<<<%32s: %fs\n", name, elapsed);
  return elapsed;
}
