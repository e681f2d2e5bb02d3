// The launch layer.  A kernel is written once as a per-element body (a lambda
// marked HD); launch_1d, launch_2d and launch_3d run it as <<<grid, block>>> on the GPU,
// or on the host as an OpenMP loop over the same elements.  Every launch is
// waited for and checked, so a wrapper's result is complete when it returns.
#pragma once
#include <cstddef>

#include "core/report.h"
#include "device/cuda_general.h"

#if defined(ZAVIK_HAVE_CUDA) && !defined(__CUDACC__)
#error "launch.h belongs in sources compiled by nvcc when the CUDA back end is built"
#endif

// Below this many elements a host loop stays on one thread.
constexpr long long ZK_OMP_MIN = 32768;

#if defined(__CUDACC__)
template <class F>
__global__ void zk_kernel_1d(F f, unsigned int n) {
  unsigned int i = blockIdx.x * 1024u + threadIdx.x;
  if (i >= n) return;
  f(i);
}
template <class F>
__global__ void zk_kernel_2d(F f, int nx, int ny) {
  int x = blockIdx.x * 32 + threadIdx.x;
  int y = blockIdx.y * 32 + threadIdx.y;
  if (x >= nx || y >= ny) return;
  f(x, y);
}
template <class F>
__global__ void zk_kernel_3d(F f, int nx, int ny, int nz) {
  int x = blockIdx.x * 16 + threadIdx.x;
  int y = blockIdx.y * 16 + threadIdx.y;
  int z = blockIdx.z * 4 + threadIdx.z;
  if (x >= nx || y >= ny || z >= nz) return;
  f(x, y, z);
}
#endif

// One thread per element i < n, blocks of 1024, grid (n + 1023) >> 10.
template <class F>
void zk_launch_1d(size_t n, F f, const char* file, int line) {
  if (n == 0) return;
#if defined(__CUDACC__)
  if (zk_on_gpu()) {
    zk_kernel_1d<<<zk_grid_1d(n), dim3(1024, 1, 1)>>>(f, (unsigned int)n);
    zk_sync_check(file, line);
    return;
  }
#endif
  (void)file;
  (void)line;
  const long long nn = (long long)n;
#pragma omp parallel for schedule(static) if (nn >= ZK_OMP_MIN)
  for (long long i = 0; i < nn; ++i) f((unsigned int)i);
}

// One thread per (x, y), x < nx, y < ny, blocks of 32 x 32.  heavy marks
// kernels whose threads each do much serial work (one thread a grid cell
// scanning its pixels): their host loop is parallel at any size.
template <class F>
void zk_launch_2d(int nx, int ny, F f, const char* file, int line, bool heavy = false) {
  if (nx <= 0 || ny <= 0) return;
#if defined(__CUDACC__)
  if (zk_on_gpu()) {
    zk_kernel_2d<<<zk_grid_2d(nx, ny), dim3(32, 32, 1)>>>(f, nx, ny);
    zk_sync_check(file, line);
    return;
  }
#endif
  (void)file;
  (void)line;
  const long long work = (long long)nx * ny;
  if (heavy) {
#pragma omp parallel for schedule(dynamic, 1)
    for (long long c = 0; c < work; ++c) f((int)(c % nx), (int)(c / nx));
    return;
  }
#pragma omp parallel for schedule(static) if (work >= ZK_OMP_MIN)
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) f(x, y);
}

// One thread per (x, y, z) of a volume, blocks of 16 x 16 x 4.
template <class F>
void zk_launch_3d(int nx, int ny, int nz, F f, const char* file, int line) {
  if (nx <= 0 || ny <= 0 || nz <= 0) return;
#if defined(__CUDACC__)
  if (zk_on_gpu()) {
    const dim3 grid((unsigned int)((nx + 15) / 16), (unsigned int)((ny + 15) / 16), (unsigned int)((nz + 3) / 4));
    zk_kernel_3d<<<grid, dim3(16, 16, 4)>>>(f, nx, ny, nz);
    zk_sync_check(file, line);
    return;
  }
#endif
  (void)file;
  (void)line;
  const long long planes = (long long)ny * nz;
#pragma omp parallel for schedule(static) if ((long long)nx * planes >= ZK_OMP_MIN)
  for (long long p = 0; p < planes; ++p)
    for (int x = 0; x < nx; ++x) f(x, (int)(p % ny), (int)(p / ny));
}

#define launch_1d(n, ...) zk_launch_1d((n), __VA_ARGS__, zk_basename(__FILE__), __LINE__)
#define launch_2d(nx, ny, ...) zk_launch_2d((nx), (ny), __VA_ARGS__, zk_basename(__FILE__), __LINE__)
#define launch_3d(nx, ny, nz, ...) zk_launch_3d((nx), (ny), (nz), __VA_ARGS__, zk_basename(__FILE__), __LINE__)
#define launch_2d_heavy(nx, ny, ...) zk_launch_2d((nx), (ny), __VA_ARGS__, zk_basename(__FILE__), __LINE__, true)
