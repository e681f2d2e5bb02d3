// The front end's parameters of a weighting run: the option words, their
// defaults, the scan of the command line, the refusals, the echo and the help.
#pragma once
#include <cstdio>

#include "movie/pre_shiny6_run.h"

extern const char* const lombar_version;
extern const char* const lombar_updated_date;

// The help's rows of the options, in this order.
constexpr int LOMBAR_N_OPTION_ROWS = 15;
extern const char* const LOMBAR_OPTIONS[LOMBAR_N_OPTION_ROWS];

// Defaults: apix 1.34, newsize 360, invert 0, first 0, last 0 (all frames),
// the weights of gps_para_default, gid 0, suffixes "_zavik.box" (a),
// "_dose_drift.txt" (b), "_ctfw.txt" (c), do_unfinished 0.
void lombar_init_parameters(LOMBAR_PARA* para);
// Options and movie names in any order.  An unknown option prints the option
// words and throws with status 0; a value option without a value, a name too
// long for its buffer, and the refusals of lombar_check_parameters throw the
// fatal report.  Returns the number of movies.
int lombar_get_parameters(int argc, char** argv, LOMBAR_PARA* para);
// Refuses, before any work, a scheme outside 0 to 3, a norm other than 1 and
// 2, a pixel size not above 0, a negative --newsize, a --first after --last,
// and movies whose output names would not fit.
void lombar_check_parameters(const LOMBAR_PARA* para);
// The frames of a movie of F frames that a run uses: --first of 0, below 0 or
// beyond the last frame means frame 0, --last of 0, below 0 or beyond it the
// last frame.
void lombar_frames_of_movie(const LOMBAR_PARA* para, int F, int& first, int& last);

// The echo: options as given, every value in force, the movies.
void lombar_put_parameters(int argc, char** argv, const LOMBAR_PARA* para);
void lombar_help(const char* name);
void lombar_help_full(const char* name);
void lombar_print_valid_options();
