#include <gtest/gtest.h>

#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "test_util.h"

TEST(LaunchGeometry, BlocksCoverEveryElement) {
  // 1-D: blocks of 1024, one more for any remainder.
  const unsigned n[] = {1, 1024, 1025, 1048576, 1048577}, blocks[] = {1, 1, 2, 1024, 1025};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(zk_grid_1d(n[i]).x, blocks[i]) << n[i];
  // 2-D: 32 by 32 tiles.
  dim3 g = zk_grid_2d(33, 33);
  EXPECT_TRUE(g.x == 2u && g.y == 2u && g.z == 1u);
  g = zk_grid_2d(32, 64);
  EXPECT_TRUE(g.x == 1u && g.y == 2u);
}

class DeviceRuntime : public BackendTest {};

TEST_P(DeviceRuntime, MemsetsCopiesAndClearsTouchExactlyWhatIsAsked) {
  unsigned char* d = nullptr;
  safe_cudaMalloc((void**)&d, 16);
  ASSERT_EQ(memcpy_H2D(d, std::vector<unsigned char>(16, 0xAB).data(), 16), 0);
  hcuda_empty(d, 10);
  std::vector<unsigned char> want(16, 0);
  std::fill(want.begin() + 10, want.end(), 0xAB);
  EXPECT_EQ(from_dev(d, 16), want);

  const size_t n = 1025;  // two blocks, 1023 idle threads in the second
  float* f = d_alloc_float(n);
  float* g = d_alloc_float(n);
  hcuda_memset_float(f, 2.5f, n);
  memcpy_D2D(g, f, n * sizeof(float));
  hcuda_empty_float(f, n);
  EXPECT_EQ(from_dev(g, n), std::vector<float>(n, 2.5f));
  EXPECT_EQ(from_dev(f, n), std::vector<float>(n, 0.0f));
  unsigned int* u = d_alloc_uint(7);
  hcuda_memset_uint(u, 0xDEADBEEFu, 7);
  EXPECT_EQ(from_dev(u, 7), std::vector<unsigned int>(7, 0xDEADBEEFu));
  int* k = nullptr;
  safe_cudaMalloc_empty((void**)&k, 5 * sizeof(int));
  EXPECT_EQ(from_dev(k, 5), std::vector<int>(5, 0));
  hcuda_memset_int(k, -3, 5);
  EXPECT_EQ(from_dev(k, 5), std::vector<int>(5, -3));
  for (void* p : {(void*)d, (void*)f, (void*)g, (void*)u, (void*)k}) device_free(p);
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

ZK_BACKEND_SUITE(DeviceRuntime);

TEST(DeviceRuntimeHost, HostStandsInWithANote) {
  zk_use_host();
  EXPECT_FALSE(zk_on_gpu());
  EXPECT_STRNE(zk_backend_note(), "");
  const std::string out = zk_stdout(gpu_report_memory);
  EXPECT_EQ(out.rfind("GPU memory usage:  total = ", 0), 0u) << out;
}
