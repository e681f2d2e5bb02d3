// Per-particle CTF: for each particle of a box file the spectra of the boxes
// in a disc around it are averaged and the micrograph's CTF is refined on
// that average; the results go to a particle STAR file "<mic>_local.star"
// and, when asked, a stack of diagnosis pictures "<mic>_local.ctf".
#pragma once
#include <cstdio>
#include <vector>

#include "core/ptcl_box.h"

// Box lists of one call hold at most this many particles.
constexpr int CTF_LOCAL_MAX_BOXES = 10240;

// Weights of the boxes of a disc, for half-plane spectra of nx/2 + 1 by ny
// (nx the box): w[i] = exp(-dist[i]^2/(2 R^2)) for n boxes, and the same
// damped with frequency, exp(-(d^2/(2 R^2)) (s^2 res^2/2)), as one plane or
// as n planes (plane i with d = dist[i]).  Device arrays; the cpu_ forms are
// host loops with the same values.
void hcuda_2ds_fft_amp_local_w1d_gen(float* d_w, int n, const float* d_dist, float R);
void hcuda_2d_fft_amp_local_w2d_gen(float* d_w, int nx, int ny, float d, float R, float apix, float res);
void cpu_2d_fft_amp_local_w2d_gen(float* h_w, int nx, int ny, float d, float R, float apix, float res);
void hcuda_2ds_fft_amp_local_w2ds_gen(float* d_w, int nx, int ny, int n, const float* d_dist, float R, float apix,
                                      float res);
// The 1D half curve of n = nx/2 + 1 samples.
void cpu_2d_fft_amp_local_w1d_gen(float* h_w, int n, float d, float R, float apix, float res);

// Copies the boxes of side box that lie wholly inside the nx by ny image
// d_image into the stack d_out, in list order, and returns how many.
int hcuda_2d_read_ptcls_to_2ds_from_boxes(float* d_out, const float* d_image, int nx, int ny, const PTCL_BOX* boxes,
                                          int n, int box);

// The amplitude spectra of n images of nx by ny, weighted per box (mode 1,
// d_w n floats) or per box and frequency (mode 2, d_w n half planes), as a
// weighted mean; then its logarithm less its convsize box mean.
void hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                                  unsigned int n, const float* d_w, int mode, int convsize);

struct CTF_LOCAL_RESULT {
  int x, y;  // particle centre, pixels
  int n;     // boxes of its disc inside the micrograph; 0 keeps the micrograph's values
  float U, V, A, ccc;
};

// The whole operation for the box file mic_name less its suffix plus
// boxsuffix.  h_image is the nx by ny micrograph (nz is not read).  A missing
// or unreadable box file, one without particles or with a particle centre
// outside the micrograph is reported and the micrograph skipped, with no
// output written.  boxtype 1 (a box file) is the one supported; 2 and 3 and
// any other value throw.  Returns 0 (done or skipped); results, when given,
// receives one record per particle.
int ctf_local_refine(const char* mic_name, const char* boxsuffix, const float* h_image, int nx, int ny, int nz,
                     float radius, int boxsize, float overlap, int write_local_ctf, int boxtype, int use_EPA,
                     int refine_astm, float dstep, float apix, float kV, float Cs, float ac, float ps, float U, float V,
                     float A, float ccc, float err, float B, float resL, float resH, int avetype, FILE* log,
                     std::vector<CTF_LOCAL_RESULT>* results = nullptr);
// The same with the box file named outright; -1 when the micrograph was
// skipped, 0 with the outputs in place.
int ctf_local_refine_boxf(const char* mic_name, const char* box_name, const float* h_image, int nx, int ny,
                          float radius, int boxsize, float overlap, int write_local_ctf, int boxtype, int use_EPA,
                          int refine_astm, float dstep, float apix, float kV, float Cs, float ac, float ps, float U,
                          float V, float A, float ccc, float err, float B, float resL, float resH, int avetype,
                          FILE* log, std::vector<CTF_LOCAL_RESULT>* results = nullptr);
