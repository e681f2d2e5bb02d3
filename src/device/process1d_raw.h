// Flat masks: the 1-D soft mask and the union and intersection of two masks,
// on the device (hcuda_), staged (gpu_) and on the host (cpu_).
#pragma once
#include <cstddef>

// With d = |i - c|: 1 up to r, hd_guasf1(d - r, soft/3) up to r + soft
// (1 at r), 0 beyond.
void hcuda_1d_generate_rmask_soft(float* mask, size_t n, float c, float r, float soft);
void gpu_1d_generate_rmask_soft(float* mask, size_t n, float c, float r, float soft);
void cpu_1d_generate_rmask_soft(float* mask, size_t n, float c, float r, float soft);

// A or B: the larger of the two values; A and B: their product.
void hcuda_1d_mask_A_or_B(const float* a, const float* b, float* out, size_t n);
void hcuda_1d_mask_A_or_B_inplace(float* a, const float* b, size_t n);
void hcuda_1d_mask_A_and_B(const float* a, const float* b, float* out, size_t n);
void hcuda_1d_mask_A_and_B_inplace(float* a, const float* b, size_t n);
void gpu_1d_mask_A_or_B(const float* a, const float* b, float* out, size_t n);
void gpu_1d_mask_A_or_B_inplace(float* a, const float* b, size_t n);
void gpu_1d_mask_A_and_B(const float* a, const float* b, float* out, size_t n);
void gpu_1d_mask_A_and_B_inplace(float* a, const float* b, size_t n);
void cpu_1d_mask_A_or_B(const float* a, const float* b, float* out, size_t n);
void cpu_1d_mask_A_or_B_inplace(float* a, const float* b, size_t n);
void cpu_1d_mask_A_and_B(const float* a, const float* b, float* out, size_t n);
void cpu_1d_mask_A_and_B_inplace(float* a, const float* b, size_t n);

// a[i] = i.
void hcuda_1d_auto0123(float* a, size_t n);
void cpu_1d_auto0123(float* a, size_t n);
