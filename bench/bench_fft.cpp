// Time of one forward and one inverse real 2-D transform at the working sizes
// of the picker, on the host back end (FFTW, by thread count) and on the GPU
// when one answers.  Usage: bench_fft [repeats]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "device/cuda_fft.h"
#include "device/cuda_general.h"

#if defined(ZAVIK_HAVE_FFTW_OMP)
#include <omp.h>
#endif

namespace {

double now_ms() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Milliseconds per R2C + C2R pair through held plans, after one warm-up pair.
double time_pair(int n, int repeats) {
  const size_t nr = (size_t)n * n, nc = (size_t)(n / 2 + 1) * n;
  std::vector<float> h(nr);
  for (size_t i = 0; i < nr; ++i) h[i] = sinf(0.001f * (float)i);
  float* d_a = d_alloc_float(nr);
  float* d_r = d_alloc_float(nr);
  float2* d_f = d_alloc_float2(nc);
  memcpy_H2D(d_a, h.data(), nr * sizeof(float));
  ZkFftPlan pf = zk_fft_plan_r2c(n, n, 1);
  ZkFftPlan pb = zk_fft_plan_c2r(n, n, 1);
  zk_fft_exec_r2c(pf, d_a, d_f);
  zk_fft_exec_c2r(pb, d_f, d_r);
  zk_sync_check(__FILE__, __LINE__);
  const double t0 = now_ms();
  for (int k = 0; k < repeats; ++k) {
    zk_fft_exec_r2c(pf, d_a, d_f);
    zk_fft_exec_c2r(pb, d_f, d_r);
  }
  zk_sync_check(__FILE__, __LINE__);
  const double ms = (now_ms() - t0) / repeats;
  zk_fft_plan_destroy(pf);
  zk_fft_plan_destroy(pb);
  device_free(d_a);
  device_free(d_r);
  device_free(d_f);
  return ms;
}

}  // namespace

int main(int argc, char** argv) {
  const int repeats = argc > 1 ? atoi(argv[1]) : 10;
  const int sizes[] = {1024, 958, 1916};
  int max_threads = 1;
#if defined(ZAVIK_HAVE_FFTW_OMP)
  max_threads = omp_get_max_threads();
#endif
  zk_use_host();
  printf("host back end (FFTW), R2C + C2R pair, %d repeats\n", repeats);
  for (int n : sizes) {
    for (int t = 1; t <= max_threads; t = t < max_threads && 2 * t > max_threads ? max_threads : 2 * t) {
      zk_fft_set_host_threads(t);
      printf("  %4d x %-4d  threads %2d  %9.3f ms\n", n, n, t, time_pair(n, repeats));
    }
    zk_fft_set_host_threads(0);
    printf("  %4d x %-4d  automatic   %9.3f ms\n", n, n, time_pair(n, repeats));
  }
  if (zk_use_gpu()) {
    printf("GPU back end (cuFFT), R2C + C2R pair, %d repeats\n", repeats * 10);
    for (int n : sizes) printf("  %4d x %-4d  %9.3f ms\n", n, n, time_pair(n, repeats * 10));
  } else {
    printf("no usable GPU: GPU timings skipped\n");
  }
  return 0;
}
