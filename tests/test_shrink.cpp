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

// Reference block mean: the sum of small integers is exact, so the mean is
// the one correctly rounded quotient.
float block_mean(const std::vector<float>& a, int nx, int ox, int oy, int s) {
  double sum = 0;
  for (int j = 0; j < s; ++j)
    for (int i = 0; i < s; ++i) sum += a[(size_t)(oy * s + j) * nx + ox * s + i];
  return (float)sum / (float)(s * s);
}

}  // namespace

// The even-sized block means fill a square; the short side is mirrored and
// pixels past the last whole pair of blocks are never read.
TEST(Shrink, ExtendedSquareMeansMirrorTheShortSide) {
  struct Case {
    int nx, ny, s, sq, sx, sy;
  } cases[] = {{4096, 3710, 4, 1024, 1024, 926}, {3710, 4096, 4, 1024, 926, 1024}, {1001, 1001, 1, 1000, 1000, 1000},
               {300, 250, 3, 100, 100, 82}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.nx) + "x" + std::to_string(c.ny) + " by " + std::to_string(c.s));
    ASSERT_EQ(get_max_extended_square_even_size(c.nx, c.ny, c.s), c.sq);
    std::vector<float> a = int_image(c.nx, c.ny), out((size_t)c.sq * c.sq, -7.0f);
    for (int y = 0; y < c.ny; ++y)
      for (int x = 0; x < c.nx; ++x)
        if (x >= c.sx * c.s || y >= c.sy * c.s) a[(size_t)y * c.nx + x] = 1e6f;
    cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), c.nx, c.ny, c.s);
    auto at = [&](int x, int y) { return out[(size_t)y * c.sq + x]; };
    for (int y = 0; y < c.sq; ++y)
      for (int x = 0; x < c.sq; ++x) {
        const int mx = x < c.sx ? x : 2 * c.sx - 1 - x, my = y < c.sy ? y : 2 * c.sy - 1 - y;
        if (mx != x || my != y) {
          ASSERT_EQ(at(x, y), at(mx, my)) << x << "," << y;
        } else if (x % 7 == 0 || y % 5 == 0 || x == c.sx - 1 || y == c.sy - 1) {
          ASSERT_EQ(at(x, y), block_mean(a, c.nx, x, y, c.s)) << x << "," << y;
        }
      }
    for (float v : out) ASSERT_TRUE(v >= 0.0f && v < 100.0f);  // all written, no marked pixel read
  }
  EXPECT_EQ(get_max_extended_square_even_size(3710, 3838, 4), 958);
  std::vector<float> a(999 * 2000, 1.0f), out(2000 * 2000);
  EXPECT_FAILS("Error in function .*\\(\\), file .* on line [0-9]+: Make sure: Ny/2 < Nx < 2Ny! Exit now!",
               cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), 999, 2000, 1););
}

TEST(Shrink, BlockMeansOfEveryForm) {
  // The unrolled factors and the loop agree with the double reference.
  const int nx = 240, ny = 180;
  std::vector<float> a = int_image(nx, ny);
  for (int s : {2, 3, 4, 5, 6, 8}) {
    const int sx = nx / (2 * s) * 2, sy = ny / (2 * s) * 2;
    std::vector<float> out(sx * sy);
    cpu_2d_meanshrink_even(out.data(), a.data(), nx, ny, s);
    for (int y = 0; y < sy; ++y)
      for (int x = 0; x < sx; ++x)
        ASSERT_EQ(out[y * sx + x], block_mean(a, nx, x, y, s)) << s << ": " << x << "," << y;
  }
  // The plain means may be odd in number; invert negates them.
  const int px = 21, py = 15, s = 2;  // 10 by 7 blocks
  std::vector<float> b = int_image(px, py), out(10 * 7), inv(10 * 7);
  cpu_2d_meanshrink(out.data(), b.data(), px, py, s);
  cpu_2d_meanshrink_invert(inv.data(), b.data(), px, py, s);
  for (int y = 0; y < 7; ++y)
    for (int x = 0; x < 10; ++x) {
      EXPECT_EQ(out[y * 10 + x], block_mean(b, px, x, y, s));
      EXPECT_EQ(inv[y * 10 + x], -out[y * 10 + x]);
    }
  // The stack form treats each image alike, images packed at 70 floats.
  std::vector<float> st = b, st_out(2 * 70);
  for (float v : b) st.push_back(v + 1.0f);
  cpu_2ds_meanshrink(st_out.data(), st.data(), px, py, 2, s);
  for (int i = 0; i < 70; ++i) {
    EXPECT_EQ(st_out[i], out[i]);
    EXPECT_EQ(st_out[70 + i], out[i] + 1.0f);
  }
}

TEST(Shrink, WrongFactorReportsAndWritesNothing) {
  std::vector<float> a(16, 1.0f), out(16, -3.0f);
  const std::string text = zk_stdout([&] {
    cpu_2d_meanshrink_extended_even_square(out.data(), a.data(), 4, 4, 0);
    cpu_2d_meanshrink(out.data(), a.data(), 4, 4, -1);
  });
  EXPECT_NE(text.find("on line"), std::string::npos);
  EXPECT_NE(text.find(": Wrong value of shrink_factor. Must be >=1!\n"), std::string::npos);
  EXPECT_EQ(text.find("Exit now"), std::string::npos);
  for (float v : out) EXPECT_EQ(v, -3.0f);
}

TEST(Shrink, SquareHelpersAndExtensions) {
  EXPECT_EQ(get_max_square_even_size(101, 98), 98);
  EXPECT_EQ(get_max_square_even_size(97, 200), 96);
  int2 o = get_max_square_clip_origin(300, 200);
  EXPECT_TRUE(o.x == 50 && o.y == 0);
  o = get_max_square_clip_origin(200, 301);
  EXPECT_TRUE(o.x == 0 && o.y == 50);
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
  EXPECT_EQ(big, std::vector<float>(16, -1.0f));
}

class ShrinkDevice : public BackendTest {};

TEST_P(ShrinkDevice, DeviceMeansEqualHostMeans) {
  const int nx = 101, ny = 66, s = 3;  // 33 by 22 blocks, input first
  std::vector<float> a(nx * ny), ref(33 * 22);
  for (int i = 0; i < nx * ny; ++i) a[i] = sinf(0.37f * i);
  cpu_2d_meanshrink(ref.data(), a.data(), nx, ny, s);
  Dev d;
  float* d_o = d.f(ref.size());
  hcuda_2d_meanshrink(d.put(a), d_o, nx, ny, s);
  EXPECT_EQ(from_dev(d_o, ref.size()), ref);
}

ZK_BACKEND_SUITE(ShrinkDevice);
