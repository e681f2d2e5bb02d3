// The box filter: the raw candidates of a micrograph, written template by
// template, become its final picks.
#pragma once
#include "core/hd.h"

// Merges the raw candidates of raw_name (written template by template in
// shrunk pixels) into the final picks of out_name: one candidate per grid
// cell, competition of neighbouring cells, score cutoff, exclusion list, edge
// test, then raw pixels.  mode 1 writes the .star form, any other the box
// form.  out_name appears only when complete.  Returns 0.
int box_filter(int nx, int ny, float min_dist, float cc_cutoff, float shrink, int box_x, int box_y, int2 origin,
               const char* raw_name, const char* excluded_name, const char* out_name, int mode);
