// The FFT layer: the half-spectrum layout, the real 2-D transforms of both back
// ends, and the spectrum kernels from which correlations and filters are made.
//
// Half spectrum of an nx by ny real image: ny rows of nxh = nx/2 + 1 float2,
// element (kx, ky) at ky*nxh + kx.  Row ky is the frequency ky for ky < ny/2
// and ky - ny from ny/2 on.  Both transforms are unnormalised (forward with the
// negative exponent), so an inverse after a forward multiplies by nx*ny.  The
// GPU back end uses cuFFT, the host back end FFTW in single precision, with the
// same layout and scale.  An inverse transform may destroy its input.
#pragma once
#include <cstddef>

#include "core/hd.h"

// ---------------------------------------------------------------------------
// Plans.  A plan prepares one size, one direction and a batch of images that
// follow each other without a gap (nx*ny floats each, nxh*ny float2 each).
// Callers that transform repeatedly hold a plan; the one-shot wrappers below
// take theirs from a cache.  Results are the same either way.
struct ZkFftPlanRec;
typedef ZkFftPlanRec* ZkFftPlan;

ZkFftPlan zk_fft_plan_r2c(int nx, int ny, int batch);
ZkFftPlan zk_fft_plan_c2r(int nx, int ny, int batch);
// Forward: batch real images in, batch half spectra out.  in and out must not
// overlap; on the GPU both must be 8-byte aligned (cuFFT refuses others).
void zk_fft_exec_r2c(ZkFftPlan plan, const float* in, float2* out);
// Inverse: batch half spectra in (destroyed), batch real images out.
void zk_fft_exec_c2r(ZkFftPlan plan, float2* in, float* out);
void zk_fft_plan_destroy(ZkFftPlan plan);

// The plan cache of the one-shot wrappers.  Turning it off makes each call plan
// and destroy its own transform; clearing frees every cached plan.
void zk_fft_set_cache(bool on);
void zk_fft_cache_clear();
// Host threads of FFTW for one transform: 0 chooses by size (the default),
// n >= 1 forces n.  Results do not depend on it.
void zk_fft_set_host_threads(int n);

// Text for a cuFFT result code; "Unkown error" for codes not in the table.
const char* cuFFT_GetErrorString(int result);

// ---------------------------------------------------------------------------
// Transforms on device arrays.
void hcuda_2d_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny);
void hcuda_2d_fft_c2r(float2* in, float* out, unsigned int nx, unsigned int ny);
// The same, then every element divided by sqrt(nx*ny): the pair is unitary.
void hcuda_2d_fft_r2c_normz(const float* in, float2* out, unsigned int nx, unsigned int ny);
void hcuda_2d_fft_c2r_normz(float2* in, float* out, unsigned int nx, unsigned int ny);
// Stacks of nz images, one plan for the whole stack.
void hcuda_2ds_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny, unsigned int nz);
void hcuda_2ds_fft_c2r(float2* in, float* out, unsigned int nx, unsigned int ny, unsigned int nz);
// Each image of a stack: forward transform, then the log modulus into the
// half plane ((nx/2 + 1)*ny floats per image) of out.
void hcuda_2ds_fft_r2c_logmod(const float* in, float* out, unsigned int nx, unsigned int ny, unsigned int nz);

// Staged forms on host arrays, scaled by 1/sqrt(nx*ny); the stack form goes
// image by image and prints one "." when done.  Inputs are kept.
void gpu_2d_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny);
void gpu_2d_fft_c2r(const float2* in, float* out, unsigned int nx, unsigned int ny);
void gpu_2ds_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny, unsigned int nz);

// ---------------------------------------------------------------------------
// Products and origin swaps.
// One element of out = a*conj(b)/scale, with a true division by scale.  The
// search's batched form uses the same body.
HDI void cuda_c2d_multconj_norm(int x, int y, const float2* a, const float2* b, float2* out, int nxh, float scale) {
  const int i = y * nxh + x;
  const float ar = a[i].x, ai = a[i].y, br = b[i].x, bi = b[i].y;
  out[i] = make_f2((ar * br + ai * bi) / scale, (ai * br - ar * bi) / scale);
}
// out = a*conj(b)/scale over nxh by ny elements (a true division).
void hcuda_c2d_multconj_norm(const float2* a, const float2* b, float2* out, unsigned int nxh, unsigned int ny,
                             float scale);
void hcuda_c2d_multconj_norm_inplace(float2* a, const float2* b, unsigned int nxh, unsigned int ny, float scale);
// Zero lag from (0, 0) to (nx/2, ny/2); even sizes.
void hcuda_2d_swap_ccf_inplace(float* a, unsigned int nx, unsigned int ny);
void hcuda_2d_swap_ccf(const float* in, float* out, unsigned int nx, unsigned int ny);
// The in-place swap with both elements divided by f.
void hcuda_2d_swap_norm_ccf_inplace(float* a, unsigned int nx, unsigned int ny, float f);

// Normalised cross-correlation map, zero lag at (nx/2, ny/2).
void hcuda_x2d_ccf(const float* a, const float* b, float* out, unsigned int nx, unsigned int ny);
// Host arrays; the means are subtracted first, on device copies.
void gpu_x2d_ccf(const float* a, const float* b, float* out, unsigned int nx, unsigned int ny);
// Sum of a*b: rows summed in float on the device, the rows added in double.
double hcuda_x2d_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny);
double gpu_x2d_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny);
// Correlation coefficient: both means subtracted, then
// sum(a*b)/sqrt(sum(a*a)*sum(b*b)).  The in-place form subtracts in a and b.
float hcuda_x2d_norm_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny);
float hcuda_x2d_norm_ccc_inplace(float* a, float* b, unsigned int nx, unsigned int ny);
float gpu_x2d_norm_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny);

// ---------------------------------------------------------------------------
// Phase shifts.  The phase of element (kx, ky) of an nx by ny transform for a
// shift (dx, dy), in double, returned as float.
HDI float translation_to_phase_shift_2d(int kx, int ky, int nx, int ny, float dx, float dy) {
  const double pi2 = 2.0 * 3.14159265358979323846;
  const int fy = ky < ny / 2 ? ky : ky - ny;
  return (float)(pi2 * dx * kx / nx + pi2 * dy * fy / ny);
}
// out = in*(cos(phase) + i*sin(phase)); the real size is 2*(nxh - 1) by ny.
void hcuda_c2d_linear_Pshift(const float2* in, float2* out, unsigned int nxh, unsigned int ny, float dx, float dy);
void hcuda_c2d_linear_Pshift_inplace(float2* a, unsigned int nxh, unsigned int ny, float dx, float dy);
// Periodic shift of a real image through its spectrum: the content moves by
// (-dx, -dy).  Even sizes.
void hcuda_2d_shift(const float* in, float* out, unsigned int nx, unsigned int ny, float dx, float dy);
void hcuda_2d_shift_inplace(float* a, unsigned int nx, unsigned int ny, float dx, float dy);
void gpu_2d_shift(const float* in, float* out, unsigned int nx, unsigned int ny, float dx, float dy);
void gpu_2d_shift_inplace(float* a, unsigned int nx, unsigned int ny, float dx, float dy);
// The shift the other way round: the content moves by (+dx, +dy), as a drift
// correction of (dx, dy) is read.
void gpu_2d_shift2(const float* in, float* out, unsigned int nx, unsigned int ny, float dx, float dy);

// ---------------------------------------------------------------------------
// Radial weight on a half spectrum: the frequency r (cycles a pixel) below rc,
// rc*hd_guasf1(r - rc, s/3) beyond it; rc is limited to 0.5.
void hcuda_c2dh_rweight(float2* out, const float2* in, unsigned int nxh, unsigned int ny, float rc, float soft);
void hcuda_c2dh_rweight_inplace(float2* a, unsigned int nxh, unsigned int ny, float rc, float soft);
// The same applied to a real image through the normalised transforms; even sizes.
void hcuda_r2d_rweight(float* out, const float* in, unsigned int nx, unsigned int ny, float rc, float soft);
void hcuda_r2d_rweight_inplace(float* a, unsigned int nx, unsigned int ny, float rc, float soft);

// ---------------------------------------------------------------------------
// Per-element spectrum kernels.  1-D forms over n complex elements; 2-D forms
// over nxh by ny.
void hcuda_c1d_mod(float* out, const float2* c, size_t n);
void hcuda_complex_mod(float* out, const float2* c, size_t n);
void hcuda_complex_mod_square(float* out, const float2* c, size_t n);
void hcuda_complex_logmod(float* out, const float2* c, size_t n);
void hcuda_complex_logmod_forced_positive(float* out, const float2* c, size_t n);
// out[(i + n/2) mod n] = |c[i]|, and its kin.
void hcuda_complex_mod_center_swap(float* out, const float2* c, size_t n);
void hcuda_complex_logmod_center_swap(float* out, const float2* c, size_t n);
void hcuda_complex_mod_addto_center_swap(float* out, const float2* c, size_t n);
void hcuda_complex_mod_weighted_addto_center_swap(float* out, const float2* c, size_t n, float w);
void hcuda_complex_mod_Ws_addto_center_swap(float* out, const float2* c, size_t n, const float* ws);
void hcuda_complex2d_norm(float2* out, const float2* in, unsigned int nxh, unsigned int ny, float f);
void hcuda_complex2d_norm_inplace(float2* a, unsigned int nxh, unsigned int ny, float f);
void hcuda_complex2d_center_swap(float2* out, const float2* in, unsigned int nxh, unsigned int ny);
void hcuda_complex2d_center_swap_norm(float2* out, const float2* in, unsigned int nxh, unsigned int ny, float f);
// Mean of nz spectra of nxh by ny, summed sequentially in float.
void hcuda_c2ds_ave(float2* out, const float2* in, unsigned int nxh, unsigned int ny, unsigned int nz);
// The same for the output of a stack transform of nx by ny images.
void hcuda_c2ds_fftout_r2c_ave(float2* out, const float2* in, unsigned int nx, unsigned int ny, unsigned int nz);
void gpu_c2ds_ave(float2* out, const float2* in, unsigned int nxh, unsigned int ny, unsigned int nz);
void cpu_2ds_fftout_r2c_ave(float2* out, const float2* in, unsigned int nx, unsigned int ny, unsigned int nz);
// Half plane ((nx/2 + 1) by ny floats) to full plane (nx by ny) with the zero
// column at nx/2 - 1, and back.
void hcuda_2d_fft_amp_half2full(float* out, const float* in, unsigned int nx, unsigned int ny);
void hcuda_2d_fft_amp_full2half(float* out, const float* in, unsigned int nx, unsigned int ny);
// Row y goes to row (y + ny/2) mod ny.
void hcuda_float_center_swap(const float* in, float* out, unsigned int nx, unsigned int ny);
