// The box filter: the raw candidates of a micrograph, written template by
// template, become its final picks.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "core/hd.h"
#include "core/ptcl_box.h"

// One final pick: the position in raw pixels (the shrunk position times
// shrink), the score, the template and the angle.
struct ZkPick {
  float fx, fy;
  float cc;
  int32_t t;
  float psi;
};

// The picks from the raw candidates, given as the text of "_nonunique.box"
// lines (corner and size in shrunk pixels, score, template, angle): one
// candidate per grid cell of diagonal min_dist, competition of neighbouring
// cells, score cutoff, the excluded positions (raw pixels), and only boxes of
// box_x by box_y wholly inside the nx by ny micrograph (shrunk pixels).  Cell
// order.
std::vector<ZkPick> box_filter_picks(int nx, int ny, float min_dist, float cc_cutoff, float shrink, int box_x,
                                     int box_y, int2 origin, const char* raw, size_t raw_len, const PTCL_BOX* excluded,
                                     int n_excluded);
// The picks as "_zavik.star" (mode 1, head and centres) or "_zavik.box"
// (any other mode, corners) lines.
void write_box_filter_picks(FILE* fp, const std::vector<ZkPick>& picks, int mode, int box_x, int box_y, int2 origin);

// The same from the files: the raw candidates of raw_name and the whole
// exclusion list of excluded_name (none for a null name or an unreadable
// file) into the picks of out_name, which appears only when complete.
// Returns 0.
int box_filter(int nx, int ny, float min_dist, float cc_cutoff, float shrink, int box_x, int box_y, int2 origin,
               const char* raw_name, const char* excluded_name, const char* out_name, int mode);
