// Time of the tree sum and of the plain normalisation on a 4096 x 4096
// micrograph, on the host back end and on the GPU when one answers.
//   bench_reduce [repeats]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "device/cuda_general.h"
#include "device/math_utils.h"

namespace {

double now_ms() {
  using namespace std::chrono;
  return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

void run(const char* name, const std::vector<float>& h, int repeats) {
  const size_t n = h.size();
  float* d = d_alloc_float(n);
  memcpy_H2D(d, h.data(), n * sizeof(float));
  volatile float sink = hcuda_fast_sum(d, n);  // warm-up (first launch, page faults)
  double t0 = now_ms();
  for (int k = 0; k < repeats; ++k) sink = hcuda_fast_sum(d, n);
  double t_sum = (now_ms() - t0) / repeats;
  // One pass of the block tree into a prepared array: the kernel alone,
  // without the work area's allocation and the copy of the result.
  float* blocks = d_alloc_float((n + 1023) >> 10);
  hcuda_reduce_data_for_sum(d, blocks, n);
  t0 = now_ms();
  for (int k = 0; k < repeats; ++k) hcuda_reduce_data_for_sum(d, blocks, n);
  double t_pass = (now_ms() - t0) / repeats;
  device_free(blocks);
  hcuda_normz_inplace(d, n, 1.0f, 0.0f);
  t0 = now_ms();
  for (int k = 0; k < repeats; ++k) hcuda_normz_inplace(d, n, 1.0f, 0.0f);
  double t_norm = (now_ms() - t0) / repeats;
  (void)sink;
  printf("%-5s hcuda_fast_sum      4096 x 4096: %9.3f ms per call\n", name, t_sum);
  printf("%-5s one tree pass       4096 x 4096: %9.3f ms per call\n", name, t_pass);
  printf("%-5s hcuda_normz_inplace 4096 x 4096: %9.3f ms per call\n", name, t_norm);
  device_free(d);
}

}  // namespace

int main(int argc, char** argv) {
  int repeats = argc > 1 ? atoi(argv[1]) : 0;
  const size_t n = (size_t)4096 * 4096;
  std::vector<float> h(n);
  std::mt19937 rng(1);
  std::normal_distribution<float> g(100.0f, 15.0f);
  for (auto& x : h) x = g(rng);

  zk_use_host();
  run("host", h, repeats > 0 ? repeats : 5);
  if (zk_use_gpu()) {
    run("gpu", h, repeats > 0 ? repeats : 100);
    zk_use_host();
  } else {
    printf("gpu   (no usable GPU)\n");
  }
  return 0;
}
