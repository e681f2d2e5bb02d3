#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "formats/mrcfile.h"
#include "picking/zavik56_templates.h"
#include "test_util.h"

namespace {

std::vector<float> noise(size_t n, unsigned seed) { return zk_uniform(n, seed, -1.0f, 2.0f); }

// The host soft disc in double: 1 up to r, exp(-(d - r)^2/(2(w/3)^2)) to r + w.
double host_disc(double d2, double r, double w) {
  if (d2 <= r * r) return 1.0;
  if (d2 > (r + w) * (r + w)) return 0.0;
  const double e = std::sqrt(d2) - r, s = w / 3.0;
  return std::exp(-e * e / (2.0 * s * s));
}

}  // namespace

TEST(Templates, GeneratedDiscValues) {
  int Tx = -1, Ty = -1, Nt = -1;
  // T_radius 10.6 with a core of 0.2: a box of 40, core radius 2.12, edge 8.48.
  float* T = create_template_data(Tx, Ty, Nt, 10.6f, 0.2f);
  ASSERT_EQ(std::vector<int>({Tx, Ty, Nt}), std::vector<int>({40, 40, 1}));
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x) {
      const double d2 = (x - 19.5) * (x - 19.5) + (y - 19.5) * (y - 19.5);
      ASSERT_NEAR(T[y * 40 + x], host_disc(d2, 2.12, 8.48), 1e-6) << x << "," << y;
    }
  destroy_template_data(T);

  // Defaults: T_radius 48.507 gives 192 pixels.
  T = get_or_create_template_data(Tx, Ty, Nt, "NoNe", 48.507f, 1.34f, 1.34f, 4, 0.05f);
  EXPECT_EQ(std::vector<int>({Tx, Ty, Nt}), std::vector<int>({192, 192, 1}));
  EXPECT_EQ(T[96 * 192 + 96], 1.0f);
  destroy_template_data(T);
}

TEST(Templates, FileSizesAfterScalingAndShrinking) {
  ZkTmpDir tmp;
  const int n = 100, nz = 3;
  std::vector<float> stack = noise((size_t)n * n * nz, 1);
  // The last 4 rows and columns are dropped by a shrink of 6.
  for (int k = 0; k < nz; ++k)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x)
        if (x >= 96 || y >= 96) stack[((size_t)k * n + y) * n + x] = 1e6f;
  const std::string f = tmp / "t.mrcs";
  mrcf_write_xyz_data(f.c_str(), stack.data(), n, n, nz);

  int Tx, Ty, Nt;
  float* T = get_or_create_template_data(Tx, Ty, Nt, f.c_str(), 10.0f, 1.5f, 1.5f, 6, 0.05f);
  ASSERT_EQ(std::vector<int>({Tx, Ty, Nt}), std::vector<int>({16, 16, 3}));
  for (int k = 0; k < nz; ++k)
    for (int y = 0; y < 16; ++y)
      for (int x = 0; x < 16; ++x) {
        double s = 0.0;
        for (int j = 0; j < 6; ++j)
          for (int i = 0; i < 6; ++i) s += stack[((size_t)k * n + y * 6 + j) * n + x * 6 + i];
        ASSERT_NEAR(T[((size_t)k * 16 + y) * 16 + x], s / 36.0, 1e-5);
      }
  destroy_template_data(T);
}

class TemplateScaling : public BackendTest {};

// apixT twice apixM doubles the box; the bilinear samples of a ramp are the
// ramp at the source positions, 0 outside.
TEST_P(TemplateScaling, ScalingUpThenShrinking) {
  ZkTmpDir tmp;
  const int nx = 30, ny = 20;
  std::vector<float> ramp((size_t)nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) ramp[(size_t)y * nx + x] = (float)x + 2.0f * y;
  const std::string f = tmp / "ramp.mrc";
  mrcf_write_xyz_data(f.c_str(), ramp.data(), nx, ny, 1);
  auto scaled = [&](int x, int y) {
    const double sx = 14.5 + (x - 29.5) / 2.0, sy = 9.5 + (y - 19.5) / 2.0;
    if (sx < 0 || sx > nx - 1 || sy < 0 || sy > ny - 1) return 0.0;
    return sx + 2.0 * sy;
  };

  int Tx, Ty, Nt;
  float* T = get_or_create_template_data(Tx, Ty, Nt, f.c_str(), 10.0f, 2.0f, 1.0f, 1, 0.05f);
  ASSERT_EQ(std::vector<int>({Tx, Ty, Nt}), std::vector<int>({60, 40, 1}));
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 60; ++x) ASSERT_NEAR(T[y * 60 + x], scaled(x, y), 1e-4) << x << "," << y;
  destroy_template_data(T);

  T = get_or_create_template_data(Tx, Ty, Nt, f.c_str(), 10.0f, 2.0f, 1.0f, 4, 0.05f);
  ASSERT_EQ(std::make_pair(Tx, Ty), std::make_pair(15, 10));
  for (int y = 0; y < 10; ++y)
    for (int x = 0; x < 15; ++x) {
      double s = 0.0;
      for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 4; ++i) s += scaled(x * 4 + i, y * 4 + j);
      ASSERT_NEAR(T[y * 15 + x], s / 16.0, 1e-4) << x << "," << y;
    }
  destroy_template_data(T);

  // A ratio just below 1 resamples: the box shrinks by a pixel.
  T = get_or_create_template_data(Tx, Ty, Nt, f.c_str(), 10.0f, 0.99f, 1.0f, 1, 0.05f);
  EXPECT_EQ(std::make_pair(Tx, Ty), std::make_pair(29, 19));
  destroy_template_data(T);
}

ZK_BACKEND_SUITE(TemplateScaling);

TEST(Templates, UnusableFilesOrPixelSizesEndTheRun) {
  int Tx, Ty, Nt;
  EXPECT_FAILS("Cannot open file /nonexistent/T.mrcs. Permission denied or wrong file name.\n"
      "Error in function get_template_data\\(\\), file zavik56_templates.cpp on line [0-9]+: open file failed.",
               get_or_create_template_data(Tx, Ty, Nt, "/nonexistent/T.mrcs", 10.0f, 1.0f, 1.0f, 1, 0.05f););
  ZkTmpDir tmp;
  std::vector<float> one(16, 1.0f);
  const std::string f = tmp / "t.mrc";
  mrcf_write_xyz_data(f.c_str(), one.data(), 4, 4, 1);
  EXPECT_FAILS("The pixel sizes of templates and micrographs must be greater than 0",
               get_or_create_template_data(Tx, Ty, Nt, f.c_str(), 10.0f, 0.0f, 1.0f, 1, 0.05f););
  // A head without templates.
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, 4, 3, 0, MRC_MODE_FLOAT);
  const std::string e = tmp / "empty.mrc";
  FILE* fp = fopen(e.c_str(), "wb");
  mrc_write_head(fp, &head);
  fclose(fp);
  EXPECT_FAILS("Template file " + e + " has no usable size or mode in its head: Nx 4, Ny 3, Nz 0, mode 2.\nError in function "
      "get_template_data\\(\\), file zavik56_templates.cpp on line [0-9]+: unusable template file! Exit now!",
               get_template_data(Tx, Ty, Nt, e.c_str()););
  // A stack shorter than its head promises is refused before the stack is
  // allocated, however large the head's sizes.
  mrcf_write_xyz_data(f.c_str(), one.data(), 4, 4, 1);
  ASSERT_EQ(truncate(f.c_str(), 1024 + 60), 0);
  EXPECT_FAILS("Template file " + f + " is shorter than its head promises: 1084 bytes, at least 1088 needed.\n"
               "Error in function get_template_data.*unusable template file! Exit now!",
               get_template_data(Tx, Ty, Nt, f.c_str()));
  mrc_set_head_xyz_mode(&head, 8000, 8000, 4, MRC_MODE_FLOAT);
  fp = fopen(e.c_str(), "wb");
  mrc_write_head(fp, &head);
  fclose(fp);
  EXPECT_FAILS("Template file " + e + " is shorter than its head promises: 1024 bytes, at least 1024001024 needed",
               get_template_data(Tx, Ty, Nt, e.c_str()));
}

TEST(Templates, NormalisationTypes) {
  const int nx = 21, ny = 18;  // odd and even sides
  const float R = 7.5f, ratio = 0.05f;
  const std::vector<float> orig = noise((size_t)nx * ny, 5);
  const double cx = 10.0, cy = 8.5;

  // 1 (the box's mean subtracted) is the stage's default, checked there.
  // 2: zero outside the disc, then the sum over the whole box divided by the
  // whole box subtracted everywhere.
  std::vector<float> t = orig;
  normalize_template_by_type(t.data(), nx, ny, 2, R, ratio);
  double in_sum = 0.0;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x)
      if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= R * R) in_sum += orig[(size_t)y * nx + x];
  const double sub = in_sum / (nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const bool inside = (x - cx) * (x - cx) + (y - cy) * (y - cy) <= R * R;
      const double want = (inside ? orig[(size_t)y * nx + x] : 0.0) - sub;
      EXPECT_NEAR(t[(size_t)y * nx + x], want, 1e-6) << x << "," << y;
    }

  // 3: mean 0 and deviation 1 under the host mask of flat radius 0.95 R and
  // edge 0.05 R, then multiplied by it.
  t = orig;
  normalize_template_by_type(t.data(), nx, ny, 3, R, ratio);
  double sw = 0.0, swz = 0.0, swzz = 0.0;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const double m = host_disc((x - cx) * (x - cx) + (y - cy) * (y - cy), 0.95 * R, 0.05 * R);
      const double v = t[(size_t)y * nx + x];
      if (m == 0.0) {
        EXPECT_EQ(v, 0.0) << x << "," << y;
        continue;
      }
      const double z = v / m;
      sw += m;
      swz += m * z;
      swzz += m * z * z;
    }
  EXPECT_NEAR(swz / sw, 0.0, 1e-5);
  EXPECT_NEAR(swzz / sw, 1.0, 1e-4);

  // 0 and any other type: as it is.
  for (int type : {0, 4, -1}) {
    t = orig;
    normalize_template_by_type(t.data(), nx, ny, type, R, ratio);
    EXPECT_EQ(memcmp(t.data(), orig.data(), t.size() * sizeof(float)), 0) << type;
  }
}
