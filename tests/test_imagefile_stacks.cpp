// The stack file commands end to end: slices against known content or the
// library's results, the runs of a long stack, names and reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_fft.h"
#include "device/process2d_raw.h"
#include "imagefile/process2d_mrcs.h"
#include "test_util.h"
#include "toolbox_files.h"

namespace {

std::vector<float> slice_of(const std::vector<float>& v, size_t plane, int z) {
  return std::vector<float>(v.begin() + plane * z, v.begin() + plane * (z + 1));
}

int count(const std::string& s, char c) { return (int)std::count(s.begin(), s.end(), c); }

}  // namespace

TEST(ImagefileStacks, ScaleAverageReverseAndSplit) {
  ZkTmpDir dir;
  const int nx = 8, ny = 6, nz = 3, plane = nx * ny;
  const std::vector<float> a = zk_uniform(plane * nz, 1);
  write_test_mrc(dir / "s.mrcs", a, nx, ny, nz, 2, 1.0f);
  EXPECT_EQ(zk_stdout([&] { mrcf_cuda_2ds_scale((dir / "s.mrcs").c_str(), (dir / "sc.mrcs").c_str(), 0.5f); }),
            "Begin scaling 0.500000:\nScaling finished!\n");
  const TestMrc sc = read_test_mrc(dir / "sc.mrcs");
  ASSERT_EQ(sc.nx(), 4);
  ASSERT_EQ(sc.ny(), 3);
  ASSERT_EQ(sc.nz(), 3);
  EXPECT_FLOAT_EQ(mrc_head_apix(&sc.head), 2.0f);
  std::vector<float> want(4 * 3 * 3);
  gpu_2ds_scale(want.data(), a.data(), nx, ny, nz, 0.5f);
  EXPECT_TRUE(same_bits(sc.v, want));

  mrcf_2ds_average((dir / "s.mrcs").c_str(), (dir / "ave.mrc").c_str());
  std::vector<float> ave(plane);
  gpu_2ds_average(ave.data(), a.data(), nx, ny, nz);
  const TestMrc av = read_test_mrc(dir / "ave.mrc");
  EXPECT_EQ(av.nz(), 1);
  EXPECT_TRUE(same_bits(av.v, ave));

  mrcsf_upsidedown((dir / "s.mrcs").c_str(), (dir / "ud.mrcs").c_str());
  const TestMrc ud = read_test_mrc(dir / "ud.mrcs");
  for (int z = 0; z < nz; ++z) EXPECT_EQ(slice_of(ud.v, plane, z), slice_of(a, plane, nz - 1 - z)) << z;

  EXPECT_EQ(zk_stdout([&] { mrcsf_split((dir / "s.mrcs").c_str(), (dir / "a_").c_str()); }), "...\n");
  for (int z = 0; z < nz; ++z) {
    char name[16];
    snprintf(name, sizeof name, "a_%06d.mrc", z);
    const TestMrc s = read_test_mrc(dir / name);
    EXPECT_EQ(s.nz(), 1);
    EXPECT_EQ(s.v, slice_of(a, plane, z)) << name;
  }
  EXPECT_FALSE(zk_exists(dir / "a_000003.mrc"));
}

// Slice k moves by -shift k (gpu_2d_shift); the mean is that of the shifted
// slices; n = 0 takes every slice, and the stack is written only if asked.
TEST(ImagefileStacks, FourierShiftOfAStack) {
  ZkTmpDir dir;
  const int nx = 8, ny = 6, nz = 3, plane = nx * ny;
  const std::vector<float> a = zk_uniform(plane * nz, 2);
  write_test_mrc(dir / "s.mrcs", a, nx, ny, nz);
  const float2 shifts[3] = {{1, 0}, {0, -2}, {0.5f, 1.5f}};
  std::string text = zk_stdout([&] {
    mrcf_2ds_fourier_shift((dir / "s.mrcs").c_str(), (dir / "st.mrcs").c_str(), (dir / "ave.mrc").c_str(), shifts, 0,
                           1);
  });
  EXPECT_EQ(text, "...\n");
  std::vector<float> shifted(a.size()), ave(plane);
  for (int z = 0; z < nz; ++z)
    gpu_2d_shift(a.data() + z * plane, shifted.data() + z * plane, nx, ny, shifts[z].x, shifts[z].y);
  gpu_2ds_average(ave.data(), shifted.data(), nx, ny, nz);
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "st.mrcs").v, shifted));
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "ave.mrc").v, ave));
  // A whole-pixel shift by (1, 0): the content moves one column left.
  EXPECT_NEAR(shifted[2 * nx + 3], a[2 * nx + 4], 1e-5);
  // The first two slices only, no stack.
  zk_stdout([&] {
    mrcf_2ds_fourier_shift((dir / "s.mrcs").c_str(), (dir / "st2.mrcs").c_str(), (dir / "ave2.mrc").c_str(), shifts, 2,
                           0);
  });
  EXPECT_FALSE(zk_exists(dir / "st2.mrcs"));
  gpu_2ds_average(ave.data(), shifted.data(), nx, ny, 2);
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "ave2.mrc").v, ave));
  EXPECT_FAILS("file size smaller than frames of drifts! Exit now!",
               mrcf_2ds_fourier_shift((dir / "s.mrcs").c_str(), "x", (dir / "x.mrc").c_str(), shifts, 4, 0));
  write_test_mrc(dir / "odd.mrcs", zk_uniform(7 * 6, 3), 7, 6, 1);
  EXPECT_FAILS("file size not even number! Exit now!",
               mrcf_2ds_fourier_shift((dir / "odd.mrcs").c_str(), "x", (dir / "x.mrc").c_str(), shifts, 0, 0));
}

// 2500 slices are read in three runs: three "." and two "-", and one line
// for each slice with its peak.
TEST(ImagefileStacks, PeaksOfALongStack) {
  ZkTmpDir dir;
  const int n = 4, nz = 2500;
  std::vector<float> v((size_t)n * n * nz, 0.0f);
  for (int z = 0; z < nz; ++z) v[(size_t)z * n * n + (z % n) * n + (z / 7) % n] = 1.0f + z;
  write_test_mrc(dir / "long.mrcs", v, n, n, nz);
  const std::string text = zk_stdout([&] { mrcf_2ds_find_single_peaks((dir / "long.mrcs").c_str()); });
  const std::string name = dir / "long_local_center.txt";
  EXPECT_EQ(text.substr(0, text.find('\n') + 1),
            "searching and writing all peaks (frame,   x,     y,     value) to " + name + " :\n");
  const std::string runs = text.substr(text.find('\n') + 1);
  EXPECT_EQ(count(runs, '.'), 3);
  EXPECT_EQ(count(runs, '-'), 2);
  EXPECT_NE(text.find(".-.-.\n peak search finished"), std::string::npos) << text;
  const std::string lines = zk_slurp(name);
  EXPECT_EQ(count(lines, '\n'), nz);
  char want[64];
  snprintf(want, sizeof want, "%8d %8d %8d %15.6f \n", 1234, (1234 / 7) % n, 1234 % n, 1235.0f);
  EXPECT_NE(lines.find(want), std::string::npos);
}

// Box i is cut from slice i, 0 where it leaves the slice; the counts decide
// how many.
TEST(ImagefileStacks, LocalParticlesOneBoxPerSlice) {
  ZkTmpDir dir;
  const int nx = 10, ny = 8, nz = 3, plane = nx * ny;
  const std::vector<float> a = zk_uniform(plane * nz, 4);
  write_test_mrc(dir / "s.mrcs", a, nx, ny, nz);
  zk_put(dir / "b.box", "1\t2\t4\t4\n8\t6\t5\t5\n-1\t0\t4\t4\n");
  const std::string text =
      zk_stdout([&] { mrcsf_2ds_extract_local_ptcls((dir / "s.mrcs").c_str(), (dir / "b.box").c_str(), 0); });
  EXPECT_NE(text.find("\n particle extraction finished"), std::string::npos);
  const TestMrc p = read_test_mrc(dir / "s_local_particles.mrcs");
  ASSERT_EQ(p.nx(), 4);  // every box takes the size of the first
  ASSERT_EQ(p.nz(), 3);
  auto px = [&](int k, int i, int j) { return p.v[(size_t)k * 16 + j * 4 + i]; };
  auto in = [&](int z, int x, int y) { return a[(size_t)z * plane + y * nx + x]; };
  EXPECT_EQ(px(0, 0, 0), in(0, 1, 2));
  EXPECT_EQ(px(0, 3, 3), in(0, 4, 5));
  EXPECT_EQ(px(1, 1, 1), in(1, 9, 7));
  EXPECT_EQ(px(1, 2, 1), 0.0f);  // x = 10 is off the slice
  EXPECT_EQ(px(2, 0, 0), 0.0f);  // x = -1
  EXPECT_EQ(px(2, 1, 3), in(2, 0, 3));

  // Two boxes for three slices, resized to 2 about their centres (3, 4) and (10, 8).
  zk_put(dir / "two.box", "1\t2\t4\t4\n8\t6\t4\t4\n");
  const std::string warn =
      zk_stdout([&] { mrcsf_2ds_extract_local_ptcls((dir / "s.mrcs").c_str(), (dir / "two.box").c_str(), 2); });
  EXPECT_NE(warn.find("Particle number in mrcs stack more than that in the box file!\n Extra particles have been "
                      "ignored! "),
            std::string::npos);
  const TestMrc q = read_test_mrc(dir / "s_local_particles.mrcs");
  ASSERT_EQ(q.nz(), 2);
  ASSERT_EQ(q.nx(), 2);
  EXPECT_EQ(q.v[0], in(0, 2, 3));
  EXPECT_EQ(q.v[4 + 0], in(1, 9, 7));

  // More boxes than slices: the stack wins.
  write_test_mrc(dir / "one.mrcs", slice_of(a, plane, 0), nx, ny, 1);
  const std::string more =
      zk_stdout([&] { mrcsf_2ds_extract_local_ptcls((dir / "one.mrcs").c_str(), (dir / "b.box").c_str(), 0); });
  EXPECT_NE(more.find("Particle number in mrcs stack smaller than that in the box file!"), std::string::npos);
  EXPECT_EQ(read_test_mrc(dir / "one_local_particles.mrcs").nz(), 1);
}

TEST(ImagefileStacks, HotPixelsAreReplacedByTheirNeighbours) {
  ZkTmpDir dir;
  const int nx = 12, ny = 10, nz = 2, plane = nx * ny;
  std::vector<float> a = zk_uniform(plane * nz, 5, -0.1f, 0.1f);
  a[plane + 5 * nx + 6] = 50.0f;
  write_test_mrc(dir / "h.mrcs", a, nx, ny, nz);
  zk_stdout([&] { mrcsf_2ds_rm_hotpixels((dir / "h.mrcs").c_str(), (dir / "c.mrcs").c_str(), 5); });
  const TestMrc c = read_test_mrc(dir / "c.mrcs");
  EXPECT_LT(std::fabs(c.v[plane + 5 * nx + 6]), 0.2f);
  std::vector<float> want = a;
  zk_stdout([&] { hcuda_2ds_rm_hotpixels_inplace(want.data(), nx, ny, nz, 5); });
  EXPECT_TRUE(same_bits(c.v, want));
}
