// The front end of movie-frame weighting: options and movie names in any
// order, then for every movie its checks, the cut-outs of its boxes, its logs
// and the weighted run, and a closing count.
#pragma once
#include "movie/pre_shiny6_run.h"

// The whole run of a command line.  A movie that cannot be weighted (missing
// or unreadable, too few frames, its box file or dose/drift log missing or
// malformed, a malformed CTF weight log) is named with the reason and
// skipped.  Returns 0; failures are thrown as ZkError (status 1, or 0 after
// the option list of an unknown option).
int lombar_run_all(int argc, char** argv, const LombarRunOptions& options = LombarRunOptions());
