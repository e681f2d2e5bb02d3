// Arithmetic on flat float arrays: the device family (cuda_ per-element
// formulas, hcuda_ wrappers on device arrays), the host family (hm_), the
// host extremes and peak helpers, and the scalar hd_ functions shared by the
// host and every kernel.
//
// Argument order: hcuda_ wrappers take their input arrays, then the output
// array, then the count n, then the float scalars (hcuda_x1d_add(a, b, out, n),
// hcuda_add(a, out, n, s), hcuda_normz_inplace(a, n, sigma, mean)); the host
// family and the staging forms put the output first (hm_add(out, a, n, s),
// hm_normz(out, a, n, sigma, mean)).
//
// Device statistics run in float on a fixed pairwise tree (blocks of 1024,
// adjacent pairs first), so a sum is the same bits on every back end and on
// every run.  Host statistics accumulate in double over the array's order.
#pragma once
#include <cstddef>

#include "core/hd.h"
#include "device/hd_math.h"

// ===========================================================================
// Scalar inline family (host and kernels)

HDI float hd_sqr(float a) { return a * a; }
HDI float hd_sub_sqr(float a, float s) {
  float d = a - s;
  return d * d;
}
HDI float hd_sub_sqr_withmask(float a, float m, float s) {
  float d = a - s;
  return m * (d * d);
}
HDI float hd_sqr_withmask(float a, float m) { return (a * a) * m; }

// 0.39894229*exp(-x^2/(2 s^2)): no 1/s factor, 0.39894229 at x = 0.
HDI float hd_guasf(float x, float s) {
  if (x == 0.0f) return 0.39894229f;
  return 0.39894229f * hd_expf(-(x * x) / (2.0f * s * s));
}
HDI double hd_guas(double x, double s) {
  if (x == 0.0) return 0.39894228;
  return 0.39894228 * hd_exp(-(x * x) / (2.0 * s * s));
}
// exp(-x^2/(2 s^2)): 1 at x = 0, also for s = 0, where every other x gives 0.
HDI float hd_guasf1(float x, float s) {
  if (x == 0.0f) return 1.0f;
  return hd_expf(-(x * x) / (2.0f * s * s));
}
HDI double hd_guas1(double x, double s) {
  if (x == 0.0) return 1.0;
  return hd_exp(-(x * x) / (2.0 * s * s));
}
// B-factor weight exp(-x^2*b/4).
HDI float hd_bfac(float x, float b) { return hd_expf(-(x * x) * b / 4.0f); }

HDI float hd_linear_interpolation(float a, float b, float f) { return (b - a) * f + a; }
HDI float hd_bilinear_interpolation(float v00, float v10, float v01, float v11, float fx, float fy) {
  return v00 + fx * (v10 - v00) + fy * (v01 - v00) + fx * fy * (v00 + v11 - v10 - v01);
}
// vxyz: the bilinear value of the plane z = 0 and of z = 1, mixed by fz.
HDI float hd_trilinear_interpolation(float v000, float v100, float v010, float v110, float v001, float v101,
                                     float v011, float v111, float fx, float fy, float fz) {
  float p0 = hd_bilinear_interpolation(v000, v100, v010, v110, fx, fy);
  float p1 = hd_bilinear_interpolation(v001, v101, v011, v111, fx, fy);
  return (1.0f - fz) * p0 + fz * p1;
}

// Samples at real positions >= 0.  The step to the next sample along an axis
// is taken only when the coordinate has a fraction, so a position on the last
// row, column or plane never reads past it.
HDI float hd_1d_frac_value(const float* a, float x) {
  int ix = (int)x;
  float fx = x - (float)ix;
  int ix1 = fx > 0.0f ? ix + 1 : ix;
  return hd_linear_interpolation(a[ix], a[ix1], fx);
}
HDI float hd_2d_frac_value(const float* a, int nx, float x, float y) {
  int ix = (int)x, iy = (int)y;
  float fx = x - (float)ix, fy = y - (float)iy;
  int ix1 = fx > 0.0f ? ix + 1 : ix;
  int iy1 = fy > 0.0f ? iy + 1 : iy;
  size_t r0 = (size_t)iy * nx, r1 = (size_t)iy1 * nx;
  return hd_bilinear_interpolation(a[r0 + ix], a[r0 + ix1], a[r1 + ix], a[r1 + ix1], fx, fy);
}
HDI float hd_3d_frac_value(const float* a, int nx, int ny, float x, float y, float z) {
  int ix = (int)x, iy = (int)y, iz = (int)z;
  float fx = x - (float)ix, fy = y - (float)iy, fz = z - (float)iz;
  int ix1 = fx > 0.0f ? ix + 1 : ix;
  int iy1 = fy > 0.0f ? iy + 1 : iy;
  int iz1 = fz > 0.0f ? iz + 1 : iz;
  size_t p0 = (size_t)iz * ny * nx, p1 = (size_t)iz1 * ny * nx;
  size_t r0 = (size_t)iy * nx, r1 = (size_t)iy1 * nx;
  return hd_trilinear_interpolation(a[p0 + r0 + ix], a[p0 + r0 + ix1], a[p0 + r1 + ix], a[p0 + r1 + ix1],
                                    a[p1 + r0 + ix], a[p1 + r0 + ix1], a[p1 + r1 + ix], a[p1 + r1 + ix1], fx,
                                    fy, fz);
}

// Neighbour indices of (x, y): nb4 = left, right, up (y-1), down (y+1); nb8
// adds (x-1,y-1), (x+1,y-1), (x-1,y+1), (x+1,y+1).  A step that would leave
// the image is not made, so the neighbour falls back on the element's own row
// or column.
HDI void hd_2d_index_nb4(int nx, int ny, int x, int y, int* idx) {
  int xl = x > 0 ? x - 1 : x, xr = x < nx - 1 ? x + 1 : x;
  int yu = y > 0 ? y - 1 : y, yd = y < ny - 1 ? y + 1 : y;
  idx[0] = y * nx + xl;
  idx[1] = y * nx + xr;
  idx[2] = yu * nx + x;
  idx[3] = yd * nx + x;
}
HDI void hd_2d_index_nb8(int nx, int ny, int x, int y, int* idx) {
  hd_2d_index_nb4(nx, ny, x, y, idx);
  int xl = x > 0 ? x - 1 : x, xr = x < nx - 1 ? x + 1 : x;
  int yu = y > 0 ? y - 1 : y, yd = y < ny - 1 ? y + 1 : y;
  idx[4] = yu * nx + xl;
  idx[5] = yu * nx + xr;
  idx[6] = yd * nx + xl;
  idx[7] = yd * nx + xr;
}
HDI float hd_2d_ave_nb4(const float* a, int nx, int ny, int x, int y) {
  int k[4];
  hd_2d_index_nb4(nx, ny, x, y, k);
  return (a[k[0]] + a[k[1]] + a[k[2]] + a[k[3]]) / 4.0f;
}
// w = 0: mean of the 8 neighbours; otherwise the 4 direct ones count double.
HDI float hd_2d_ave_nb8(const float* a, int nx, int ny, int x, int y, int w) {
  int k[8];
  hd_2d_index_nb8(nx, ny, x, y, k);
  float s4 = a[k[0]] + a[k[1]] + a[k[2]] + a[k[3]];
  float sd = a[k[4]] + a[k[5]] + a[k[6]] + a[k[7]];
  if (w == 0) return (s4 + sd) / 8.0f;
  return (2.0f * s4 + sd) / 12.0f;
}

// Clamps v to the range between a and b, given in either order.
HDI float hd_min_max_bounded(float& v, float a, float b) {
  float lo = a < b ? a : b, hi = a < b ? b : a;
  if (v < lo) v = lo;
  if (v > hi) v = hi;
  return v;
}

// x shifted by whole periods |b - a| into [min(a, b), max(a, b)); x itself
// when a = b.  k is the floor of q = (x - lo)/(hi - lo); a value that the
// rounding of x - k*(hi - lo) puts on hi is taken as lo.
HDI float hd_periodic_equivalent(float x, float a, float b) {
  if (a == b) return x;
  float lo = a < b ? a : b, hi = a < b ? b : a;
  float p = hi - lo;
  float q = (x - lo) / p;
  float k = floorf(q);
  float v = x - k * p;
  if (v >= hi) v -= p;
  if (v < lo || v >= hi) v = lo;
  return v;
}
HDI double hd_periodic_equivalent(double x, double a, double b) {
  if (a == b) return x;
  double lo = a < b ? a : b, hi = a < b ? b : a;
  double p = hi - lo;
  double q = (x - lo) / p;
  double k = floor(q);
  double v = x - k * p;
  if (v >= hi) v -= p;
  if (v < lo || v >= hi) v = lo;
  return v;
}
HDI float hd_mod_angle_m90_p90(float v) { return hd_periodic_equivalent(v, -90.0f, 90.0f); }
HDI double hd_mod_angle_m90_p90(double v) { return hd_periodic_equivalent(v, -90.0, 90.0); }

HDI float2 hd_conj(float2 c) { return make_f2(c.x, -c.y); }
HDI float2 hd_cXc(float2 a, float2 b) { return make_f2(a.x * b.x - a.y * b.y, a.x * b.y + a.y * b.x); }
HDI float2 hd_cXrc(float2 a, float2 b) { return make_f2(a.x * b.x - a.y * b.y, a.x * b.y + a.y * b.x); }
// (cos phi, sin phi).
HDI float2 hd_p2c(float phi) {
  float s, c;
  hd_sincosf(phi, &s, &c);
  return make_f2(c, s);
}

// True when the spatial frequency s (1/A) lies between 1/max(a, b) and
// 1/min(a, b), limits included; a and b are resolutions in A.
HDI bool is_in_res(float s, float a, float b) {
  float lo = a < b ? a : b, hi = a < b ? b : a;
  return 1.0f / hi <= s && s <= 1.0f / lo;
}

// ===========================================================================
// Per-element kernel formulas: thread i of an hcuda_ wrapper of the same name.

HDI void cuda_x1d_add(unsigned int i, const float* a, const float* b, float* out) { out[i] = a[i] + b[i]; }
HDI void cuda_x1d_sub(unsigned int i, const float* a, const float* b, float* out) { out[i] = a[i] - b[i]; }
HDI void cuda_x1d_multi(unsigned int i, const float* a, const float* b, float* out) { out[i] = a[i] * b[i]; }
HDI void cuda_x1d_divide(unsigned int i, const float* a, const float* b, float* out) { out[i] = a[i] / b[i]; }
HDI void cuda_x1d_add_inplace(unsigned int i, float* a, const float* b) { a[i] = a[i] + b[i]; }
HDI void cuda_x1d_sub_inplace(unsigned int i, float* a, const float* b) { a[i] = a[i] - b[i]; }
HDI void cuda_x1d_multi_inplace(unsigned int i, float* a, const float* b) { a[i] = a[i] * b[i]; }
HDI void cuda_x1d_divide_inplace(unsigned int i, float* a, const float* b) { a[i] = a[i] / b[i]; }
HDI void cuda_add(unsigned int i, const float* a, float* out, float s) { out[i] = a[i] + s; }
HDI void cuda_sub(unsigned int i, const float* a, float* out, float s) { out[i] = a[i] - s; }
HDI void cuda_multi(unsigned int i, const float* a, float* out, float s) { out[i] = a[i] * s; }
HDI void cuda_divide(unsigned int i, const float* a, float* out, float s) { out[i] = a[i] / s; }
HDI void cuda_add_inplace(unsigned int i, float* a, float s) { a[i] = a[i] + s; }
HDI void cuda_sub_inplace(unsigned int i, float* a, float s) { a[i] = a[i] - s; }
HDI void cuda_multi_inplace(unsigned int i, float* a, float s) { a[i] = a[i] * s; }
HDI void cuda_divide_inplace(unsigned int i, float* a, float s) { a[i] = a[i] / s; }
HDI void cuda_add_multi(unsigned int i, const float* a, float* out, float s1, float s2) { out[i] = (a[i] + s1) * s2; }
HDI void cuda_multi_add(unsigned int i, const float* a, float* out, float s1, float s2) { out[i] = fmaf(a[i], s1, s2); }
HDI void cuda_multi_add_inplace(unsigned int i, float* a, float s1, float s2) { a[i] = fmaf(a[i], s1, s2); }
HDI void cuda_sub_divide(unsigned int i, const float* a, float* out, float s1, float s2) { out[i] = (a[i] - s1) / s2; }
HDI void cuda_sub_divide_inplace(unsigned int i, float* a, float s1, float s2) { a[i] = (a[i] - s1) / s2; }
HDI void cuda_divide_sub(unsigned int i, const float* a, float* out, float s1, float s2) { out[i] = a[i] / s1 - s2; }
HDI void cuda_sqr(unsigned int i, const float* a, float* out) { out[i] = hd_sqr(a[i]); }
HDI void cuda_sqr_inplace(unsigned int i, float* a) { a[i] = hd_sqr(a[i]); }
HDI void cuda_sub_sqr(unsigned int i, const float* a, float* out, float s) { out[i] = hd_sub_sqr(a[i], s); }
HDI void cuda_data_submean_sqr(unsigned int i, const float* a, float* out, float s) { out[i] = hd_sub_sqr(a[i], s); }
HDI void cuda_data_submean_sqr_withmask(unsigned int i, const float* a, const float* m, float* out, float s) {
  out[i] = hd_sub_sqr_withmask(a[i], m[i], s);
}
HDI void cuda_sqr_withmask(unsigned int i, const float* a, const float* m, float* out) {
  out[i] = hd_sqr_withmask(a[i], m[i]);
}
HDI void cuda_logf(unsigned int i, const float* a, float* out) { out[i] = hd_logf(a[i]); }
HDI void cuda_logf_inplace(unsigned int i, float* a) { a[i] = hd_logf(a[i]); }
HDI void cuda_sqrtf(unsigned int i, const float* a, float* out) { out[i] = sqrtf(a[i]); }
HDI void cuda_sqrtf_inplace(unsigned int i, float* a) { a[i] = sqrtf(a[i]); }
HDI void cuda_addto_float(unsigned int i, float* a, const float* b) { a[i] = a[i] + b[i]; }

// Many-with-one: n rows of L floats.
HDI void cuda_dot_manydata_with_one(unsigned int i, const float* data, const float* one, int L, float* out) {
  const float* row = data + (size_t)i * L;
  float s = 0.0f;
  for (int k = 0; k < L; ++k) s = fmaf(row[k], one[k], s);
  out[i] = s;
}
HDI void cuda_correlation_many_with_one_limited(unsigned int i, const float* data, const float* one, float* out,
                                                int L, int first, int last) {
  const float* row = data + (size_t)i * L;
  float s = 0.0f;
  for (int k = first; k < last; ++k) s = fmaf(row[k], one[k], s);
  out[i] = s;
}
HDI void cuda_sumX_manydata_to_one(unsigned int i, const float* data, float* out, int L) {
  const float* row = data + (size_t)i * L;
  float s = 0.0f;
  for (int k = 0; k < L; ++k) s = s + row[k];
  out[i] = s;
}
HDI void cuda_multiply_manydata_with_one(int x, int y, const float* data, const float* one, float* out, int L) {
  size_t k = (size_t)y * L + x;
  out[k] = data[k] * one[x];
}

// One step of the block tree: slot 2*s*t takes in slot 2*s*t + s.  The GPU
// kernel and the host loop both run it, for s = 1, 2, ..., 512.
HDI void cuda_reduce_step(float* slot, unsigned int t, unsigned int s) {
  unsigned int k = 2u * s * t;
  if (k < 1024u) slot[k] += slot[k + s];
}
// One step of the halving tree of the sum6 family, s = 512, 256, ..., 1.
HDI void cuda_reduce_step6(float* slot, unsigned int t, unsigned int s) {
  if (t < s) slot[t] += slot[t + s];
}

// ===========================================================================
// Device family (device arrays)

// Element by element between two arrays.
void hcuda_x1d_add(const float* a, const float* b, float* out, size_t n);
void hcuda_x1d_sub(const float* a, const float* b, float* out, size_t n);
void hcuda_x1d_multi(const float* a, const float* b, float* out, size_t n);
void hcuda_x1d_divide(const float* a, const float* b, float* out, size_t n);
void hcuda_x1d_add_inplace(float* a, const float* b, size_t n);
void hcuda_x1d_sub_inplace(float* a, const float* b, size_t n);
void hcuda_x1d_multi_inplace(float* a, const float* b, size_t n);
void hcuda_x1d_divide_inplace(float* a, const float* b, size_t n);
// Array with a scalar.
void hcuda_add(const float* a, float* out, size_t n, float s);
void hcuda_sub(const float* a, float* out, size_t n, float s);
void hcuda_multi(const float* a, float* out, size_t n, float s);
void hcuda_divide(const float* a, float* out, size_t n, float s);
void hcuda_add_inplace(float* a, size_t n, float s);
void hcuda_sub_inplace(float* a, size_t n, float s);
void hcuda_multi_inplace(float* a, size_t n, float s);
void hcuda_divide_inplace(float* a, size_t n, float s);
void hcuda_add_multi(const float* a, float* out, size_t n, float s1, float s2);    // (a + s1)*s2
void hcuda_multi_add(const float* a, float* out, size_t n, float s1, float s2);    // fmaf(a, s1, s2)
void hcuda_multi_add_inplace(float* a, size_t n, float s1, float s2);
void hcuda_sub_divide(const float* a, float* out, size_t n, float s1, float s2);   // (a - s1)/s2
void hcuda_sub_divide_inplace(float* a, size_t n, float s1, float s2);
void hcuda_divide_sub(const float* a, float* out, size_t n, float s1, float s2);   // a/s1 - s2
void hcuda_sqr(const float* a, float* out, size_t n);
void hcuda_sqr_inplace(float* a, size_t n);
void hcuda_sub_sqr(const float* a, float* out, size_t n, float s);
void hcuda_data_submean_sqr(const float* a, float* out, size_t n, float s);
void hcuda_data_submean_sqr_withmask(const float* a, const float* m, float* out, size_t n, float s);
void hcuda_sqr_withmask(const float* a, const float* m, float* out, size_t n);
void hcuda_logf(const float* a, float* out, size_t n);
void hcuda_logf_inplace(float* a, size_t n);
void hcuda_sqrtf(const float* a, float* out, size_t n);
void hcuda_sqrtf_inplace(float* a, size_t n);
void hcuda_addto_float(float* a, const float* b, size_t n);
void hcuda_invert_inplace(float* a, size_t n);  // contrast inversion: a*(-1)
void hcuda_apply_mask(const float* a, const float* m, float* out, size_t n);
void hcuda_apply_mask_inplace(float* a, const float* m, size_t n);

// Many-with-one kernels: data holds n rows of L floats.
void hcuda_dot_manydata_with_one(const float* data, const float* one, int L, float* out, size_t n);
void hcuda_correlation_many_with_one_limited(const float* data, const float* one, float* out, int L, size_t n,
                                             int first, int last);
void hcuda_sumX_manydata_to_one(const float* data, float* out, int L, size_t n);
void hcuda_multiply_manydata_with_one(const float* data, const float* one, float* out, int L, size_t n);

// One pass of the block tree: out[b] = tree sum of in[b*1024 .. b*1024+1023]
// (zeros past n), for the (n + 1023) >> 10 blocks.  in and out must differ.
void hcuda_reduce_data_for_sum(const float* in, float* out, size_t n);
// The same pass with its block results stored in a[0 .. (n+1023)>>10).
void hcuda_reduce_data_for_sum_inplace(float* a, size_t n);

// Reductions and statistics, in float; none checks for a sum near zero.
float hcuda_fast_sum(const float* a, size_t n);
// Destroys a: the passes alternate between a and a small work area, and a[0]
// holds the sum on return.  n must fit 32 signed bits.
float hcuda_fast_sum_inplace(float* a, size_t n);
float hcuda_fast_mean(const float* a, size_t n);
float hcuda_fast_sum_withmask(const float* a, const float* m, size_t n);  // sum of a*m
float hcuda_mean_withmask(const float* a, const float* m, size_t n);
float hcuda_fast_sumsqr(const float* a, size_t n);
float hcuda_fast_sumsqr_inplace(float* a, size_t n);  // squares a, then reduces in place
float hcuda_fast_sumsqr_withmask(const float* a, const float* m, size_t n);  // sum of (a*a)*m
float hcuda_fast_submean_sumsqr(const float* a, size_t n);
float hcuda_fast_submean_sumsqr_withmask(const float* a, const float* m, size_t n);
float hcuda_variance(const float* a, size_t n);  // over n
float hcuda_stdv(const float* a, size_t n);
float hcuda_stdv_withmask(const float* a, const float* m, size_t n);
// Another order of summation (two elements 1024 apart at load, then halving);
// nothing depends on it.
float hcuda_fast_sum6(const float* a, size_t n);
float hcuda_fast_sum6_inplace(float* a, size_t n);
// A third order: kSum7Blocks blocks at most (fewer for n below 2048 times as
// many), each thread adding pairs 1024 apart over a grid stride first, then
// the halving tree, and one more block over the block results.  Keeps a.
constexpr unsigned int kSum7Blocks = 64;
float hcuda_reduce_data_for_sum7(const float* a, size_t n);

// Normalisations: sigma first, mean second.
void hcuda_normz_inplace(float* a, size_t n, float sigma, float mean);
void hcuda_norm_withmask_inplace(float* a, const float* m, size_t n, float sigma, float mean);
void hcuda_norm_withmask_applymask_inplace(float* a, const float* m, size_t n, float sigma, float mean);
// Staging forms on host arrays.
void gpu_norm_withmask_applymask_inplace(float* a, const float* m, size_t n, float sigma, float mean);
void gpu_norm_withmask_applymask(float* out, const float* a, const float* m, size_t n, float sigma, float mean);

// ===========================================================================
// Host family (host arrays); sums in double over the array's order.

double hm_sum(const float* a, size_t n);
float hm_sumf(const float* a, size_t n);
double hm_mean(const float* a, size_t n);
float hm_meanf(const float* a, size_t n);
double hm_sum_sqr(const float* a, size_t n);  // sum of a*a
float hm_sum_sqrf(const float* a, size_t n);
double hm_sqr_sum(const float* a, size_t n);  // (sum of a)^2
float hm_sqr_sumf(const float* a, size_t n);
double hm_mod(const float* a, size_t n);
float hm_modf(const float* a, size_t n);
double hm_l2_norm(const float* a, size_t n);
float hm_l2_normf(const float* a, size_t n);
double hm_l1_norm(const float* a, size_t n);
float hm_l1_normf(const float* a, size_t n);
double hm_lp_norm(const float* a, size_t n, float p);
float hm_lp_normf(const float* a, size_t n, float p);
double hm_variance(const float* a, size_t n);  // divisor n
float hm_variancef(const float* a, size_t n);
double hm_stdv(const float* a, size_t n);
float hm_stdvf(const float* a, size_t n);
double hm_svariance(const float* a, size_t n);  // divisor n - 1
float hm_svariancef(const float* a, size_t n);
double hm_sstdv(const float* a, size_t n);
float hm_sstdvf(const float* a, size_t n);
void hm_mean_stdv(const float* a, size_t n, double& mean, double& sd);
void hm_meanf_stdvf(const float* a, size_t n, float& mean, float& sd);
// Mean and deviation after one more value x joins n values; returns the mean.
double hm_update_mean_stdv_by_one_more(double& mean, double& sd, size_t n, double x);

// The sum of a mask: exactly 0 throws the fatal report ("Zero sum of mask!"), below 1e-6
// warns ("Too small sum of mask!").
double hm_sum_check0(const float* m, size_t n);
float hm_sumf_check0(const float* m, size_t n);

void hm_add(float* out, const float* a, size_t n, float s);
void hm_sub(float* out, const float* a, size_t n, float s);
void hm_multi(float* out, const float* a, size_t n, float s);
void hm_divide(float* out, const float* a, size_t n, float s);
void hm_add_inplace(float* a, size_t n, float s);
void hm_sub_inplace(float* a, size_t n, float s);
void hm_multi_inplace(float* a, size_t n, float s);
void hm_divide_inplace(float* a, size_t n, float s);
void hm_invert(float* out, const float* a, size_t n);
void hm_invert_inplace(float* a, size_t n);
void hm_sqr(float* out, const float* a, size_t n);
void hm_sqr_inplace(float* a, size_t n);
void hm_sqrtf(float* out, const float* a, size_t n);
void hm_sqrtf_inplace(float* a, size_t n);
void hm_logf(float* out, const float* a, size_t n);
void hm_logf_inplace(float* a, size_t n);
void hm_multi_add(float* out, const float* a, size_t n, float s1, float s2);  // fmaf(a, s1, s2)
void hm_multi_add_inplace(float* a, size_t n, float s1, float s2);
void hm_add_multi(float* out, const float* a, size_t n, float s1, float s2);  // (a + s1)*s2
void hm_add_multi_inplace(float* a, size_t n, float s1, float s2);
void hm_divide_sub(float* out, const float* a, size_t n, float s1, float s2);  // a/s1 - s2
void hm_divide_sub_inplace(float* a, size_t n, float s1, float s2);
void hm_sub_divide(float* out, const float* a, size_t n, float s1, float s2);  // (a - s1)/s2
void hm_sub_divide_inplace(float* a, size_t n, float s1, float s2);
void hm_sub_sqr(float* out, const float* a, size_t n, float s);  // (a - s)^2
void hm_sub_sqr_inplace(float* a, size_t n, float s);
void hm_linear_norm_kb(float* out, const float* a, size_t n, float k, float b);  // a*k + b
void hm_linear_norm_kb_inplace(float* a, size_t n, float k, float b);
// mean = hm_meanf of the input.
void hm_submean(float* out, const float* a, size_t n);
void hm_submean_inplace(float* a, size_t n);
void hm_submean_sqr(float* out, const float* a, size_t n);
void hm_submean_sqr_inplace(float* a, size_t n);
void hm_submean_abs(float* out, const float* a, size_t n);
void hm_submean_abs_inplace(float* a, size_t n);
void hm_x1d_add(float* out, const float* a, const float* b, size_t n);
void hm_x1d_sub(float* out, const float* a, const float* b, size_t n);
void hm_x1d_multi(float* out, const float* a, const float* b, size_t n);
void hm_x1d_divide(float* out, const float* a, const float* b, size_t n);
void hm_x1d_add_inplace(float* a, const float* b, size_t n);
void hm_x1d_sub_inplace(float* a, const float* b, size_t n);
void hm_x1d_multi_inplace(float* a, const float* b, size_t n);
void hm_x1d_divide_inplace(float* a, const float* b, size_t n);
// Sums of the float product a*b: in double, or (names with f) in float.
double hm_dot(const float* a, const float* b, size_t n);
double hm_sum_weighted(const float* a, const float* w, size_t n);
double hm_sum_withmask(const float* a, const float* m, size_t n);
float hm_dotf(const float* a, const float* b, size_t n);
float hm_sumf_weighted(const float* a, const float* w, size_t n);
float hm_sumf_withmask(const float* a, const float* m, size_t n);
// Sums of a*b*w.
double hm_dot_withmask(const float* a, const float* b, const float* m, size_t n);
double hm_dot_weighted(const float* a, const float* b, const float* w, size_t n);
float hm_dotf_withmask(const float* a, const float* b, const float* m, size_t n);
float hm_dotf_weighted(const float* a, const float* b, const float* w, size_t n);
// hm_dot(a, w) / hm_sum_check0(w).
double hm_mean_weighted(const float* a, const float* w, size_t n);
double hm_mean_withmask(const float* a, const float* m, size_t n);
float hm_meanf_weighted(const float* a, const float* w, size_t n);
float hm_meanf_withmask(const float* a, const float* m, size_t n);
// Sum of (a - mean a)*(b - mean b), not divided.
double hm_covariance(const float* a, const float* b, size_t n);
float hm_covariancef(const float* a, const float* b, size_t n);
float hm_ccc_unnorm(const float* a, const float* b, size_t n);
float hm_ccc_norm_inplace(float* a, float* b, size_t n);
float hm_ccc_norm(const float* a, const float* b, size_t n);
void hm_appply_mask(float* out, const float* a, const float* m, size_t n);
void hm_appply_weights(float* out, const float* a, const float* w, size_t n);
void hm_apply_weights(float* out, const float* a, const float* w, size_t n);
void hm_apply_mask_inplace(float* a, const float* m, size_t n);
void hm_apply_weights_inplace(float* a, const float* w, size_t n);

// Host normalisations, in double.
void hm_normz(float* out, const float* a, size_t n, float sigma, float mean);
void hm_normz_inplace(float* a, size_t n, float sigma, float mean);
// Mask-weighted statistics, target mean 0 and sigma 1; all n elements change.
void hm_normz_withmask(float* out, const float* a, const float* m, size_t n);
void hm_normz_withmask_inplace(float* a, const float* m, size_t n);
void hm_normz_withmask_applymask(float* out, const float* a, const float* m, size_t n);
void hm_normz_withmask_applymask_inplace(float* a, const float* m, size_t n);
void hm_normz_weighted_inplace(float* a, const float* w, size_t n);

// ===========================================================================
// Extremes and peaks on the host: from element 0, the first of equal values
// wins, the mean in double.

int max_min_mean_value(const float* a, size_t n, float& max, float& min, float& mean);
int min_max_mean_value(const float* a, size_t n, float& min, float& max, float& mean);
int min_max_value_and_index(const float* a, size_t n, float& min, size_t& imin, float& max, size_t& imax);
int max_min_value_and_index(const float* a, size_t n, float& max, size_t& imax, float& min, size_t& imin);
int min_value_and_index(const float* a, size_t n, float& min, size_t& imin);
int max_value_and_index(const float* a, size_t n, float& max, size_t& imax);
float min_value(const float* a, size_t n);
float max_value(const float* a, size_t n);
size_t min_index(const float* a, size_t n);
size_t max_index(const float* a, size_t n);
// Index of the greatest a where mask != 0 (first of equals); n when none.
size_t peak_index_masked(const float* a, const int* mask, size_t n);
// Clears the mask over the whole hill of the peak at i.
void peak_make_mask(const float* a, int* mask, size_t n, size_t i);
// The min(n, k) highest separate peaks in falling order; slots past the last
// peak found hold n.
void peak_indices(const float* a, size_t n, size_t* out, size_t k);

// ===========================================================================
// The elementary functions of hd_math.h run element by element on the device,
// so that one back end can be checked against the other.
enum ZkElementary {
  ZK_FN_EXPF,
  ZK_FN_LOGF,
  ZK_FN_SINF,
  ZK_FN_COSF,
  ZK_FN_POWF,  // a^b
  ZK_FN_LOG2F,
  ZK_FN_LOG10F,
  ZK_FN_GUASF,   // hd_guasf(a, b)
  ZK_FN_GUASF1,  // hd_guasf1(a, b)
  ZK_FN_BFAC     // hd_bfac(a, b)
};
void hcuda_x1d_elementary(const float* a, const float* b, float* out, size_t n, int fn);
enum ZkElementaryD { ZK_FN_EXP, ZK_FN_LOG, ZK_FN_LOG2, ZK_FN_LOG10, ZK_FN_EXP2 };
void hcuda_x1d_elementary_d(const double* a, double* out, size_t n, int fn);
