// Particle extraction: boxes cut out of images and movies, on the host and
// on the device, and the file-level forms that cut every box of a coordinate
// file out of a micrograph.  A cut-out that hangs over the image's edge is
// kept whole and filled with 0.0 there, except in
// host_2d_read_ptcls_to_2ds_from_boxes and the two readers built on it, which
// skip such boxes.
#pragma once
#include <cstddef>

#include "core/hd.h"
#include "core/ptcl_box.h"

// Capacity of a box list read for extraction: particles beyond it are ignored.
constexpr int ZK_EXTRACT_MAX_BOXES = 10240;

// One cut-out of w by h whose corner is (x0, y0) in the nx by ny image src:
// dst(i, j) = src(x0 + i, y0 + j), 0.0 outside src.
int cpu_x2d_extract_small_from_large(float* dst, int w, int h, const float* src, int nx, int ny, int x0, int y0);
// The same cut-out in each of nz sections: section f of dst at f*w*h, of src
// at f*nx*ny.
int cpu_x2d_movie_extract_small_from_large(float* dst, int w, int h, int nz, const float* src, int nx, int ny, int x0,
                                           int y0);
// n boxes of w by h (their corners from boxes) out of one image, particle p at
// p*w*h of dst.
int cpu_x2d_extract_ptcls_from_micrograph(float* dst, int w, int h, int n, const float* image, int nx, int ny,
                                          const PTCL_BOX* boxes);
// The same from nz sections: image f of particle p at (p*nz + f)*w*h, so the
// frames of a particle lie together.
int cpu_x2d_extract_ptcls_from_movie(float* dst, int w, int h, int nz, int n, const float* movie, int nx, int ny,
                                     const PTCL_BOX* boxes);
// n cut-outs with corners from an array of int2.
int cpu_x2d_extract_smalls_from_large(float* dst, int w, int h, int n, const float* src, int nx, int ny,
                                      const int2* corners);
// True when the box of w by h at the record's corner lies inside the image by
// the test of host_2d_read_ptcls_to_2ds_from_boxes (x + w and y + h strictly
// below nx and ny).
bool ptcl_box_inside_image(const PTCL_BOX& box, int w, int h, int nx, int ny);
// Copies each box (all with the w and h of record 0) that lies inside the image
// to its place p*w*h of dst; a box outside gets a warning and its place stays
// unwritten.  Returns the number of boxes copied.
int host_2d_read_ptcls_to_2ds_from_boxes(float* dst, const PTCL_BOX* boxes, int n, const float* image, int nx, int ny);
// The cut-out of cpu_x2d_extract_small_from_large on device arrays.
void hcuda_2d_extract_small_from_large(float* d_dst, int w, int h, const float* d_src, int nx, int ny, int x0, int y0);

// ---- Files

// The first slice of the micrograph name and up to 10240 boxes of boxf, all
// with the size of the first box.  The boxes that lie wholly inside the image
// are copied to their places p * w * h of dst; the others get a warning and
// their places stay unwritten.  Returns the number copied, -1 when the
// micrograph cannot be read.
int mrcf_2d_read_ptcls_to_data_from_boxf(float* dst, const char* name, const char* boxf);
// The same into a new mode 2 stack file out, which holds only the copied
// boxes, in the list's order (a stack meant for classification gets no empty
// images).  Returns the number of images written, -1 as above.
int mrcf_2d_read_ptcls_to_mrcf_from_boxf(const char* out, const char* name, const char* boxf);

// Reads the box list (at most 10240 particles) and the micrograph, cuts the
// stack and writes it beside the micrograph as "<mic>_particles.mrcs", a mode
// 2 stack of (w, h, nz * n).  box: side of the square cut-out in raw pixels, 0
// to keep the list's size; invert: multiply the stack by -1.  Returns 0.
int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic, const char* boxf, int box, int invert);
// The stack alone, newly allocated (free() it): image f of particle p at
// (p * nz + f) * w * h, with the w and h of the list's first record.
float* get_mrcf_data_ptcls(const char* mic, const char* boxf, int box, int invert);
