// Particle movies cut out of a movie in device memory: the cut-outs of
// particle extraction (the w and h of the list's first box for every box,
// 0.0 beyond the movie's edge, all frames of a particle together, sign
// changed under invert), made a batch of particles at a time where they are
// weighted, so that no particle movie stack needs to lie in host memory or on
// disk.
#pragma once
#include <vector>

#include "core/hd.h"
#include "core/ptcl_box.h"
#include "device/cuda_general.h"

struct LombarCut {
  bool ready = false;
  ZkDeviceArray<float> d_movie;  // nx * ny * nz
  int nx = 0, ny = 0, nz = 0;
  ZkDeviceArray<int2> d_corners;  // the n box corners
  std::vector<PTCL_BOX> boxes;
  int n = 0, w = 0, h = 0;
  int invert = 0;
  void reset();
};

// Reads the box list boxf (at most 10240 boxes; box != 0 makes them box by box
// around their centres) and the whole movie into device memory.  The movie's
// size is checked against its head first (a mismatch throws).  Returns the
// number of particles.
int lombar_cut_prepare(LombarCut& cut, const char* movie, const char* boxf, int box, int invert);
// Frames first .. first + nf - 1 of particles p0 .. p0 + np - 1 into d_dst,
// particle after particle, each frame w by h.
void lombar_cut_to_device(const LombarCut& cut, int p0, int np, int first, int nf, float* d_dst);
// The kernel behind it: cut-out (x, y) of frame f of particle k from section
// first + f of d_movie, at the corner of box p0 + k; times -1 under invert.
void hcuda_2ds_extract_ptcls_from_movie(float* d_dst, int w, int h, int nf, int np, const float* d_movie, int nx,
                                        int ny, int first, const int2* d_corners, int p0, int invert);
