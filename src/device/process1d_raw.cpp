#include "device/process1d_raw.h"

#include <cmath>

#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"

HDI void cuda_1d_generate_rmask_soft(unsigned int i, float* mask, float c, float r, float soft) {
  const float d = fabsf((float)i - c);
  if (d > r + soft)
    mask[i] = 0.0f;
  else if (d <= r)
    mask[i] = 1.0f;
  else
    mask[i] = hd_guasf1(d - r, soft / 3.0f);
}
HDI void cuda_1d_mask_A_or_B(unsigned int i, const float* a, const float* b, float* out) {
  out[i] = a[i] > b[i] ? a[i] : b[i];
}
HDI void cuda_1d_mask_A_and_B(unsigned int i, const float* a, const float* b, float* out) { out[i] = a[i] * b[i]; }
HDI void cuda_1d_auto0123(unsigned int i, float* a) { a[i] = (float)i; }

void hcuda_1d_generate_rmask_soft(float* mask, size_t n, float c, float r, float soft) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_1d_generate_rmask_soft(i, mask, c, r, soft); });
}
void cpu_1d_generate_rmask_soft(float* mask, size_t n, float c, float r, float soft) {
  for (size_t i = 0; i < n; ++i) cuda_1d_generate_rmask_soft((unsigned int)i, mask, c, r, soft);
}
void gpu_1d_generate_rmask_soft(float* mask, size_t n, float c, float r, float soft) {
  float* d = d_alloc_float(n);
  hcuda_1d_generate_rmask_soft(d, n, c, r, soft);
  ZK_CHECK(memcpy_D2H(mask, d, n * sizeof(float)));
  device_free(d);
}

void hcuda_1d_mask_A_or_B(const float* a, const float* b, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_1d_mask_A_or_B(i, a, b, out); });
}
void hcuda_1d_mask_A_or_B_inplace(float* a, const float* b, size_t n) { hcuda_1d_mask_A_or_B(a, b, a, n); }
void hcuda_1d_mask_A_and_B(const float* a, const float* b, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_1d_mask_A_and_B(i, a, b, out); });
}
void hcuda_1d_mask_A_and_B_inplace(float* a, const float* b, size_t n) { hcuda_1d_mask_A_and_B(a, b, a, n); }

void cpu_1d_mask_A_or_B(const float* a, const float* b, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) cuda_1d_mask_A_or_B((unsigned int)i, a, b, out);
}
void cpu_1d_mask_A_or_B_inplace(float* a, const float* b, size_t n) { cpu_1d_mask_A_or_B(a, b, a, n); }
void cpu_1d_mask_A_and_B(const float* a, const float* b, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) cuda_1d_mask_A_and_B((unsigned int)i, a, b, out);
}
void cpu_1d_mask_A_and_B_inplace(float* a, const float* b, size_t n) { cpu_1d_mask_A_and_B(a, b, a, n); }

namespace {

// Staging of the two-mask kernels: copy in, one device call, copy out.
template <class F>
void stage_two(const float* a, const float* b, float* out, size_t n, F device_op) {
  float* d_a = d_alloc_float(n);
  float* d_b = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d_a, a, n * sizeof(float)));
  ZK_CHECK(memcpy_H2D(d_b, b, n * sizeof(float)));
  device_op(d_a, d_b, n);
  ZK_CHECK(memcpy_D2H(out, d_a, n * sizeof(float)));
  device_free(d_a);
  device_free(d_b);
}

}  // namespace

void gpu_1d_mask_A_or_B(const float* a, const float* b, float* out, size_t n) {
  stage_two(a, b, out, n, hcuda_1d_mask_A_or_B_inplace);
}
void gpu_1d_mask_A_or_B_inplace(float* a, const float* b, size_t n) { gpu_1d_mask_A_or_B(a, b, a, n); }
void gpu_1d_mask_A_and_B(const float* a, const float* b, float* out, size_t n) {
  stage_two(a, b, out, n, hcuda_1d_mask_A_and_B_inplace);
}
void gpu_1d_mask_A_and_B_inplace(float* a, const float* b, size_t n) { gpu_1d_mask_A_and_B(a, b, a, n); }

void hcuda_1d_auto0123(float* a, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_1d_auto0123(i, a); });
}
void cpu_1d_auto0123(float* a, size_t n) {
  for (size_t i = 0; i < n; ++i) cuda_1d_auto0123((unsigned int)i, a);
}
