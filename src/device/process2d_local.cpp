#include "device/process2d_local.h"

#include <cstring>

#include "core/report.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"

namespace {

// The disc of one transform size: its half spectrum and its sum.  It depends
// on nothing but the size, R and s, so the spectrum made for the first
// micrograph serves every later one, bit for bit the same.
struct ZkDisc {
  bool used;
  int px, py;
  float R, s;
  ZkDeviceArray<float2> M;  // on the back end that made it
  float W;
};

constexpr int kDiscSlots = 4;
ZkDisc g_discs[kDiscSlots];
int g_next_slot = 0;

bool same_float(float a, float b) { return memcmp(&a, &b, sizeof a) == 0; }

void free_disc(ZkDisc& d) {
  d.M.reset();
  d.used = false;
}

// The disc centred on the half-pixel centre ((px - 1)/2, (py - 1)/2) of the
// transform, its sum by the device tree, and its spectrum.
const ZkDisc& get_disc(int px, int py, float R, float s) {
  const ZkBackend backend = zk_backend();
  for (const ZkDisc& d : g_discs)
    if (d.used && d.M.backend() == backend && d.px == px && d.py == py && same_float(d.R, R) && same_float(d.s, s))
      return d;

  ZkDisc& d = g_discs[g_next_slot];
  g_next_slot = (g_next_slot + 1) % kDiscSlots;
  free_disc(d);
  const size_t n = (size_t)px * py;
  float* mask = d_alloc_float(n);
  hcuda_2d_generate_rmask_soft(mask, px, py, (float)(px - 1) / 2.0f, (float)(py - 1) / 2.0f, R, s);
  d.W = hcuda_fast_sum(mask, n);
  d.M.allocate((size_t)(px / 2 + 1) * py);
  hcuda_2d_fft_r2c(mask, d.M.get(), px, py);
  device_free(mask);
  d.used = true;
  d.px = px;
  d.py = py;
  d.R = R;
  d.s = s;
  return d;
}

// The half spectrum of the image over its period: the image itself, or with
// pad its mirror-padded form of 2nx by 2ny.
void period_spectrum(float2* A, const float* in, int nx, int ny, bool pad) {
  if (!pad) {
    hcuda_2d_fft_r2c(in, A, nx, ny);
    return;
  }
  float* work = d_alloc_float((size_t)4 * nx * ny);
  hcuda_2d_mirror_pad(work, in, nx, ny);
  hcuda_2d_fft_r2c(work, A, 2 * nx, 2 * ny);
  device_free(work);
}

// Correlation with the disc over a px by py period, zero lag moved to the
// centre, divided by the disc's sum, from the image's spectrum A over that
// period.  With pad the period is the mirror-padded image and the quadrant at
// the origin is kept.  The product with the disc goes to prod, which may be A
// when A is not needed afterwards.
void spectrum_mean(float* out, const float2* A, float2* prod, int nx, int ny, float R, float s, bool pad) {
  const int px = pad ? 2 * nx : nx, py = pad ? 2 * ny : ny;
  const ZkDisc& disc = get_disc(px, py, R, s);
  const size_t n = (size_t)px * py;
  float* work = d_alloc_float(n);
  // The division by px*py is the scale of the transform pair.
  hcuda_c2d_multconj_norm(A, disc.M.get(), prod, px / 2 + 1, py, (float)(px * py));
  hcuda_2d_fft_c2r(prod, work, px, py);
  hcuda_2d_swap_ccf_inplace(work, px, py);
  hcuda_2d_divide_inplace(work, px, py, disc.W);
  if (pad)
    hcuda_2d_mirror_pad_inv(out, work, nx, ny);
  else
    ZK_CHECK(memcpy_D2D(out, work, n * sizeof(float)));
  device_free(work);
}

// The same from a spectrum that is kept for further use.
void kept_spectrum_mean(float* out, const float2* A, int nx, int ny, float R, float s, bool pad) {
  const int px = pad ? 2 * nx : nx, py = pad ? 2 * ny : ny;
  float2* prod = d_alloc_float2((size_t)(px / 2 + 1) * py);
  spectrum_mean(out, A, prod, nx, ny, R, s, pad);
  device_free(prod);
}

void local_mean(float* out, const float* in, int nx, int ny, float R, float s, bool pad) {
  const int px = pad ? 2 * nx : nx, py = pad ? 2 * ny : ny;
  float2* A = d_alloc_float2((size_t)(px / 2 + 1) * py);
  period_spectrum(A, in, nx, ny, pad);
  spectrum_mean(out, A, A, nx, ny, R, s, pad);
  device_free(A);
}

// The mean of in comes from its spectrum A (kept) where one is given.
void local_sigma(float* out, const float* in, const float2* A, int nx, int ny, float R, float s, bool pad) {
  float* t = d_alloc_float((size_t)nx * ny);
  if (A)
    kept_spectrum_mean(t, A, nx, ny, R, s, pad);
  else
    local_mean(t, in, nx, ny, R, s, pad);
  hcuda_2d_sqr_inplace(t, nx, ny);
  hcuda_2d_sqr(out, in, nx, ny);
  local_mean(out, out, nx, ny, R, s, pad);
  hcuda_x2d_sub_inplace(out, t, nx, ny);
  hcuda_2d_sqrt_inplace(out, nx, ny);
  device_free(t);
}

void local_reduce(float* a, int nx, int ny, float R, float s, bool pad) {
  float* bg = d_alloc_float((size_t)nx * ny);
  local_mean(bg, a, nx, ny, R, s, pad);
  hcuda_x2d_sub_inplace(a, bg, nx, ny);
  device_free(bg);
}

// A host image through the device: in up, f(d_out, d_in), out down.
template <class F>
void staged(float* out, const float* in, int nx, int ny, F f) {
  const size_t n = (size_t)nx * ny;
  float* d_in = d_alloc_float(n);
  float* d_out = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d_in, in, n * sizeof(float)));
  f(d_out, d_in);
  ZK_CHECK(memcpy_D2H(out, d_out, n * sizeof(float)));
  device_free(d_in);
  device_free(d_out);
}

}  // namespace

void hcuda_2d_bg_mpad(float* out, const float* in, int nx, int ny, float R, float s) {
  local_mean(out, in, nx, ny, R, s, true);
}
void hcuda_2d_bg_mpad_inplace(float* a, int nx, int ny, float R, float s) { local_mean(a, a, nx, ny, R, s, true); }
void hcuda_2d_bg(float* out, const float* in, int nx, int ny, float R, float s) {
  local_mean(out, in, nx, ny, R, s, false);
}
void hcuda_2d_bg_inplace(float* a, int nx, int ny, float R, float s) { local_mean(a, a, nx, ny, R, s, false); }
void hcuda_2d_bg_reduce_inplace(float* a, int nx, int ny, float R, float s) { local_reduce(a, nx, ny, R, s, false); }
void hcuda_2d_bg_reduce_mpad_inplace(float* a, int nx, int ny, float R, float s) {
  local_reduce(a, nx, ny, R, s, true);
}
void hcuda_2d_local_ave_softR(float* out, const float* in, int nx, int ny, float R, float s) {
  hcuda_2d_bg(out, in, nx, ny, R, s);
}
void hcuda_2d_local_ave_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s) {
  hcuda_2d_bg_mpad(out, in, nx, ny, R, s);
}
void hcuda_2d_local_sigma_softR(float* out, const float* in, int nx, int ny, float R, float s) {
  local_sigma(out, in, nullptr, nx, ny, R, s, false);
}
void hcuda_2d_local_sigma_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s) {
  local_sigma(out, in, nullptr, nx, ny, R, s, true);
}

void hcuda_2d_mpad_fft_r2c(float2* out, const float* in, int nx, int ny) { period_spectrum(out, in, nx, ny, true); }
void hcuda_2d_local_ave_softR_mpad_f(float* out, const float2* in_f, int nx, int ny, float R, float s) {
  kept_spectrum_mean(out, in_f, nx, ny, R, s, true);
}
void hcuda_2d_local_sigma_softR_mpad_f(float* out, const float* in, const float2* in_f, int nx, int ny, float R,
                                       float s) {
  local_sigma(out, in, in_f, nx, ny, R, s, true);
}

void gpu_2d_bg(float* out, const float* in, int nx, int ny, float R, float s) {
  staged(out, in, nx, ny, [=](float* o, const float* i) { hcuda_2d_bg(o, i, nx, ny, R, s); });
}
void gpu_2d_bg_inplace(float* a, int nx, int ny, float R, float s) { gpu_2d_bg(a, a, nx, ny, R, s); }
void gpu_2d_bg_mpad(float* out, const float* in, int nx, int ny, float R, float s) {
  staged(out, in, nx, ny, [=](float* o, const float* i) { hcuda_2d_bg_mpad(o, i, nx, ny, R, s); });
}
void gpu_2d_bg_mpad_inplace(float* a, int nx, int ny, float R, float s) { gpu_2d_bg_mpad(a, a, nx, ny, R, s); }
void gpu_2d_local_ave_softR(float* out, const float* in, int nx, int ny, float R, float s) {
  gpu_2d_bg(out, in, nx, ny, R, s);
}
void gpu_2d_local_ave_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s) {
  gpu_2d_bg_mpad(out, in, nx, ny, R, s);
}
void gpu_2d_local_sigma_softR(float* out, const float* in, int nx, int ny, float R, float s) {
  staged(out, in, nx, ny, [=](float* o, const float* i) { hcuda_2d_local_sigma_softR(o, i, nx, ny, R, s); });
}
void gpu_2d_local_sigma_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s) {
  staged(out, in, nx, ny, [=](float* o, const float* i) { hcuda_2d_local_sigma_softR_mpad(o, i, nx, ny, R, s); });
}

void zk_local_disc_cache_clear() {
  for (ZkDisc& d : g_discs) free_disc(d);
  g_next_slot = 0;
}
