// Whole MRC files for the file-level commands: reading every sample of a
// file with the checks a command needs, heads for outputs that keep the
// input's pixel size, and a stack written slice by slice that appears under
// its name only when complete.
#pragma once
#include <cstdio>
#include <vector>

#include "core/report.h"
#include "formats/mrcfile.h"
#include "formats/safe_output.h"

// The head and every sample of the file as floats.  A file that does not
// open throws the open report; a mode that cannot be read, a size that is not
// positive, or a file shorter or longer than its head promises throws a
// report naming the file.
void mrcf_read_whole(const char* name, MRC_HEAD* head, std::vector<float>& data);
// Opens the file and reads its head with the same checks, for reading slice
// by slice.
void mrcf_open_checked(const char* name, ZkFilePtr& fp, MRC_HEAD* head);
// The first slice (nx by ny floats) only; the same checks on the head.
void mrcf_read_first_slice(const char* name, MRC_HEAD* head, std::vector<float>& data);
// Throws a report naming the file and its sizes unless nx = ny = nz; what
// says which operation needs the cube.
void mrc_require_cube(const char* name, const MRC_HEAD* head, const char* what);

// Pixel size in A from the cell (xlen / mx), or 0 when the head holds none.
float mrc_head_apix(const MRC_HEAD* head);
// Sizes nx, ny, nz and a cell of apix per pixel on every axis (mx = nx ...).
void mrc_set_head_xyz_apix(MRC_HEAD* head, int nx, int ny, int nz, float apix);
// A mode 2 head for nx by ny by nz floats: a copy of in (null: a new head)
// with its pixel size kept.
void mrc_head_for_output(MRC_HEAD* out, const MRC_HEAD* in, int nx, int ny, int nz);

// A float stack written slice by slice: the head first, its extremes and
// mean filled in when the stack is finished, then the file renamed into
// place.  Dropped unfinished, it leaves nothing under the name.
class ZkMrcStackWriter {
 public:
  // head gives the sizes of a slice and the cell; nz is counted.
  ZkMrcStackWriter(const char* name, const MRC_HEAD& head);
  void add(const float* slice);
  int count() const { return nz_; }
  // Writes the final head (nz = the slices added) and commits the file.
  void finish();

 private:
  ZkOutFile out_;
  MRC_HEAD head_;
  FILE* fp_;
  int nz_ = 0;
  double sum_ = 0.0;
  float min_ = 0.0f, max_ = 0.0f;
};
