// Cutting particle boxes out of images and movies, on the host and on the
// device.  A cut-out that hangs over the image's edge is kept whole and filled
// with 0.0 there, except in host_2d_read_ptcls_to_2ds_from_boxes, which skips
// such boxes.
#pragma once
#include <cstddef>

#include "device/hd.h"
#include "formats/boxfile.h"

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
