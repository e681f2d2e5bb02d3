// The map file commands end to end: output files against the library's
// in-memory results or against known content, heads, and the reports.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "test_util.h"
#include "toolbox_files.h"
#include "volume/map_templates.h"
#include "volume/process3d_mrc.h"
#include "volume/process3d_raw.h"

namespace {

size_t at(int nx, int ny, int x, int y, int z) { return ((size_t)z * ny + y) * nx + x; }

}  // namespace

TEST(VolumeFiles, TransformsKeepPixelSizeAndMatchTheLibrary) {
  ZkTmpDir dir;
  const int nx = 8, ny = 7, nz = 6;
  const std::vector<float> a = zk_uniform((size_t)nx * ny * nz, 1);
  write_test_mrc(dir / "in.mrc", a, nx, ny, nz, 2, 2.5f);
  zk_stdout([&] {
    mrcf_3d_rot_trans((dir / "in.mrc").c_str(), (dir / "id.mrc").c_str(), 0, 0, 0, 0, 0, 0, 0);
    mrcf_3d_rot_trans((dir / "in.mrc").c_str(), (dir / "rt.mrc").c_str(), 20, 30, 40, 1, -1, 0.5f, -1);
    mrcf_3d_rot_trans3((dir / "in.mrc").c_str(), (dir / "rt3.mrc").c_str(), 20, 30, 40, 1, -1, 0.5f, -1);
    mrcf_3d_trans_rot((dir / "in.mrc").c_str(), (dir / "tr.mrc").c_str(), 1, -1, 0.5f, 20, 30, 40, 0);
  });
  const TestMrc id = read_test_mrc(dir / "id.mrc");
  EXPECT_TRUE(same_bits(id.v, a));
  EXPECT_EQ(id.head.mode, 2);
  EXPECT_FLOAT_EQ(mrc_head_apix(&id.head), 2.5f);
  EXPECT_EQ(id.head.nz, nz);
  // The file is the library's transform about ((n - 1)/2, ...).
  std::vector<float> want(a.size());
  zk_stdout([&] {
    gpu_3d_transform(want.data(), a.data(), nx, ny, nz, 3.5f, 3.0f, 2.5f,
                     hd_rottrans_to_rtmat3d(20, 30, 40, 1, -1, 0.5), -1);
  });
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "rt.mrc").v, want));
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "rt3.mrc").v, want));
  zk_stdout([&] {
    gpu_3d_transform(want.data(), a.data(), nx, ny, nz, 3.5f, 3.0f, 2.5f,
                     hd_transrot_to_rtmat3d(1, -1, 0.5, 20, 30, 40), 0);
  });
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "tr.mrc").v, want));
}

TEST(VolumeFiles, ProjectionsAndBackprojection) {
  ZkTmpDir dir;
  const int n = 10;
  const std::vector<float> a = zk_uniform((size_t)n * n * n, 2, 0.0f, 1.0f);
  write_test_mrc(dir / "map.mrc", a, n, n, n);
  // At zero angles: the sum along z, one section.
  mrcf_3d_project((dir / "map.mrc").c_str(), (dir / "p0.mrc").c_str(), 0, 0, 0, -1);
  const TestMrc p0 = read_test_mrc(dir / "p0.mrc");
  ASSERT_EQ(p0.nz(), 1);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      float s = 0.0f;
      for (int z = 0; z < n; ++z) s = s + a[at(n, n, x, y, z)];
      ASSERT_EQ(p0.v[(size_t)y * n + x], s);
    }
  // Random orientations from a seed: the stack is the library's projections
  // at those orientations, the reconstruction their back-projection.
  const int k = 5;
  const std::string text = zk_stdout([&] {
    mrcf_3d_project_rec_randN((dir / "map.mrc").c_str(), (dir / "proj.mrcs").c_str(), (dir / "rec.mrc").c_str(), k, -1,
                              42);
    mrcf_3d_project_randN((dir / "map.mrc").c_str(), (dir / "proj2.mrcs").c_str(), k, -1, 42);
  });
  std::vector<EM_Trans_Orient> o(k);
  random_polar_angles_many(o.data(), k, 42);
  std::vector<float> stack((size_t)k * n * n), rec(a.size());
  zk_stdout([&] {
    gpu_3d_project_many(stack.data(), a.data(), n, n, n, 4.5f, 4.5f, 4.5f, o.data(), k, -1);
    gpu_3d_backproject_many(rec.data(), stack.data(), n, n, n, 4.5f, 4.5f, 4.5f, o.data(), k, 0);
  });
  const TestMrc proj = read_test_mrc(dir / "proj.mrcs");
  EXPECT_EQ(proj.nz(), k);
  EXPECT_TRUE(same_bits(proj.v, stack));
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "proj2.mrcs").v, stack));
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "rec.mrc").v, rec));
  char line[128];
  snprintf(line, sizeof line, "rot %f tilt %f psi %f \n", o[3].rot, o[3].tilt, o[3].psi);
  EXPECT_NE(text.find(line), std::string::npos) << text;
  EXPECT_NE(text.find(">>>>>>TIME<<<<<<            cuda_3d_project_many: "), std::string::npos) << text;

  // One image back-projected at zero angles fills every section with it.
  mrcf_3d_backproject((dir / "p0.mrc").c_str(), (dir / "bp.mrc").c_str(), 3, 0, 0, 0, 0);
  const TestMrc bp = read_test_mrc(dir / "bp.mrc");
  ASSERT_EQ(bp.nz(), 3);
  for (int z = 0; z < 3; ++z)
    EXPECT_TRUE(same_bits(std::vector<float>(bp.v.begin() + z * n * n, bp.v.begin() + (z + 1) * n * n), p0.v)) << z;

  // A map that is not a cube cannot be projected at random orientations.
  write_test_mrc(dir / "flat.mrc", std::vector<float>(n * n * 4, 1.0f), n, n, 4);
  EXPECT_FAILS("flat.mrc is 10 x 10 x 4: projection at random orientations needs a cubic map \\(nx = ny = nz\\)",
               mrcf_3d_project_randN((dir / "flat.mrc").c_str(), (dir / "x.mrcs").c_str(), 3, -1, 1));
  EXPECT_FALSE(zk_exists(dir / "x.mrcs"));
}

TEST(VolumeFiles, SymmetryExpansionFromFiles) {
  ZkTmpDir dir;
  const int m = 3;
  std::vector<float> map(m * m * m);
  for (size_t i = 0; i < map.size(); ++i) map[i] = (float)(i + 1);
  write_test_mrc(dir / "small.mrc", map, m, m, m);
  write_test_mrc(dir / "mask.mrc", std::vector<float>(map.size(), 1.0f), m, m, m);
  zk_put(dir / "ops.txt", ".ncs_symmetry_operators\n1 0 0\n0 1 0\n0 0 1\n0 0 0\n"
                          ".ncs_symmetry_operators\n-1 0 0\n0 -1 0\n0 0 1\n0 0 0\n");
  // Two copies: at the origin (1, 1, 0), and turned half about z through (3.5, 3.5).
  zk_stdout([&] {
    mrcf_3d_sym_expansion((dir / "big.mrc").c_str(), 8, 8, 3, 3.5f, 3.5f, 1.0f, (dir / "small.mrc").c_str(), 1, 1, 0,
                          (dir / "mask.mrc").c_str(), (dir / "ops.txt").c_str());
  });
  const TestMrc big = read_test_mrc(dir / "big.mrc");
  ASSERT_EQ(big.nx(), 8);
  ASSERT_EQ(big.nz(), 3);
  EXPECT_EQ(big.v[at(8, 8, 1, 1, 0)], map[0]);
  EXPECT_EQ(big.v[at(8, 8, 3, 2, 2)], map[at(m, m, 2, 1, 2)]);
  EXPECT_EQ(big.v[at(8, 8, 6, 6, 0)], map[0]);  // (7 - 6) - 1 = 0 on x and y
  EXPECT_EQ(big.v[at(8, 8, 0, 0, 0)], 0.0f);
  write_test_mrc(dir / "mask2.mrc", std::vector<float>(8, 1.0f), 2, 2, 2);
  EXPECT_FAILS("The mask .*mask2.mrc is 2 x 2 x 2 and the map .*small.mrc 3 x 3 x 3: they must be equal",
               mrcf_3d_sym_expansion((dir / "big.mrc").c_str(), 8, 8, 3, 3.5f, 3.5f, 1.0f, (dir / "small.mrc").c_str(),
                                     1, 1, 0, (dir / "mask2.mrc").c_str(), (dir / "ops.txt").c_str()));
}

TEST(VolumeFiles, IndexVolumesSplitsAndMassCentre) {
  ZkTmpDir dir;
  for (int type : {1, 2}) {
    const std::string name = dir / ("idx" + std::to_string(type) + ".mrc");
    mrcf_3d_0123(name.c_str(), 4, 3, 2, type);
    const TestMrc v = read_test_mrc(name);
    ASSERT_EQ(v.v.size(), 24u);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(v.v[i], (float)i);
  }
  // A 16-bit stack of three sections: mrc_split keeps mode 1, mrcf_split writes floats.
  std::vector<float> s(2 * 2 * 3);
  for (size_t i = 0; i < s.size(); ++i) s[i] = (float)(10 * i) - 30;
  write_test_mrc(dir / "short.mrc", s, 2, 2, 3, 1);
  const std::string text = zk_stdout([&] {
    mrc_split((dir / "short.mrc").c_str(), (dir / "a_").c_str());
    mrcf_split((dir / "short.mrc").c_str(), (dir / "f_").c_str());
  });
  EXPECT_NE(text.find("updating head!"), std::string::npos);
  for (int z = 0; z < 3; ++z) {
    char name[32];
    snprintf(name, sizeof name, "a_%06d.mrc", z);
    const TestMrc a = read_test_mrc(dir / name);
    snprintf(name, sizeof name, "f_%06d.mrc", z);
    const TestMrc f = read_test_mrc(dir / name);
    EXPECT_EQ(a.head.mode, 1);
    EXPECT_EQ(f.head.mode, 2);
    const std::vector<float> want(s.begin() + 4 * z, s.begin() + 4 * z + 4);
    EXPECT_EQ(a.v, want);
    EXPECT_EQ(f.v, want);
    EXPECT_EQ(a.head.nz, 1);
    EXPECT_EQ(a.head.amin, want[0]);
    EXPECT_EQ(f.head.amax, want[3]);
    EXPECT_FLOAT_EQ(f.head.amean, (want[0] + want[1] + want[2] + want[3]) / 4);
  }
  EXPECT_FALSE(zk_exists(dir / "a_000003.mrc"));
  const ZkOutcome o = zk_outcome([&] { mrcf_split((dir / "none.mrc").c_str(), "x"); });
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.text,
            "\nError: in function 'mrc_split()'! Cannot open file '" + (dir / "none.mrc") + "' strike any key exit!\n");

  // Mass centre: weight 3 at (3, 1, 1) and 1 at (1, 1, 1).
  std::vector<float> w(4 * 3 * 2, 0.0f);
  w[at(4, 3, 3, 1, 1)] = 3;
  w[at(4, 3, 1, 1, 1)] = 1;
  write_test_mrc(dir / "w.mrc", w, 4, 3, 2);
  EXPECT_EQ(zk_stdout([&] { mrcf_print_mass_center((dir / "w.mrc").c_str()); }),
            "mass center (x,y,z) : (2.50 \t1.00 \t1.00)\n");
}

TEST(VolumeFiles, InputsThatCannotBeUsed) {
  ZkTmpDir dir;
  EXPECT_FAILS(
      "Cannot open file .*missing.mrc. Permission denied or wrong file name.\nError in function "
      "mrcf_read_whole\\(\\), file mrc_whole.cpp on line [0-9]+: open file failed.! Exit now!",
      mrcf_3d_project((dir / "missing.mrc").c_str(), (dir / "o.mrc").c_str(), 0, 0, 0, -1));
  write_test_mrc(dir / "c.mrc", std::vector<float>(8, 1.0f), 2, 2, 2, 4);
  EXPECT_FAILS("c.mrc has MRC mode 4; the modes read are 0, 1, 2, 6 and 12",
               mrcf_3d_project((dir / "c.mrc").c_str(), (dir / "o.mrc").c_str(), 0, 0, 0, -1));
  write_test_mrc(dir / "short.mrc", std::vector<float>(7, 1.0f), 2, 2, 2);
  EXPECT_FAILS("short.mrc is not as long as its head promises",
               mrcf_3d_rot_trans((dir / "short.mrc").c_str(), (dir / "o.mrc").c_str(), 0, 0, 0, 0, 0, 0, 0));
  EXPECT_FALSE(zk_exists(dir / "o.mrc"));
}

// Templates: one projection per direction of the asymmetric unit, the top
// view first, with the pixel size in the head.
TEST(VolumeFiles, TemplatesFromAMap) {
  ZkTmpDir dir;
  zk_stdout([&] { mrcf_3d_test_lobes((dir / "map.mrc").c_str(), 24, 10.0f, 200.0f); });
  const TestMrc map = read_test_mrc(dir / "map.mrc");
  ASSERT_EQ(map.nz(), 24);
  EXPECT_FLOAT_EQ(mrc_head_apix(&map.head), 10.0f);
  // Seen along z: the synthetic particle's three 2D lobes, each weighted by
  // its z width sigma*sqrt(2 pi) (r = 10 pixels, centre 11.5).
  const double lobes[3][3] = {{-0.40, 0.00, 0.34}, {0.30, 0.22, 0.30}, {0.18, -0.32, 0.26}};
  for (int y : {4, 11, 14, 19})
    for (int x : {3, 8, 12, 15}) {
      double want = 0, got = 0;
      for (const auto& l : lobes) {
        const double u = (x - 11.5) / 10 - l[0], w = (y - 11.5) / 10 - l[1], s = l[2] * 10;
        want += s * sqrt(2 * M_PI) * exp(-(u * u + w * w) * 100 / (2 * s * s));
      }
      for (int z = 0; z < 24; ++z) got += map.v[at(24, 24, x, y, z)];
      EXPECT_NEAR(got, want, 1e-3 * want + 1e-4) << x << "," << y;
    }

  std::string text;
  int n = 0;
  text = zk_stdout(
      [&] { n = mrcf_3d_project_templates((dir / "map.mrc").c_str(), (dir / "t.mrcs").c_str(), "D2", 30, 0); });
  EXPECT_EQ((size_t)n, asym_unit_orientations("D2", 30).size());
  const TestMrc t = read_test_mrc(dir / "t.mrcs");
  EXPECT_EQ(t.nz(), n);
  EXPECT_FLOAT_EQ(mrc_head_apix(&t.head), 10.0f);
  EXPECT_NE(text.find("template    0: rot    0.000 tilt    0.000 psi    0.000\n"), std::string::npos) << text;
  std::vector<float> top(24 * 24);
  gpu_3d_project(top.data(), map.v.data(), 24, 24, 24, 11.5f, 11.5f, 11.5f, 0, 0, 0, -1);
  EXPECT_TRUE(same_bits(std::vector<float>(t.v.begin(), t.v.begin() + 24 * 24), top));
  // A pixel size given wins over the map's.
  zk_stdout([&] { mrcf_3d_project_templates((dir / "map.mrc").c_str(), (dir / "t2.mrcs").c_str(), "C1", 90, 2.5f); });
  const TestMrc t2 = read_test_mrc(dir / "t2.mrcs");
  EXPECT_EQ(t2.nz(), 6);  // the poles and four directions on the equator
  EXPECT_FLOAT_EQ(mrc_head_apix(&t2.head), 2.5f);

  write_test_mrc(dir / "flat.mrc", std::vector<float>(8 * 8 * 4, 1.0f), 8, 8, 4);
  EXPECT_FAILS("flat.mrc is 8 x 8 x 4: projection at every orientation needs a cubic map",
               mrcf_3d_project_templates((dir / "flat.mrc").c_str(), (dir / "x.mrcs").c_str(), "C1", 30, 1));
  write_test_mrc(dir / "nopix.mrc", std::vector<float>(8 * 8 * 8, 1.0f), 8, 8, 8, 2, 0.0f);
  EXPECT_FAILS("nopix.mrc holds no pixel size; give it",
               mrcf_3d_project_templates((dir / "nopix.mrc").c_str(), (dir / "x.mrcs").c_str(), "C1", 30, 0));
  EXPECT_FAILS("only Cn and Dn", mrcf_3d_project_templates((dir / "map.mrc").c_str(), "x", "I", 30, 0));
}
