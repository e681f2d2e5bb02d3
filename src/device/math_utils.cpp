#include "device/math_utils.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/report.h"
#include "device/cuda_general.h"
#include "device/launch.h"

// ===========================================================================
// The block reduction.
//
// One pass: block b sums elements b*1024 .. b*1024+1023 (zeros past n) by the
// fixed tree of cuda_reduce_step and stores the result in out[b].  What a
// block sums is given by a load functor, so a sum of squares or of a*m reads
// its values straight from the arrays: the tree sees the same floats as if the
// products had been written to a work array first.

// Loads of the first pass.
struct ZkLoad {
  const float* a;
  HDI float operator()(unsigned int i) const { return a[i]; }
};
struct ZkLoadSqr {
  const float* a;
  HDI float operator()(unsigned int i) const { return hd_sqr(a[i]); }
};
struct ZkLoadMulti {
  const float* a;
  const float* m;
  HDI float operator()(unsigned int i) const { return a[i] * m[i]; }
};
struct ZkLoadSqrMask {
  const float* a;
  const float* m;
  HDI float operator()(unsigned int i) const { return hd_sqr_withmask(a[i], m[i]); }
};
struct ZkLoadSubSqr {
  const float* a;
  float s;
  HDI float operator()(unsigned int i) const { return hd_sub_sqr(a[i], s); }
};
struct ZkLoadSubSqrMask {
  const float* a;
  const float* m;
  float s;
  HDI float operator()(unsigned int i) const { return hd_sub_sqr_withmask(a[i], m[i], s); }
};

#if defined(__CUDACC__)
// 4096 bytes of dynamic shared memory: one slot per thread.  The barrier
// stands outside the test of the step, so every thread reaches it equally
// often.
template <class L>
__global__ void cuda_reduce_data_for_sum(L load, float* out, unsigned int n) {
  extern __shared__ float slot[];
  unsigned int t = threadIdx.x;
  unsigned int i = blockIdx.x * 1024u + t;
  slot[t] = i < n ? load(i) : 0.0f;
  for (unsigned int s = 1; s < 1024u; s <<= 1) {
    __syncthreads();
    cuda_reduce_step(slot, t, s);
  }
  if (t == 0) out[blockIdx.x] = slot[0];
}

// The sum6 order: two elements 1024 apart at load, then halving strides.
template <class L>
__global__ void cuda_reduce_data_for_sum6(L load, float* out, unsigned int n) {
  extern __shared__ float slot[];
  unsigned int t = threadIdx.x;
  unsigned int i = blockIdx.x * 2048u + t;
  float v0 = i < n ? load(i) : 0.0f;
  float v1 = i + 1024u < n ? load(i + 1024u) : 0.0f;
  slot[t] = v0 + v1;
  for (unsigned int s = 512u; s >= 1u; s >>= 1) {
    __syncthreads();
    cuda_reduce_step6(slot, t, s);
  }
  if (t == 0) out[blockIdx.x] = slot[0];
}

// The sum7 order: each thread first adds pairs (i, i + 1024) over a grid
// stride of 2048 times the blocks, then the halving tree.
template <class L>
__global__ void cuda_reduce_data_for_sum7(L load, float* out, unsigned int n) {
  extern __shared__ float slot[];
  unsigned int t = threadIdx.x;
  const size_t stride = (size_t)gridDim.x * 2048u;
  float v = 0.0f;
  for (size_t i = (size_t)blockIdx.x * 2048u + t; i < n; i += stride)
    v = v + (load((unsigned int)i) + (i + 1024u < n ? load((unsigned int)(i + 1024u)) : 0.0f));
  slot[t] = v;
  for (unsigned int s = 512u; s >= 1u; s >>= 1) {
    __syncthreads();
    cuda_reduce_step6(slot, t, s);
  }
  if (t == 0) out[blockIdx.x] = slot[0];
}
#endif

// One pass over n values into (n + 1023) >> 10 block results.  out must not
// overlap what load reads.
template <class L>
void zk_reduce_pass(L load, float* out, size_t n) {
  const unsigned int nb = (unsigned int)((n + 1023) >> 10);
#if defined(__CUDACC__)
  if (zk_on_gpu()) {
    cuda_reduce_data_for_sum<<<dim3(nb, 1, 1), dim3(1024, 1, 1), 4096>>>(load, out, (unsigned int)n);
    zk_sync_check(zk_basename(__FILE__), __LINE__);
    return;
  }
#endif
  const long long nbl = nb;
#pragma omp parallel for schedule(static) if ((long long)n >= ZK_OMP_MIN)
  for (long long b = 0; b < nbl; ++b) {
    float slot[1024];
    const size_t base = (size_t)b << 10;
    if (base + 1024 <= n) {
      for (unsigned int t = 0; t < 1024u; ++t) slot[t] = load((unsigned int)(base + t));
    } else {
      for (unsigned int t = 0; t < 1024u; ++t) {
        size_t i = base + t;
        slot[t] = i < n ? load((unsigned int)i) : 0.0f;
      }
    }
    for (unsigned int s = 1; s < 1024u; s <<= 1)
      for (unsigned int t = 0; t < 512u / s; ++t) cuda_reduce_step(slot, t, s);
    out[b] = slot[0];
  }
}

template <class L>
void zk_reduce_pass6(L load, float* out, size_t n) {
  const unsigned int nb = (unsigned int)((n + 2047) >> 11);
#if defined(__CUDACC__)
  if (zk_on_gpu()) {
    cuda_reduce_data_for_sum6<<<dim3(nb, 1, 1), dim3(1024, 1, 1), 4096>>>(load, out, (unsigned int)n);
    zk_sync_check(zk_basename(__FILE__), __LINE__);
    return;
  }
#endif
  const long long nbl = nb;
#pragma omp parallel for schedule(static) if ((long long)n >= ZK_OMP_MIN)
  for (long long b = 0; b < nbl; ++b) {
    float slot[1024];
    const size_t base = (size_t)b << 11;
    for (unsigned int t = 0; t < 1024u; ++t) {
      size_t i = base + t;
      float v0 = i < n ? load((unsigned int)i) : 0.0f;
      float v1 = i + 1024 < n ? load((unsigned int)(i + 1024)) : 0.0f;
      slot[t] = v0 + v1;
    }
    for (unsigned int s = 512u; s >= 1u; s >>= 1)
      for (unsigned int t = 0; t < s; ++t) cuda_reduce_step6(slot, t, s);
    out[b] = slot[0];
  }
}

// One sum7 pass of nb blocks over n values into out[0 .. nb).
static void zk_reduce_pass7(const float* a, float* out, size_t n, unsigned int nb) {
#if defined(__CUDACC__)
  if (zk_on_gpu()) {
    cuda_reduce_data_for_sum7<<<dim3(nb, 1, 1), dim3(1024, 1, 1), 4096>>>(ZkLoad{a}, out, (unsigned int)n);
    zk_sync_check(zk_basename(__FILE__), __LINE__);
    return;
  }
#endif
  const size_t stride = (size_t)nb * 2048u;
  const long long nbl = nb;
#pragma omp parallel for schedule(static) if ((long long)n >= ZK_OMP_MIN)
  for (long long b = 0; b < nbl; ++b) {
    float slot[1024];
    for (unsigned int t = 0; t < 1024u; ++t) {
      float v = 0.0f;
      for (size_t i = (size_t)b * 2048u + t; i < n; i += stride) v = v + (a[i] + (i + 1024u < n ? a[i + 1024u] : 0.0f));
      slot[t] = v;
    }
    for (unsigned int s = 512u; s >= 1u; s >>= 1)
      for (unsigned int t = 0; t < s; ++t) cuda_reduce_step6(slot, t, s);
    out[b] = slot[0];
  }
}

// Chained passes until one value is left.  The passes alternate between two
// areas of one work allocation, so no pass writes what a block of the same
// pass may still read.  Only the final float crosses to the host.
template <class L>
float zk_tree_sum(L load, size_t n) {
  if (n == 0) return 0.0f;
  const size_t nb1 = (n + 1023) >> 10, nb2 = (nb1 + 1023) >> 10;
  float* work = d_alloc_float(nb1 + nb2);
  zk_reduce_pass(load, work, n);
  float* src = work;
  float* dst = work + nb1;
  for (size_t m = nb1; m >= 2; m = (m + 1023) >> 10) {
    zk_reduce_pass(ZkLoad{src}, dst, m);
    float* t = src;
    src = dst;
    dst = t;
  }
  float r = 0.0f;
  ZK_CHECK(memcpy_D2H(&r, src, sizeof(float)));
  device_free(work);
  return r;
}

// The same chain with the array itself as one of the two areas: a is
// destroyed, and a[0] holds the sum on return.
float zk_tree_sum_inplace(float* a, size_t n) {
  if (n == 0) return 0.0f;
  const size_t nb1 = (n + 1023) >> 10;
  float* work = d_alloc_float(nb1);
  zk_reduce_pass(ZkLoad{a}, work, n);
  float* src = work;
  float* dst = a;
  for (size_t m = nb1; m >= 2; m = (m + 1023) >> 10) {
    zk_reduce_pass(ZkLoad{src}, dst, m);
    float* t = src;
    src = dst;
    dst = t;
  }
  if (src != a) ZK_CHECK(memcpy_D2D(a, src, sizeof(float)));
  float r = 0.0f;
  ZK_CHECK(memcpy_D2H(&r, a, sizeof(float)));
  device_free(work);
  return r;
}

template <class L>
float zk_tree_sum6(L load, size_t n, float* keep_in) {
  if (n == 0) return 0.0f;
  const size_t nb1 = (n + 2047) >> 11, nb2 = (nb1 + 2047) >> 11;
  float* work = d_alloc_float(nb1 + nb2);
  zk_reduce_pass6(load, work, n);
  float* src = work;
  float* dst = work + nb1;
  for (size_t m = nb1; m >= 2; m = (m + 2047) >> 11) {
    zk_reduce_pass6(ZkLoad{src}, dst, m);
    float* t = src;
    src = dst;
    dst = t;
  }
  // The in-place form leaves its block results in the array it destroys.
  if (keep_in) ZK_CHECK(memcpy_D2D(keep_in, work, nb1 * sizeof(float)));
  float r = 0.0f;
  ZK_CHECK(memcpy_D2H(&r, src, sizeof(float)));
  if (keep_in) ZK_CHECK(memcpy_D2D(keep_in, src, sizeof(float)));
  device_free(work);
  return r;
}

void hcuda_reduce_data_for_sum(const float* in, float* out, size_t n) {
  if (n == 0) return;
  zk_reduce_pass(ZkLoad{in}, out, n);
}

void hcuda_reduce_data_for_sum_inplace(float* a, size_t n) {
  if (n == 0) return;
  const size_t nb = (n + 1023) >> 10;
  float* work = d_alloc_float(nb);
  zk_reduce_pass(ZkLoad{a}, work, n);
  ZK_CHECK(memcpy_D2D(a, work, nb * sizeof(float)));
  device_free(work);
}

float hcuda_fast_sum(const float* a, size_t n) { return zk_tree_sum(ZkLoad{a}, n); }
float hcuda_fast_sum_inplace(float* a, size_t n) { return zk_tree_sum_inplace(a, n); }
float hcuda_fast_mean(const float* a, size_t n) { return hcuda_fast_sum(a, n) / (float)n; }
float hcuda_fast_sum_withmask(const float* a, const float* m, size_t n) { return zk_tree_sum(ZkLoadMulti{a, m}, n); }
float hcuda_mean_withmask(const float* a, const float* m, size_t n) {
  return hcuda_fast_sum_withmask(a, m, n) / hcuda_fast_sum(m, n);
}
float hcuda_fast_sumsqr(const float* a, size_t n) { return zk_tree_sum(ZkLoadSqr{a}, n); }
float hcuda_fast_sumsqr_inplace(float* a, size_t n) {
  hcuda_sqr_inplace(a, n);
  return hcuda_fast_sum_inplace(a, n);
}
float hcuda_fast_sumsqr_withmask(const float* a, const float* m, size_t n) {
  return zk_tree_sum(ZkLoadSqrMask{a, m}, n);
}
float hcuda_fast_submean_sumsqr(const float* a, size_t n) {
  float mu = hcuda_fast_mean(a, n);
  return zk_tree_sum(ZkLoadSubSqr{a, mu}, n);
}
float hcuda_fast_submean_sumsqr_withmask(const float* a, const float* m, size_t n) {
  float mu = hcuda_mean_withmask(a, m, n);
  return zk_tree_sum(ZkLoadSubSqrMask{a, m, mu}, n);
}
float hcuda_variance(const float* a, size_t n) { return hcuda_fast_submean_sumsqr(a, n) / (float)n; }
float hcuda_stdv(const float* a, size_t n) { return sqrtf(hcuda_variance(a, n)); }
float hcuda_stdv_withmask(const float* a, const float* m, size_t n) {
  return sqrtf(hcuda_fast_submean_sumsqr_withmask(a, m, n) / hcuda_fast_sum(m, n));
}
float hcuda_fast_sum6(const float* a, size_t n) { return zk_tree_sum6(ZkLoad{a}, n, nullptr); }
float hcuda_fast_sum6_inplace(float* a, size_t n) { return zk_tree_sum6(ZkLoad{a}, n, a); }

float hcuda_reduce_data_for_sum7(const float* a, size_t n) {
  if (n == 0) return 0.0f;
  // A fixed grid, whatever the device: the order of the sum is part of it.
  const size_t want = (n + 2047) >> 11;
  const unsigned int nb = (unsigned int)(want < kSum7Blocks ? want : kSum7Blocks);
  float* work = d_alloc_float((size_t)nb + 1);
  zk_reduce_pass7(a, work, n, nb);
  if (nb > 1) zk_reduce_pass7(work, work + nb, nb, 1);
  float r = 0.0f;
  ZK_CHECK(memcpy_D2H(&r, nb > 1 ? work + nb : work, sizeof(float)));
  device_free(work);
  return r;
}

// ===========================================================================
// Normalisations

void hcuda_normz_inplace(float* a, size_t n, float sigma, float mean) {
  float mu = hcuda_fast_mean(a, n);
  hcuda_sub_inplace(a, n, mu);
  // The deviation over n, taken from the array after the subtraction.
  float s = sqrtf(hcuda_fast_sumsqr(a, n) / (float)n);
  hcuda_multi_add_inplace(a, n, sigma / s, mean);
}

void hcuda_norm_withmask_inplace(float* a, const float* m, size_t n, float sigma, float mean) {
  float mu = hcuda_mean_withmask(a, m, n);
  float s = hcuda_stdv_withmask(a, m, n);
  // The change applies to every element, inside the mask or not.
  hcuda_sub_inplace(a, n, mu);
  hcuda_multi_add_inplace(a, n, sigma / s, mean);
}

void hcuda_norm_withmask_applymask_inplace(float* a, const float* m, size_t n, float sigma, float mean) {
  hcuda_norm_withmask_inplace(a, m, n, sigma, mean);
  hcuda_x1d_multi_inplace(a, m, n);
}

void gpu_norm_withmask_applymask(float* out, const float* a, const float* m, size_t n, float sigma, float mean) {
  float* d_a = d_alloc_float(n);
  float* d_m = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d_a, a, n * sizeof(float)));
  ZK_CHECK(memcpy_H2D(d_m, m, n * sizeof(float)));
  hcuda_norm_withmask_applymask_inplace(d_a, d_m, n, sigma, mean);
  ZK_CHECK(memcpy_D2H(out, d_a, n * sizeof(float)));
  device_free(d_a);
  device_free(d_m);
}

void gpu_norm_withmask_applymask_inplace(float* a, const float* m, size_t n, float sigma, float mean) {
  gpu_norm_withmask_applymask(a, a, m, n, sigma, mean);
}

// ===========================================================================
// Element-wise wrappers

void hcuda_x1d_add(const float* a, const float* b, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_add(i, a, b, out); });
}
void hcuda_x1d_sub(const float* a, const float* b, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_sub(i, a, b, out); });
}
void hcuda_x1d_multi(const float* a, const float* b, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_multi(i, a, b, out); });
}
void hcuda_x1d_divide(const float* a, const float* b, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_divide(i, a, b, out); });
}
void hcuda_x1d_add_inplace(float* a, const float* b, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_add_inplace(i, a, b); });
}
void hcuda_x1d_sub_inplace(float* a, const float* b, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_sub_inplace(i, a, b); });
}
void hcuda_x1d_multi_inplace(float* a, const float* b, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_multi_inplace(i, a, b); });
}
void hcuda_x1d_divide_inplace(float* a, const float* b, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_x1d_divide_inplace(i, a, b); });
}
void hcuda_add(const float* a, float* out, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_add(i, a, out, s); });
}
void hcuda_sub(const float* a, float* out, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sub(i, a, out, s); });
}
void hcuda_multi(const float* a, float* out, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_multi(i, a, out, s); });
}
void hcuda_divide(const float* a, float* out, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_divide(i, a, out, s); });
}
void hcuda_add_inplace(float* a, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_add_inplace(i, a, s); });
}
void hcuda_sub_inplace(float* a, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sub_inplace(i, a, s); });
}
void hcuda_multi_inplace(float* a, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_multi_inplace(i, a, s); });
}
void hcuda_divide_inplace(float* a, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_divide_inplace(i, a, s); });
}
void hcuda_add_multi(const float* a, float* out, size_t n, float s1, float s2) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_add_multi(i, a, out, s1, s2); });
}
void hcuda_multi_add(const float* a, float* out, size_t n, float s1, float s2) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_multi_add(i, a, out, s1, s2); });
}
void hcuda_multi_add_inplace(float* a, size_t n, float s1, float s2) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_multi_add_inplace(i, a, s1, s2); });
}
void hcuda_sub_divide(const float* a, float* out, size_t n, float s1, float s2) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sub_divide(i, a, out, s1, s2); });
}
void hcuda_sub_divide_inplace(float* a, size_t n, float s1, float s2) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sub_divide_inplace(i, a, s1, s2); });
}
void hcuda_divide_sub(const float* a, float* out, size_t n, float s1, float s2) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_divide_sub(i, a, out, s1, s2); });
}
void hcuda_sqr(const float* a, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sqr(i, a, out); });
}
void hcuda_sqr_inplace(float* a, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sqr_inplace(i, a); });
}
void hcuda_sub_sqr(const float* a, float* out, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sub_sqr(i, a, out, s); });
}
void hcuda_data_submean_sqr(const float* a, float* out, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_data_submean_sqr(i, a, out, s); });
}
void hcuda_data_submean_sqr_withmask(const float* a, const float* m, float* out, size_t n, float s) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_data_submean_sqr_withmask(i, a, m, out, s); });
}
void hcuda_sqr_withmask(const float* a, const float* m, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sqr_withmask(i, a, m, out); });
}
void hcuda_logf(const float* a, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_logf(i, a, out); });
}
void hcuda_logf_inplace(float* a, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_logf_inplace(i, a); });
}
void hcuda_sqrtf(const float* a, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sqrtf(i, a, out); });
}
void hcuda_sqrtf_inplace(float* a, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sqrtf_inplace(i, a); });
}
void hcuda_addto_float(float* a, const float* b, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_addto_float(i, a, b); });
}
void hcuda_invert_inplace(float* a, size_t n) { hcuda_multi_inplace(a, n, -1.0f); }
void hcuda_apply_mask(const float* a, const float* m, float* out, size_t n) { hcuda_x1d_multi(a, m, out, n); }
void hcuda_apply_mask_inplace(float* a, const float* m, size_t n) { hcuda_x1d_multi_inplace(a, m, n); }

void hcuda_dot_manydata_with_one(const float* data, const float* one, int L, float* out, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_dot_manydata_with_one(i, data, one, L, out); });
}
void hcuda_correlation_many_with_one_limited(const float* data, const float* one, float* out, int L, size_t n,
                                             int first, int last) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_correlation_many_with_one_limited(i, data, one, out, L, first, last); });
}
void hcuda_sumX_manydata_to_one(const float* data, float* out, int L, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_sumX_manydata_to_one(i, data, out, L); });
}
void hcuda_multiply_manydata_with_one(const float* data, const float* one, float* out, int L, size_t n) {
  launch_2d(L, (int)n, [=] HD(int x, int y) { cuda_multiply_manydata_with_one(x, y, data, one, out, L); });
}

// ===========================================================================
// Host family

double hm_sum(const float* a, size_t n) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += a[i];
  return s;
}
float hm_sumf(const float* a, size_t n) { return (float)hm_sum(a, n); }
double hm_mean(const float* a, size_t n) { return hm_sum(a, n) / (double)n; }
float hm_meanf(const float* a, size_t n) { return (float)hm_mean(a, n); }
double hm_sum_sqr(const float* a, size_t n) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += a[i] * a[i];
  return s;
}
float hm_sum_sqrf(const float* a, size_t n) { return (float)hm_sum_sqr(a, n); }
double hm_sqr_sum(const float* a, size_t n) {
  double s = hm_sum(a, n);
  return s * s;
}
float hm_sqr_sumf(const float* a, size_t n) { return (float)hm_sqr_sum(a, n); }
double hm_mod(const float* a, size_t n) { return sqrt(hm_sum_sqr(a, n)); }
float hm_modf(const float* a, size_t n) { return (float)hm_mod(a, n); }
double hm_l2_norm(const float* a, size_t n) { return hm_mod(a, n); }
float hm_l2_normf(const float* a, size_t n) { return (float)hm_mod(a, n); }
double hm_l1_norm(const float* a, size_t n) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += fabsf(a[i]);
  return s;
}
float hm_l1_normf(const float* a, size_t n) { return (float)hm_l1_norm(a, n); }
double hm_lp_norm(const float* a, size_t n, float p) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += hd_powf(fabsf(a[i]), p);
  return pow(s, 1.0 / (double)p);
}
float hm_lp_normf(const float* a, size_t n, float p) { return (float)hm_lp_norm(a, n, p); }

// Sum of (a - mean)^2 in double.
static double hm_submean_sum_sqr(const float* a, size_t n, double mean) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) {
    double d = a[i] - mean;
    s += d * d;
  }
  return s;
}
double hm_variance(const float* a, size_t n) { return hm_submean_sum_sqr(a, n, hm_mean(a, n)) / (double)n; }
float hm_variancef(const float* a, size_t n) { return (float)hm_variance(a, n); }
double hm_stdv(const float* a, size_t n) { return sqrt(hm_variance(a, n)); }
float hm_stdvf(const float* a, size_t n) { return (float)hm_stdv(a, n); }
double hm_svariance(const float* a, size_t n) {
  return hm_submean_sum_sqr(a, n, hm_mean(a, n)) / (double)(n - 1);
}
float hm_svariancef(const float* a, size_t n) { return (float)hm_svariance(a, n); }
double hm_sstdv(const float* a, size_t n) { return sqrt(hm_svariance(a, n)); }
float hm_sstdvf(const float* a, size_t n) { return (float)hm_sstdv(a, n); }
void hm_mean_stdv(const float* a, size_t n, double& mean, double& sd) {
  mean = hm_mean(a, n);
  sd = sqrt(hm_submean_sum_sqr(a, n, mean) / (double)n);
}
void hm_meanf_stdvf(const float* a, size_t n, float& mean, float& sd) {
  double m, s;
  hm_mean_stdv(a, n, m, s);
  mean = (float)m;
  sd = (float)s;
}
double hm_update_mean_stdv_by_one_more(double& mean, double& sd, size_t n, double x) {
  double dn = (double)n;
  double nm = (dn * mean + x) / (dn + 1.0);
  double v = (x * x + dn * (mean * mean + sd * sd)) / (dn + 1.0) - nm * nm;
  sd = sqrt(v > 0.0 ? v : 0.0);  // rounding may leave a tiny negative
  mean = nm;
  return nm;
}

double hm_sum_check0(const float* m, size_t n) {
  double s = hm_sum(m, n);
  if (s == 0.0) ZK_FATAL("Zero sum of mask");
  if (s < 1e-6) ZK_WARNING("Too small sum of mask");
  return s;
}
float hm_sumf_check0(const float* m, size_t n) { return (float)hm_sum_check0(m, n); }

void hm_add(float* out, const float* a, size_t n, float s) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] + s;
}
void hm_sub(float* out, const float* a, size_t n, float s) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] - s;
}
void hm_multi(float* out, const float* a, size_t n, float s) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] * s;
}
void hm_divide(float* out, const float* a, size_t n, float s) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] / s;
}
void hm_add_inplace(float* a, size_t n, float s) { hm_add(a, a, n, s); }
void hm_sub_inplace(float* a, size_t n, float s) { hm_sub(a, a, n, s); }
void hm_multi_inplace(float* a, size_t n, float s) { hm_multi(a, a, n, s); }
void hm_divide_inplace(float* a, size_t n, float s) { hm_divide(a, a, n, s); }
void hm_invert(float* out, const float* a, size_t n) { hm_multi(out, a, n, -1.0f); }
void hm_invert_inplace(float* a, size_t n) { hm_multi(a, a, n, -1.0f); }
void hm_sqr(float* out, const float* a, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = hd_sqr(a[i]);
}
void hm_sqr_inplace(float* a, size_t n) { hm_sqr(a, a, n); }
void hm_sqrtf(float* out, const float* a, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = sqrtf(a[i]);
}
void hm_sqrtf_inplace(float* a, size_t n) { hm_sqrtf(a, a, n); }
void hm_logf(float* out, const float* a, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = hd_logf(a[i]);
}
void hm_logf_inplace(float* a, size_t n) { hm_logf(a, a, n); }
void hm_multi_add(float* out, const float* a, size_t n, float s1, float s2) {
  for (size_t i = 0; i < n; ++i) out[i] = fmaf(a[i], s1, s2);
}
void hm_multi_add_inplace(float* a, size_t n, float s1, float s2) { hm_multi_add(a, a, n, s1, s2); }
void hm_add_multi(float* out, const float* a, size_t n, float s1, float s2) {
  for (size_t i = 0; i < n; ++i) out[i] = (a[i] + s1) * s2;
}
void hm_add_multi_inplace(float* a, size_t n, float s1, float s2) { hm_add_multi(a, a, n, s1, s2); }
void hm_divide_sub(float* out, const float* a, size_t n, float s1, float s2) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] / s1 - s2;
}
void hm_divide_sub_inplace(float* a, size_t n, float s1, float s2) { hm_divide_sub(a, a, n, s1, s2); }
void hm_sub_divide(float* out, const float* a, size_t n, float s1, float s2) {
  for (size_t i = 0; i < n; ++i) out[i] = (a[i] - s1) / s2;
}
void hm_sub_divide_inplace(float* a, size_t n, float s1, float s2) { hm_sub_divide(a, a, n, s1, s2); }
void hm_sub_sqr(float* out, const float* a, size_t n, float s) {
  for (size_t i = 0; i < n; ++i) out[i] = hd_sub_sqr(a[i], s);
}
void hm_sub_sqr_inplace(float* a, size_t n, float s) { hm_sub_sqr(a, a, n, s); }
void hm_linear_norm_kb(float* out, const float* a, size_t n, float k, float b) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] * k + b;
}
void hm_linear_norm_kb_inplace(float* a, size_t n, float k, float b) { hm_linear_norm_kb(a, a, n, k, b); }
void hm_submean(float* out, const float* a, size_t n) { hm_sub(out, a, n, hm_meanf(a, n)); }
void hm_submean_inplace(float* a, size_t n) { hm_submean(a, a, n); }
void hm_submean_sqr(float* out, const float* a, size_t n) { hm_sub_sqr(out, a, n, hm_meanf(a, n)); }
void hm_submean_sqr_inplace(float* a, size_t n) { hm_submean_sqr(a, a, n); }
void hm_submean_abs(float* out, const float* a, size_t n) {
  float mean = hm_meanf(a, n);
  for (size_t i = 0; i < n; ++i) out[i] = fabsf(a[i] - mean);
}
void hm_submean_abs_inplace(float* a, size_t n) { hm_submean_abs(a, a, n); }
void hm_x1d_add(float* out, const float* a, const float* b, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] + b[i];
}
void hm_x1d_sub(float* out, const float* a, const float* b, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] - b[i];
}
void hm_x1d_multi(float* out, const float* a, const float* b, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] * b[i];
}
void hm_x1d_divide(float* out, const float* a, const float* b, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = a[i] / b[i];
}
void hm_x1d_add_inplace(float* a, const float* b, size_t n) { hm_x1d_add(a, a, b, n); }
void hm_x1d_sub_inplace(float* a, const float* b, size_t n) { hm_x1d_sub(a, a, b, n); }
void hm_x1d_multi_inplace(float* a, const float* b, size_t n) { hm_x1d_multi(a, a, b, n); }
void hm_x1d_divide_inplace(float* a, const float* b, size_t n) { hm_x1d_divide(a, a, b, n); }

double hm_dot(const float* a, const float* b, size_t n) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += a[i] * b[i];
  return s;
}
double hm_sum_weighted(const float* a, const float* w, size_t n) { return hm_dot(a, w, n); }
double hm_sum_withmask(const float* a, const float* m, size_t n) { return hm_dot(a, m, n); }
float hm_dotf(const float* a, const float* b, size_t n) {
  float s = 0.0f;
  for (size_t i = 0; i < n; ++i) s += a[i] * b[i];
  return s;
}
float hm_sumf_weighted(const float* a, const float* w, size_t n) { return hm_dotf(a, w, n); }
float hm_sumf_withmask(const float* a, const float* m, size_t n) { return hm_dotf(a, m, n); }
double hm_dot_withmask(const float* a, const float* b, const float* m, size_t n) {
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += a[i] * b[i] * m[i];
  return s;
}
double hm_dot_weighted(const float* a, const float* b, const float* w, size_t n) { return hm_dot_withmask(a, b, w, n); }
float hm_dotf_withmask(const float* a, const float* b, const float* m, size_t n) {
  float s = 0.0f;
  for (size_t i = 0; i < n; ++i) s += a[i] * b[i] * m[i];
  return s;
}
float hm_dotf_weighted(const float* a, const float* b, const float* w, size_t n) { return hm_dotf_withmask(a, b, w, n); }
double hm_mean_weighted(const float* a, const float* w, size_t n) { return hm_dot(a, w, n) / hm_sum_check0(w, n); }
double hm_mean_withmask(const float* a, const float* m, size_t n) { return hm_mean_weighted(a, m, n); }
float hm_meanf_weighted(const float* a, const float* w, size_t n) { return (float)hm_mean_weighted(a, w, n); }
float hm_meanf_withmask(const float* a, const float* m, size_t n) { return (float)hm_mean_weighted(a, m, n); }
double hm_covariance(const float* a, const float* b, size_t n) {
  double ma = hm_mean(a, n), mb = hm_mean(b, n);
  double s = 0.0;
  for (size_t i = 0; i < n; ++i) s += (a[i] - ma) * (b[i] - mb);
  return s;
}
float hm_covariancef(const float* a, const float* b, size_t n) { return (float)hm_covariance(a, b, n); }
float hm_ccc_unnorm(const float* a, const float* b, size_t n) {
  double ab = 0.0, aa = 0.0, bb = 0.0;
  for (size_t i = 0; i < n; ++i) {
    ab += a[i] * b[i];
    aa += a[i] * a[i];
    bb += b[i] * b[i];
  }
  return (float)(ab / sqrt(aa * bb));
}
float hm_ccc_norm_inplace(float* a, float* b, size_t n) {
  hm_normz_inplace(a, n, 1.0f, 0.0f);
  hm_normz_inplace(b, n, 1.0f, 0.0f);
  return hm_ccc_unnorm(a, b, n);
}
float hm_ccc_norm(const float* a, const float* b, size_t n) {
  float* ca = (float*)malloc((n ? n : 1) * sizeof(float));
  float* cb = (float*)malloc((n ? n : 1) * sizeof(float));
  if (!ca || !cb) ZK_FATAL("Host memory allocation failed");
  memcpy(ca, a, n * sizeof(float));
  memcpy(cb, b, n * sizeof(float));
  float r = hm_ccc_norm_inplace(ca, cb, n);
  free(ca);
  free(cb);
  return r;
}
void hm_appply_mask(float* out, const float* a, const float* m, size_t n) { hm_x1d_multi(out, a, m, n); }
void hm_appply_weights(float* out, const float* a, const float* w, size_t n) { hm_x1d_multi(out, a, w, n); }
void hm_apply_weights(float* out, const float* a, const float* w, size_t n) { hm_x1d_multi(out, a, w, n); }
void hm_apply_mask_inplace(float* a, const float* m, size_t n) { hm_x1d_multi(a, a, m, n); }
void hm_apply_weights_inplace(float* a, const float* w, size_t n) { hm_x1d_multi(a, a, w, n); }

void hm_normz(float* out, const float* a, size_t n, float sigma, float mean) {
  double mu = hm_mean(a, n);
  double s = sqrt(hm_submean_sum_sqr(a, n, mu) / (double)n);
  double f = (double)sigma / s;
  for (size_t i = 0; i < n; ++i) out[i] = (float)((double)mean + (a[i] - mu) * f);
}
void hm_normz_inplace(float* a, size_t n, float sigma, float mean) { hm_normz(a, a, n, sigma, mean); }

void hm_normz_withmask(float* out, const float* a, const float* m, size_t n) {
  double w = hm_sum_check0(m, n);
  double mu = hm_dot(a, m, n) / w;
  double ss = 0.0;
  for (size_t i = 0; i < n; ++i) {
    double d = a[i] - mu;
    ss += m[i] * (d * d);
  }
  double s = sqrt(ss / w);
  for (size_t i = 0; i < n; ++i) out[i] = (float)((a[i] - mu) / s);
}
void hm_normz_withmask_inplace(float* a, const float* m, size_t n) { hm_normz_withmask(a, a, m, n); }
void hm_normz_withmask_applymask(float* out, const float* a, const float* m, size_t n) {
  hm_normz_withmask(out, a, m, n);
  hm_x1d_multi(out, out, m, n);
}
void hm_normz_withmask_applymask_inplace(float* a, const float* m, size_t n) {
  hm_normz_withmask_applymask(a, a, m, n);
}
void hm_normz_weighted_inplace(float* a, const float* w, size_t n) { hm_normz_withmask(a, a, w, n); }

// ===========================================================================
// Extremes and peaks

int min_max_value_and_index(const float* a, size_t n, float& min, size_t& imin, float& max, size_t& imax) {
  imin = imax = 0;
  if (n == 0) {
    min = max = 0.0f;
    return -1;
  }
  min = max = a[0];
  for (size_t i = 1; i < n; ++i) {
    if (a[i] < min) {
      min = a[i];
      imin = i;
    }
    if (a[i] > max) {
      max = a[i];
      imax = i;
    }
  }
  return 0;
}
int max_min_value_and_index(const float* a, size_t n, float& max, size_t& imax, float& min, size_t& imin) {
  return min_max_value_and_index(a, n, min, imin, max, imax);
}
int min_value_and_index(const float* a, size_t n, float& min, size_t& imin) {
  float max;
  size_t imax;
  return min_max_value_and_index(a, n, min, imin, max, imax);
}
int max_value_and_index(const float* a, size_t n, float& max, size_t& imax) {
  float min;
  size_t imin;
  return min_max_value_and_index(a, n, min, imin, max, imax);
}
int min_max_mean_value(const float* a, size_t n, float& min, float& max, float& mean) {
  size_t imin, imax;
  if (min_max_value_and_index(a, n, min, imin, max, imax) != 0) {
    mean = 0.0f;
    return -1;
  }
  mean = hm_meanf(a, n);
  return 0;
}
int max_min_mean_value(const float* a, size_t n, float& max, float& min, float& mean) {
  return min_max_mean_value(a, n, min, max, mean);
}
float min_value(const float* a, size_t n) {
  float v;
  size_t i;
  min_value_and_index(a, n, v, i);
  return v;
}
float max_value(const float* a, size_t n) {
  float v;
  size_t i;
  max_value_and_index(a, n, v, i);
  return v;
}
size_t min_index(const float* a, size_t n) {
  float v;
  size_t i;
  min_value_and_index(a, n, v, i);
  return i;
}
size_t max_index(const float* a, size_t n) {
  float v;
  size_t i;
  max_value_and_index(a, n, v, i);
  return i;
}

size_t peak_index_masked(const float* a, const int* mask, size_t n) {
  size_t best = n;
  for (size_t i = 0; i < n; ++i)
    if (mask[i] != 0 && (best == n || a[i] > a[best])) best = i;
  return best;
}

void peak_make_mask(const float* a, int* mask, size_t n, size_t i) {
  if (i >= n) return;
  mask[i] = 0;
  for (size_t j = i + 1; j < n && a[j] < a[j - 1]; ++j) mask[j] = 0;
  for (size_t j = i; j > 0 && a[j - 1] < a[j]; --j) mask[j - 1] = 0;
}

void peak_indices(const float* a, size_t n, size_t* out, size_t k) {
  size_t count = n < k ? n : k;
  int* mask = (int*)malloc((n ? n : 1) * sizeof(int));
  if (!mask) ZK_FATAL("Host memory allocation failed");
  for (size_t i = 0; i < n; ++i) mask[i] = 1;
  for (size_t j = 0; j < count; ++j) {
    size_t p = peak_index_masked(a, mask, n);
    out[j] = p;
    peak_make_mask(a, mask, n, p);
  }
  free(mask);
}

// ===========================================================================
// Elementary functions as kernels (back-end comparison)

HDI float zk_elementary(float a, float b, int fn) {
  switch (fn) {
    case ZK_FN_EXPF: return hd_expf(a);
    case ZK_FN_LOGF: return hd_logf(a);
    case ZK_FN_SINF: return hd_sinf(a);
    case ZK_FN_COSF: return hd_cosf(a);
    case ZK_FN_POWF: return hd_powf(a, b);
    case ZK_FN_LOG2F: return hd_log2f(a);
    case ZK_FN_LOG10F: return hd_log10f(a);
    case ZK_FN_GUASF: return hd_guasf(a, b);
    case ZK_FN_GUASF1: return hd_guasf1(a, b);
    case ZK_FN_BFAC: return hd_bfac(a, b);
    default: return hd_nanf();
  }
}
HDI double zk_elementary_d(double a, int fn) {
  switch (fn) {
    case ZK_FN_EXP: return hd_exp(a);
    case ZK_FN_LOG: return hd_log(a);
    case ZK_FN_LOG2: return hd_log2(a);
    case ZK_FN_LOG10: return hd_log10(a);
    case ZK_FN_EXP2: return hd_exp2(a);
    default: return hd_nan();
  }
}

void hcuda_x1d_elementary(const float* a, const float* b, float* out, size_t n, int fn) {
  launch_1d(n, [=] HD(unsigned int i) { out[i] = zk_elementary(a[i], b ? b[i] : 0.0f, fn); });
}
void hcuda_x1d_elementary_d(const double* a, double* out, size_t n, int fn) {
  launch_1d(n, [=] HD(unsigned int i) { out[i] = zk_elementary_d(a[i], fn); });
}
