// Simulated CTF curves and planes in the engine's layouts, and the score of a
// trial point against a measured spectrum.
//
// Layouts (all float, row-major):
//   1D half (1dh): n = box/2 + 1 samples, s = i / (2 (n - 1) apix), theta 0.
//   2D half (2dh, 2d_half): nx = box/2 + 1 by ny = box, Y = y - ny/2,
//       s = sqrt(x^2 + Y^2) / (2 (nx - 1) apix), theta = atan2(Y, x); row ny/2
//       holds ky = 0 (the half spectrum with its origin moved to (0, ny/2)).
//   2D full (2d): nx by ny, X = x - nx/2, Y = y - ny/2, s = sqrt(X^2 + Y^2) / (nx apix).
// A sample outside the band 1/resL <= s <= 1/resH is written as 0.  hcuda_
// forms work on device arrays, gpu_ forms on host arrays through a device
// buffer, cpu_ forms are host loops with the same per-sample value.
#pragma once
#include "core/hd.h"
#include "ctf/ctf_core.h"

// ---------------------------------------------------------------------------
// Curves and planes of |C| exp(-B s^2/4), C the contrast.

// 1D half with defocus Z; the band limits may come in either order.
void hcuda_ctf_mod_simulate_1d(float* d, float apix, int n, float ps, float kV, float Cs, float ac, float Z, float B,
                               float resL, float resH);
// The continuous phase gamma + ps*pi/180 + asin(ac); B is not read.
void hcuda_ctf_phase_simulate_1d(float* d, float apix, int n, float ps, float kV, float Cs, float ac, float Z, float B,
                                 float resL, float resH);
// m equal rows of the 1D curve.
void hcuda_ctf_mod_simulate_1ds(float* d, float apix, int n, int m, float ps, float kV, float Cs, float ac, float Z,
                                float B, float resL, float resH);
// Row j with the defocus d_Z[j] (device array of m values).
void hcuda_ctf_mod_simulate_1ds_multi_defocus(float* d, float apix, int n, float ps, float kV, float Cs, float ac,
                                              const float* d_Z, int m, float B, float resL, float resH);
void hcuda_ctf_mod_simulate_2d(float* d, float apix, int nx, int ny, float ps, float kV, float Cs, float ac, float U,
                               float V, float A, float B, float resL, float resH);
// Note the order: kV first, ps after ac.
void hcuda_ctf_mod_simulate_2d_half(float* d, float apix, int nx, int ny, float kV, float Cs, float ac, float ps,
                                    float U, float V, float A, float B, float resL, float resH);
void hcuda_ctf_mod_simulate_2d_half2(float* d, float apix, int nx, int ny, const CTF_INFO* ctf, RESO reso);
// C^2 exp(-B s^2/4).
void hcuda_ctf_modsquare_simulate_2d_half(float* d, float apix, int nx, int ny, float ps, float kV, float Cs, float ac,
                                          float U, float V, float A, float B, float resL, float resH);
void hcuda_ctf_modsquare_simulate_2d_half2(float* d, float apix, int nx, int ny, const CTF_INFO* ctf, RESO reso);

// ---------------------------------------------------------------------------
// The score.  d = real * |C| exp(-B s^2/4) over the 2D half plane.
void hcuda_ctf_sim_mul_real_2d_half(float* d, const float* real, float apix, int nx, int ny, float kV, float Cs,
                                    float ac, float ps, float U, float V, float A, float B, float resL, float resH);
// The sum of those products: the unnormalised score of every defocus trial.
// d (nx*ny floats) is overwritten.
float ctf_ccc_sim_with_real_2d_half(float* d, const float* real, float apix, int nx, int ny, float kV, float Cs,
                                    float ac, float ps, float U, float V, float A, float B, float resL, float resH);
// The same with the products written over real itself.
float ctf_ccc_sim_with_real_2d_half_inplace(float* real, float apix, int nx, int ny, float kV, float Cs, float ac,
                                            float ps, float U, float V, float A, float B, float resL, float resH);

// Complex half-layout samples copied where C > 0 and negated elsewhere.
void hcuda_2d_half_phase_flip(const float2* in, float2* out, float apix, int nx, int ny, float ps, float kV, float Cs,
                              float ac, float U, float V, float A);
// out = in^2 in the band.
void hcuda_2d_half_res_based_square(float* out, const float* in, float apix, int nx, int ny, float resL, float resH);
// a = a*b in the band.
void hcuda_x2d_half_res_based_multiply_inplace(float* a, const float* b, float apix, int nx, int ny, float resL,
                                               float resH);

// ---------------------------------------------------------------------------
// The record family: a sample holds hd_ctfinfo_s_r of its frequency and
// azimuth for the mode letter (see hd_ctf_mode_value).
void hcuda_ctf_sim_1dh(float* d, int n, float apix, CTF_INFO ctf, RESO reso, char mode);
void gpu_ctf_sim_1dh(float* h, int n, float apix, CTF_INFO ctf, RESO reso, char mode);
void cpu_ctf_sim_1dh(float* h, int n, float apix, CTF_INFO ctf, RESO reso, char mode);
void hcuda_ctf_sim_2dh(float* d, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode);
void gpu_ctf_sim_2dh(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode);
void cpu_ctf_sim_2dh(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode);
void hcuda_ctf_sim_2d(float* d, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode);
void gpu_ctf_sim_2d(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode);
void cpu_ctf_sim_2d(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode);
// d = raw times the simulated value; the dot form returns the sum.
void hcuda_ctf_simXraw_2dh(float* d, const float* raw, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode);
float hcuda_ctf_sim_dot_raw_2dh(float* d, const float* raw, int nx, int ny, float apix, CTF_INFO ctf, RESO reso,
                                char mode);
// m planes, plane k with ctfs[k].
void hcuda_ctf_sim_1dhs(float* d, int n, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void gpu_ctf_sim_1dhs(float* h, int n, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void cpu_ctf_sim_1dhs(float* h, int n, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void hcuda_ctf_sim_2dhs(float* d, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void gpu_ctf_sim_2dhs(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void cpu_ctf_sim_2dhs(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void hcuda_ctf_sim_2ds(float* d, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void gpu_ctf_sim_2ds(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
void cpu_ctf_sim_2ds(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode);
// Record-free forms: after apix kV, Cs, ac, ps, then Z (1D) or U, V, A (2D),
// then B, resL, resH, mode.
void hcuda_ctf_sim_1dh_c(float* d, unsigned int n, float apix, float kV, float Cs, float ac, float ps, float Z, float B,
                         float resL, float resH, char mode);
void gpu_ctf_sim_1dh_c(float* h, unsigned int n, float apix, float kV, float Cs, float ac, float ps, float Z, float B,
                       float resL, float resH, char mode);
void cpu_ctf_sim_1dh_c(float* h, unsigned int n, float apix, float kV, float Cs, float ac, float ps, float Z, float B,
                       float resL, float resH, char mode);
void hcuda_ctf_sim_2dh_c(float* d, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                         float U, float V, float A, float B, float resL, float resH, char mode);
void gpu_ctf_sim_2dh_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                       float U, float V, float A, float B, float resL, float resH, char mode);
void cpu_ctf_sim_2dh_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                       float U, float V, float A, float B, float resL, float resH, char mode);
void hcuda_ctf_sim_2d_c(float* d, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                        float U, float V, float A, float B, float resL, float resH, char mode);
void gpu_ctf_sim_2d_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                      float U, float V, float A, float B, float resL, float resH, char mode);
void cpu_ctf_sim_2d_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                      float U, float V, float A, float B, float resL, float resH, char mode);
// Row i (at d + i*n) with defocus Z[i] (a host array).
void hcuda_ctf_sim_1dhs_c(float* d, unsigned int n, float apix, int m, float kV, float Cs, float ac, float ps,
                          const float* Z, float B, float resL, float resH, char mode);
void gpu_ctf_sim_1dhs_c(float* h, unsigned int n, float apix, int m, float kV, float Cs, float ac, float ps,
                        const float* Z, float B, float resL, float resH, char mode);
void cpu_ctf_sim_1dhs_c(float* h, unsigned int n, float apix, int m, float kV, float Cs, float ac, float ps,
                        const float* Z, float B, float resL, float resH, char mode);
// Phase flip without records: a half-layout complex sample is negated where
// sin(phase) < 0.  The real form transforms an nx by ny image, flips its
// spectrum and transforms back (the image keeps its scale).
void hcuda_phase_flip_c2dh_c(float2* d, unsigned int nxh, unsigned int ny, float apix, float kV, float Cs, float ac,
                             float ps, float U, float V, float A);
void hcuda_phase_flip_r2dh_c(float* d_image, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac,
                             float ps, float U, float V, float A);
void gpu_phase_flip_r2dh_c(float* h_image, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac,
                           float ps, float U, float V, float A);

// The same plane as hcuda_ctf_mod_simulate_2d, all in double on the host.
void host_ctf_simulate_2d(float* d, float apix, int nx, int ny, float ps, float kV, float Cs, float ac, float U,
                          float V, float A, float B, float resL, float resH);
