// Particle coordinates: the extended EMAN .box family and the RELION .star
// family, and the line formats of every coordinate file the picker writes.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "core/ptcl_box.h"

// The ceiling of one record array.
constexpr int ZK_MAX_PTCL_BOXES = 10000000;

// Fills boxes (room for max records) from a .box or .star file and returns
// the number of records read.  A file that does not open throws its report; a
// .box line of one to three words ends it with "unrecognized box format!".
int read_all_ptcl_boxes(PTCL_BOX* boxes, int max, const char* name);
// Every record of a .box or .star file, however many there are (up to the
// ceiling of ZK_MAX_PTCL_BOXES); failures as read_all_ptcl_boxes.
std::vector<PTCL_BOX> read_ptcl_box_list(const char* name);
// 1 for a name ending in ".star", 2 for ".box", 0 otherwise (case counts).
int get_boxf_suffixf(const char* name);
int empty_all_ptcl_boxes(PTCL_BOX* boxes, int count);
PTCL_BOX one_new_ptcl_box();
// Square boxes of side box around the old centres.
int resize_ptcl_boxes(PTCL_BOX* boxes, int count, int box);

// Heads of the coordinate .star files; both rewind first.
void output_starbox_head(FILE* stream);
void output_starbox_head_XYonly(FILE* stream);

// The line of each coordinate file of a micrograph.  Every writer of these
// files goes through them, so that the formats stay the same everywhere.
// "_nonunique.box": corner and size in shrunk pixels, score, template, angle.
void write_nonunique_line(FILE* fp, int x, int y, int w, int h, float cc, int t, float psi);
// "_zavik.box": corner and size in raw pixels, score, template, angle.
void write_zavik_box_line(FILE* fp, int x, int y, int w, int h, float cc, int t, float psi);
// "_zavik.star": centre, angle, template, score (the head's column order).
void write_zavik_star_line(FILE* fp, int x, int y, float psi, int t, float cc);
// "_rejected.box": corner and size of a rejected cell, local average and sigma.
void write_rejected_box_line(FILE* fp, int x, int y, int w, int h, float ave, float sigma);
// "_rejected.star": centre of a rejected cell.
void write_rejected_star_line(FILE* fp, int x, int y);

// The boxes of a disc of the given radius around one particle, on a square
// lattice of the given step; the weight exp(-r²/(radius²/4.5))·0.3989423 goes
// to cc and the distance to dist.  Returns the number of records written;
// records beyond max are not written (a warning says so).
int auto_generate_neighbor_boxes(PTCL_BOX* boxes, int max, PTCL_BOX centre, float radius, int box, int step);
// The same with the centres taken from the particles of a coordinate file
// that lie within the radius, in the file's order.
int generate_neighbor_boxes_from_boxf(PTCL_BOX* boxes, int max, PTCL_BOX centre, float radius, int box,
                                      const char* name);

// Every record with non-zero w and h among the first count (by default the
// full ceiling of ZK_MAX_PTCL_BOXES records, so the array must hold that
// many then).
void print_all_ptcl_boxes(const PTCL_BOX* boxes, int count = ZK_MAX_PTCL_BOXES);
void fprint_all_ptcl_boxes(const char* name, const PTCL_BOX* boxes, int count = ZK_MAX_PTCL_BOXES);
// Lines with seven or more words.
int get_ptcl_number_from_boxf(const char* name);
// Grid points x_start, x_start + step_x, ... up to x_end inclusive (x inner),
// likewise in y, as pairs (x, y) into xy (room for max pairs; null only
// counts).  Returns the number of points.
int auto_gridbox_2d(float* xy, int max, float step_x, float x_start, float x_end, float step_y, float y_start,
                    float y_end);
// Writes those points as a .star file of two columns.
int auto_gridboxf_2d(const char* name, float step_x, float x_start, float x_end, float step_y, float y_start,
                     float y_end);
