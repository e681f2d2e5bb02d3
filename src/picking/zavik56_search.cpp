#include "picking/zavik56_search.h"

#include <cmath>
#include <cstdio>

#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"

namespace {

HDI void cuda_update_ccmax_psi_2d(int x, int y, float* ccmax, const float* cc, float* psi, float angle, int nx) {
  const int i = y * nx + x;
  if (ccmax[i] < cc[i]) {
    ccmax[i] = cc[i];
    psi[i] = angle;
  }
}

HDI void cuda_update_ccmax_2d(int x, int y, float* ccmax, const float* cc, int nx) {
  const int i = y * nx + x;
  if (ccmax[i] < cc[i]) ccmax[i] = cc[i];
}

}  // namespace

void hcuda_update_ccmax_psi_2d(float* ccmax, const float* cc, float* psi, float angle, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_update_ccmax_psi_2d(x, y, ccmax, cc, psi, angle, nx); });
}

void hcuda_update_ccmax_2d(float* ccmax, const float* cc, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_update_ccmax_2d(x, y, ccmax, cc, nx); });
}

float zavik_score_divisor(float sum_T2, float sum_mic2_mask, float sum_mask, float R) {
  // The area of the template's disc, in double with this pi, kept as float.
  const float area = (float)((double)R * 3.141592653589793 * (double)R);
  return sqrtf(sum_T2 * sum_mic2_mask * area / sum_mask);
}

int zavik_ccmax_psi_by_one_template(const float* mic, const float* mask, float* ccmax, float* psi, int do_psi, int nx,
                                    int ny, const float* T, int Tx, int Ty, float R, float psi0, float psi1,
                                    float dpsi) {
  const size_t npix = (size_t)nx * ny, nspec = (size_t)(nx / 2 + 1) * ny;
  float* d_T_pad = d_alloc_float(npix);
  float* d_cc = d_alloc_float(npix);
  float* d_T_rot = d_alloc_float((size_t)Tx * Ty);
  float2* d_mic_f = d_alloc_float2(nspec);
  float2* d_T_f = d_alloc_float2(nspec);
  float2* d_cc_f = d_alloc_float2(nspec);
  ZkFftPlan plan_r2c = zk_fft_plan_r2c(nx, ny, 1);
  ZkFftPlan plan_c2r = zk_fft_plan_c2r(nx, ny, 1);
  const bool with_psi = do_psi && psi;

  zk_fft_exec_r2c(plan_r2c, mic, d_mic_f);
  hcuda_2d_empty(d_T_pad, nx, ny);
  hcuda_2d_memset(ccmax, -INFINITY, nx, ny);
  for (float angle = psi0; angle < psi1; angle += dpsi) {
    printf(".");
    fflush(stdout);
    hcuda_2d_rotate(T, d_T_rot, Tx, Ty, angle);
    // The box is wholly rewritten at each angle, so the pad is cleared once.
    hcuda_x2d_cp_small_to_large_center(d_T_pad, d_T_rot, nx, ny, Tx, Ty);
    zk_fft_exec_r2c(plan_r2c, d_T_pad, d_T_f);
    hcuda_c2d_multconj_norm(d_mic_f, d_T_f, d_cc_f, nx / 2 + 1, ny, (float)ny * (float)nx);
    zk_fft_exec_c2r(plan_c2r, d_cc_f, d_cc);
    if (with_psi)
      hcuda_update_ccmax_psi_2d(ccmax, d_cc, psi, angle, nx, ny);
    else
      hcuda_update_ccmax_2d(ccmax, d_cc, nx, ny);
  }
  printf("\n");

  const float D = zavik_score_divisor(hcuda_fast_sumsqr(T, (size_t)Tx * Ty),
                                      hcuda_fast_sumsqr_withmask(mic, mask, npix), hcuda_fast_sum(mask, npix), R);
  hcuda_2d_swap_ccf_inplace(ccmax, nx, ny);
  if (with_psi) hcuda_2d_swap_ccf_inplace(psi, nx, ny);
  hcuda_2d_divide_inplace(ccmax, nx, ny, D);

  zk_fft_plan_destroy(plan_r2c);
  zk_fft_plan_destroy(plan_c2r);
  device_free(d_T_pad);
  device_free(d_cc);
  device_free(d_T_rot);
  device_free(d_mic_f);
  device_free(d_T_f);
  device_free(d_cc_f);
  return 0;
}

int zavik_ccmax_by_one_template(const float* mic, const float* mask, float* ccmax, int nx, int ny, const float* T,
                                int Tx, int Ty, float R, float psi0, float psi1, float dpsi) {
  return zavik_ccmax_psi_by_one_template(mic, mask, ccmax, nullptr, 0, nx, ny, T, Tx, Ty, R, psi0, psi1, dpsi);
}
