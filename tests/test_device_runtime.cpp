#include <gtest/gtest.h>

#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"


TEST(LaunchGeometry, OneDimensionalRule) {
  EXPECT_EQ(zk_grid_1d(1).x, 1u);
  EXPECT_EQ(zk_grid_1d(1024).x, 1u);
  EXPECT_EQ(zk_grid_1d(1025).x, 2u);
  EXPECT_EQ(zk_grid_1d(1048576).x, 1024u);
  EXPECT_EQ(zk_grid_1d(1048577).x, 1025u);
}

TEST(LaunchGeometry, TwoDimensionalRule) {
  dim3 g = zk_grid_2d(33, 33);
  EXPECT_EQ(g.x, 2u);
  EXPECT_EQ(g.y, 2u);
  EXPECT_EQ(g.z, 1u);
  g = zk_grid_2d(32, 64);
  EXPECT_EQ(g.x, 1u);
  EXPECT_EQ(g.y, 2u);
}

class DeviceRuntime : public BackendTest {};

TEST_P(DeviceRuntime, EmptyClearsExactlyTheBytesAsked) {
  unsigned char* d = nullptr;
  safe_cudaMalloc((void**)&d, 16);
  std::vector<unsigned char> h(16, 0xAB);
  ASSERT_EQ(memcpy_H2D(d, h.data(), 16), 0);
  hcuda_empty(d, 10);
  ASSERT_EQ(memcpy_D2H(h.data(), d, 16), 0);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(h[i], 0) << i;
  for (int i = 10; i < 16; ++i) EXPECT_EQ(h[i], 0xAB) << i;
  device_free(d);
}

TEST_P(DeviceRuntime, MemsetsAndCopiesRoundTrip) {
  const size_t n = 1025;  // two blocks, 1023 idle threads in the second
  float* f = d_alloc_float(n);
  hcuda_memset_float(f, 2.5f, n);
  std::vector<float> hf(n);
  memcpy_D2H(hf.data(), f, n * sizeof(float));
  for (float v : hf) ASSERT_EQ(v, 2.5f);
  float* g = d_alloc_float(n);
  memcpy_D2D(g, f, n * sizeof(float));
  hcuda_empty_float(f, n);
  memcpy_D2H(hf.data(), g, n * sizeof(float));
  for (float v : hf) ASSERT_EQ(v, 2.5f);
  memcpy_D2H(hf.data(), f, n * sizeof(float));
  for (float v : hf) ASSERT_EQ(v, 0.0f);
  unsigned int* u = d_alloc_uint(7);
  hcuda_memset_uint(u, 0xDEADBEEFu, 7);
  std::vector<unsigned int> hu(7);
  memcpy_D2H(hu.data(), u, 7 * sizeof(unsigned int));
  for (unsigned int v : hu) ASSERT_EQ(v, 0xDEADBEEFu);
  int* k = nullptr;
  safe_cudaMalloc_empty((void**)&k, 5 * sizeof(int));
  std::vector<int> hk(5, 9);
  memcpy_D2H(hk.data(), k, 5 * sizeof(int));
  for (int v : hk) ASSERT_EQ(v, 0);
  hcuda_memset_int(k, -3, 5);
  memcpy_D2H(hk.data(), k, 5 * sizeof(int));
  for (int v : hk) ASSERT_EQ(v, -3);
  device_free(f);
  device_free(g);
  device_free(u);
  device_free(k);
}

TEST_P(DeviceRuntime, GidIsKeptOrFallsBackToAUsableDevice) {
  int gid = 0;
  EXPECT_EQ(check_and_set_gid(gid), 0);
  EXPECT_EQ(gid, 0);
  gid = 4096;  // names no device
  EXPECT_EQ(check_and_set_gid(gid), 0);
  EXPECT_GE(gid, 0);
  EXPECT_LT(gid, 4096);
}

ZK_BACKEND_SUITE(DeviceRuntime);

TEST(DeviceRuntimeHost, HostStandsInWithANote) {
  zk_use_host();
  EXPECT_FALSE(zk_on_gpu());
  EXPECT_STRNE(zk_backend_note(), "");
  testing::internal::CaptureStdout();
  gpu_report_memory();
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("GPU memory usage:  total = ", 0), 0u) << out;
}

TEST_P(DeviceRuntime, FreedBlocksServeTheNextAllocationOfTheirSize) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "blocks go straight back under AddressSanitizer";
#endif
  float* a = d_alloc_float(12345);
  device_free(a);
  float* b = d_alloc_float(12345);
  EXPECT_EQ(a, b);  // the same work area again: nothing new per micrograph
  float* c = d_alloc_float(99999);
  EXPECT_NE(c, b);
  device_free(b);
  device_free(c);
  zk_release_cached_memory();
  float* d = d_alloc_float(16);
  hcuda_memset_float(d, 1.0f, 16);  // still usable after the release
  device_free(d);
}
