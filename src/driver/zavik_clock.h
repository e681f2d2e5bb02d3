// The stage clock of a run: a stack of timers, TOTAL at the bottom and one
// stage above it.  Closing a timer prints its line.
#pragma once

constexpr int ZK_CLOCK_DEPTH = 1000;

struct ZkStageClock {
  double start[ZK_CLOCK_DEPTH];
  double end[ZK_CLOCK_DEPTH];
  int depth;
};

// Seconds of the wall clock, as tv_sec + tv_usec / 1000000.0.
double zk_wall_seconds();
void zk_clock_init(ZkStageClock* clock);
// Stores the start time at the current depth and goes one level up.
void zk_clock_open(ZkStageClock* clock);
// Goes one level down and prints ">>>>>>TIME<<<<<<%32s: %fs\n" with name and
// the time since the matching open; a skipped stage closes without a line
// (print false).  Returns the elapsed seconds.
double zk_clock_close(ZkStageClock* clock, const char* name, bool print = true);
