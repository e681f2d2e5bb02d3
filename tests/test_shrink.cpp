#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "device/process2d_raw.h"
#include "test_util.h"

namespace {

// Small integer pixel values: every block sum and every mean by a power of
// two is exact in float, so results compare exactly.
std::vector<float> int_image(int nx, int ny) {
  std::vector<float> a((size_t)nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) a[(size_t)y * nx + x] = (float)((x * 7 + y * 3) % 11);
  return a;
}

// Reference block mean in double.
double block_mean(const std::vector<float>& a, int nx, int ox, int oy, int s) {
  double sum = 0;
  for (int j = 0; j < s; ++j)
    for (int i = 0; i < s; ++i) sum += a[(size_t)(oy * s + j) * nx + ox * s + i];
  return sum / (s * s);
}

}  // namespace

TEST(Shrink, SquareMicrographNeedsNoMirror) {
  const int nx = 4096, ny = 4096, s = 4;
  ASSERT_EQ(get_max_extended_square_even_size(nx, ny, s), 1024);
  std::vector<float> a = int_image(nx, ny), out(1024 * 1024, -7.0f);
  cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), nx, ny, s);
  for (int oy = 0; oy < 1024; oy += 31)
    for (int ox = 0; ox < 1024; ox += 29) ASSERT_EQ(out[oy * 1024 + ox], block_mean(a, nx, ox, oy, s)) << ox << "," << oy;
  EXPECT_EQ(out[1023 * 1024 + 1023], block_mean(a, nx, 1023, 1023, s));
}

TEST(Shrink, ShortRowsAreMirroredAndTrailingRowsDropped) {
  const int nx = 4096, ny = 3710, s = 4, sq = 1024, sy = 926;
  ASSERT_EQ(get_max_extended_square_even_size(nx, ny, s), sq);
  std::vector<float> a = int_image(nx, ny);
  // Rows 3704 and beyond lie past the last whole pair of blocks: mark them.
  for (int y = 3704; y < ny; ++y)
    for (int x = 0; x < nx; ++x) a[(size_t)y * nx + x] = 1e6f;
  std::vector<float> out(sq * sq, -7.0f);
  cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), nx, ny, s);
  for (int oy = 0; oy < sy; ++oy)
    for (int ox = 0; ox < sq; ox += 17) ASSERT_EQ(out[oy * sq + ox], block_mean(a, nx, ox, oy, s));
  for (int x = 0; x < sq; ++x) {
    ASSERT_EQ(out[926 * sq + x], out[925 * sq + x]) << x;
    ASSERT_EQ(out[1023 * sq + x], out[828 * sq + x]) << x;
  }
  for (int y = sy; y < sq; ++y)
    for (int x = 0; x < sq; ++x) ASSERT_EQ(out[y * sq + x], out[(2 * sy - 1 - y) * sq + x]);
  for (float v : out) ASSERT_LT(v, 100.0f);
}

TEST(Shrink, ShortColumnsAreMirroredAtSquareStride) {
  const int nx = 3710, ny = 4096, s = 4, sq = 1024, sx = 926;
  std::vector<float> a = int_image(nx, ny), out(sq * sq, -7.0f);
  cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), nx, ny, s);
  for (int oy = 0; oy < sq; oy += 13) {
    for (int ox = 0; ox < sx; ox += 5) ASSERT_EQ(out[oy * sq + ox], block_mean(a, nx, ox, oy, s));
    EXPECT_EQ(out[oy * sq + 926], out[oy * sq + 925]);
    EXPECT_EQ(out[oy * sq + 1023], out[oy * sq + 828]);
  }
}

TEST(Shrink, OddSizeWithFactorOneDropsLastRowAndColumn) {
  const int n = 1001;
  std::vector<float> a(n * n);
  for (int i = 0; i < n * n; ++i) a[i] = (float)i * 0.25f;  // not exactly averaged by any block
  ASSERT_EQ(get_max_extended_square_even_size(n, n, 1), 1000);
  std::vector<float> out(1000 * 1000);
  cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), n, n, 1);
  for (int y = 0; y < 1000; y += 7)
    for (int x = 0; x < 1000; x += 3) ASSERT_EQ(out[y * 1000 + x], a[y * n + x]);
  EXPECT_EQ(out[999 * 1000 + 999], a[999 * n + 999]);
}

TEST(Shrink, TooNarrowMicrographEndsTheRun) {
  std::vector<float> a(999 * 2000, 1.0f), out(2000 * 2000);
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), 999, 2000, 1);
      },
      ::testing::ExitedWithCode(1), "Error in function .*\\(\\), file .* on line [0-9]+: Make sure: Ny/2 < Nx < 2Ny! Exit now!");
}

TEST(Shrink, ConstantImageStaysConstantMirrorIncluded) {
  const int nx = 300, ny = 250, s = 3;
  const int sq = get_max_extended_square_even_size(nx, ny, s);
  ASSERT_EQ(sq, 100);
  std::vector<float> a(nx * ny, 2.5f), out(sq * sq, 0.0f);
  cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), nx, ny, s);
  for (float v : out) ASSERT_EQ(v, 2.5f);
}

TEST(Shrink, SingleBrightPixelRaisesItsBlock) {
  const int nx = 64, ny = 64, s = 4, sq = 16;
  std::vector<float> a(nx * ny, 1.0f), out(sq * sq);
  a[6 * nx + 13] += 8.0f;
  cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), nx, ny, s);
  for (int y = 0; y < sq; ++y)
    for (int x = 0; x < sq; ++x) EXPECT_EQ(out[y * sq + x], (x == 3 && y == 1) ? 1.5f : 1.0f) << x << "," << y;
}

TEST(Shrink, EveryFactorGivesTheSameMeans) {
  // The unrolled factors and the loop agree with the double reference.
  const int nx = 240, ny = 180;
  std::vector<float> a = int_image(nx, ny);
  for (int s : {2, 3, 4, 5, 6, 8}) {
    const int sx = nx / (2 * s) * 2, sy = ny / (2 * s) * 2;
    std::vector<float> out(sx * sy);
    cpu_2d_meanshrink_even(out.data(), a.data(), nx, ny, s);
    for (int y = 0; y < sy; ++y)
      for (int x = 0; x < sx; ++x)
        ASSERT_FLOAT_EQ(out[y * sx + x], (float)block_mean(a, nx, x, y, s)) << s << ": " << x << "," << y;
  }
}

TEST(Shrink, WrongFactorReportsAndWritesNothing) {
  std::vector<float> a(16, 1.0f), out(16, -3.0f);
  testing::internal::CaptureStdout();
  cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), 4, 4, 0);
  cpu_2d_meanshrink(out.data(), a.data(), 4, 4, -1);
  std::string text = testing::internal::GetCapturedStdout();
  EXPECT_NE(text.find("on line"), std::string::npos);
  EXPECT_NE(text.find(": Wrong value of shrink_factor. Must be >=1!\n"), std::string::npos);
  EXPECT_EQ(text.find("Exit now"), std::string::npos);
  for (float v : out) EXPECT_EQ(v, -3.0f);
}

TEST(Shrink, PlainMeansMayBeOddAndInvertNegates) {
  const int nx = 21, ny = 15, s = 2;  // 10 by 7 blocks
  std::vector<float> a = int_image(nx, ny), out(10 * 7), inv(10 * 7);
  cpu_2d_meanshrink(out.data(), a.data(), nx, ny, s);
  cpu_2d_meanshrink_invert(inv.data(), a.data(), nx, ny, s);
  for (int y = 0; y < 7; ++y)
    for (int x = 0; x < 10; ++x) {
      EXPECT_EQ(out[y * 10 + x], (float)block_mean(a, nx, x, y, s));
      EXPECT_EQ(inv[y * 10 + x], -out[y * 10 + x]);
    }
  // The stack form treats each image alike, images packed at 70 floats.
  std::vector<float> st(2 * nx * ny), st_out(2 * 70);
  std::copy(a.begin(), a.end(), st.begin());
  for (int i = 0; i < nx * ny; ++i) st[nx * ny + i] = a[i] + 1.0f;
  cpu_2ds_meanshrink(st_out.data(), st.data(), nx, ny, 2, s);
  for (int i = 0; i < 70; ++i) {
    EXPECT_EQ(st_out[i], out[i]);
    EXPECT_EQ(st_out[70 + i], out[i] + 1.0f);
  }
}

TEST(Shrink, SquareHelpers) {
  EXPECT_EQ(get_max_extended_square_even_size(3710, 3838, 4), 958);
  EXPECT_EQ(get_max_square_even_size(101, 98), 98);
  EXPECT_EQ(get_max_square_even_size(97, 200), 96);
  int2 o = get_max_square_clip_origin(300, 200);
  EXPECT_EQ(o.x, 50);
  EXPECT_EQ(o.y, 0);
  o = get_max_square_clip_origin(200, 301);
  EXPECT_EQ(o.x, 0);
  EXPECT_EQ(o.y, 50);
}

TEST(Shrink, ExtendToSquareForms) {
  // 3 by 2 into 3 by 3: filled with v, or mirrored.
  const float in[6] = {1, 2, 3, 4, 5, 6};
  std::vector<float> out(9, -1.0f);
  cpu_2d_extend_to_square(out.data(), in, 3, 2, 9.0f);
  EXPECT_EQ(out, (std::vector<float>{1, 2, 3, 4, 5, 6, 9, 9, 9}));
  cpu_2d_extend_to_square_mirror(out.data(), in, 3, 2);
  EXPECT_EQ(out, (std::vector<float>{1, 2, 3, 4, 5, 6, 4, 5, 6}));
  // 2 by 3 into 3 by 3 at row stride 3.
  std::vector<float> b = {1, 2, 0, 3, 4, 0, 5, 6, 0};
  cpu_2d_extend_to_square_only_fill(b.data(), 2, 3, 7.0f);
  EXPECT_EQ(b, (std::vector<float>{1, 2, 7, 3, 4, 7, 5, 6, 7}));
  b = {1, 2, 0, 3, 4, 0, 5, 6, 0};
  cpu_2d_extend_to_square_mirror_inplace(b.data(), 2, 3);
  EXPECT_EQ(b, (std::vector<float>{1, 2, 2, 3, 4, 4, 5, 6, 6}));
  // Outside the allowed sizes the separate form leaves out unwritten.
  std::vector<float> big(16, -1.0f), src(4, 1.0f);
  cpu_2d_extend_to_square_mirror(big.data(), src.data(), 4, 1);
  for (float v : big) EXPECT_EQ(v, -1.0f);
}

class ShrinkDevice : public BackendTest {};

TEST_P(ShrinkDevice, DeviceMeansEqualHostMeans) {
  const int nx = 101, ny = 66, s = 3;  // 33 by 22 blocks, input first
  std::vector<float> a(nx * ny);
  for (int i = 0; i < nx * ny; ++i) a[i] = sinf(0.37f * i);
  std::vector<float> ref(33 * 22), got(33 * 22);
  cpu_2d_meanshrink(ref.data(), a.data(), nx, ny, s);
  float* d_a = d_alloc_float(a.size());
  float* d_o = d_alloc_float(got.size());
  memcpy_H2D(d_a, a.data(), a.size() * sizeof(float));
  hcuda_2d_meanshrink(d_a, d_o, nx, ny, s);
  memcpy_D2H(got.data(), d_o, got.size() * sizeof(float));
  for (size_t i = 0; i < ref.size(); ++i) ASSERT_EQ(got[i], ref[i]) << i;
  device_free(d_a);
  device_free(d_o);
}

ZK_BACKEND_SUITE(ShrinkDevice);
