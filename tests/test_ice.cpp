#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "device/process2d_local.h"
#include "driver/zavik_para.h"
#include "driver/zavik_run.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"
#include "picking/zavik56_ice.h"
#include "test_util.h"

namespace {

std::vector<float> noise_image(int nx, int ny, unsigned seed, float sd) {
  return zk_normal((size_t)nx * ny, seed, 0.0f, sd);
}

// The local mean written out naively in double: the device disc of radius R
// and soft width s centred on ((P - 1)/2) of the period P, correlated with
// the periodic image (mirror-padded or not), zero lag moved to P/2, divided by
// the disc's sum.  Output pixel (x, y) thereby weights the image by the disc
// centred on (x - 0.5, y - 0.5).
std::vector<double> naive_local_mean(const std::vector<float>& img, int nx, int ny, double R, double s, bool pad) {
  const int px = pad ? 2 * nx : nx, py = pad ? 2 * ny : ny;
  auto at = [&](int x, int y) {
    if (pad) {
      if (x >= nx) x = px - 1 - x;
      if (y >= ny) y = py - 1 - y;
    }
    return (double)img[(size_t)y * nx + x];
  };
  std::vector<double> m((size_t)px * py);
  double W = 0.0;
  const double cx = (px - 1) / 2.0, cy = (py - 1) / 2.0;
  for (int y = 0; y < py; ++y)
    for (int x = 0; x < px; ++x) {
      const double d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
      double v = 0.0;
      if (d2 <= R * R)
        v = 1.0;
      else if (d2 <= (R + s) * (R + s))
        v = 0.39894229 * std::exp(-std::pow(std::sqrt(d2) - R, 2) / (2.0 * (s / 3) * (s / 3)));
      m[(size_t)y * px + x] = v;
      W += v;
    }
  std::vector<double> out((size_t)nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      double sum = 0.0;
      for (int v = 0; v < py; ++v)
        for (int u = 0; u < px; ++u) {
          const double w = m[(size_t)v * px + u];
          if (w == 0.0) continue;
          const int qx = ((u + x - px / 2) % px + px) % px, qy = ((v + y - py / 2) % py + py) % py;
          sum += w * at(qx, qy);
        }
      out[(size_t)y * nx + x] = sum / W;
    }
  return out;
}

// A parameter record for the stage, at speed 0 and 1 A pixels: the grid cell
// is 32 shrunk pixels.
struct IcePara {
  Zavik_Para p;
  IcePara() {
    zavik_init_parameters(1, &p);
    p.shrink = 1;
    p.speed = 0;
    p.apixM = 1.0f;
    p.min_dist = 45.3f;  // 45.3*sqrt(2)/2 = 32.03
    p.min_dist_px = 45.3f;
    p.lsigma_R = 3.0f;
    p.lave_R = 3.0f;
    p.local_soft_edge = 3.0f;
    p.write_bg_mic = 0;
    p.write_lsigma_mic = 0;
  }
  ~IcePara() { zavik_free_parameters(&p); }
};

const char* kStarHead = "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n";

}  // namespace

class LocalStats : public BackendTest {};

TEST_P(LocalStats, LocalMeanAgainstNaiveCorrelation) {
  const int nx = 12, ny = 10;
  const size_t n = (size_t)nx * ny;
  std::vector<float> img = noise_image(nx, ny, 1, 1.0f);
  for (bool pad : {true, false}) {
    std::vector<double> want = naive_local_mean(img, nx, ny, 2.5, 3.0, pad);
    Dev d;
    float *d_in = d.put(img), *d_in2 = d.put(img), *d_out = d.f(n);
    std::vector<float> staged(n);
    (pad ? hcuda_2d_bg_mpad : hcuda_2d_bg)(d_out, d_in, nx, ny, 2.5f, 3.0f);
    std::vector<float> got = from_dev(d_out, n);
    for (size_t i = 0; i < n; ++i) ASSERT_NEAR(got[i], want[i], 2e-5) << "pad " << pad << " at " << i;
    // In place, staged, and the other names of the local mean give the same bits.
    (pad ? hcuda_2d_bg_mpad_inplace : hcuda_2d_bg_inplace)(d_in, nx, ny, 2.5f, 3.0f);
    (pad ? hcuda_2d_local_ave_softR_mpad : hcuda_2d_local_ave_softR)(d_out, d_in2, nx, ny, 2.5f, 3.0f);
    (pad ? gpu_2d_bg_mpad : gpu_2d_bg)(staged.data(), img.data(), nx, ny, 2.5f, 3.0f);
    EXPECT_TRUE(same_bits(from_dev(d_in, n), got));
    EXPECT_TRUE(same_bits(from_dev(d_out, n), got));
    EXPECT_TRUE(same_bits(staged, got));
  }
  // A disc wider than the padded image wraps around the period.
  std::vector<double> want = naive_local_mean(img, nx, ny, 13.0, 4.0, true);
  std::vector<float> got(n);
  gpu_2d_bg_mpad(got.data(), img.data(), nx, ny, 13.0f, 4.0f);
  for (size_t i = 0; i < n; ++i) ASSERT_NEAR(got[i], want[i], 2e-5) << "wide disc at " << i;
}

TEST_P(LocalStats, LocalSigmaAgainstNaive) {
  const int nx = 14, ny = 12;
  std::vector<float> img = noise_image(nx, ny, 3, 1.0f);
  std::vector<float> sq(img.size());
  for (size_t i = 0; i < img.size(); ++i) sq[i] = img[i] * img[i];
  for (bool pad : {true, false}) {
    std::vector<double> m1 = naive_local_mean(img, nx, ny, 3.0, 2.0, pad);
    std::vector<double> m2 = naive_local_mean(sq, nx, ny, 3.0, 2.0, pad);
    std::vector<float> got(img.size());
    if (pad)
      gpu_2d_local_sigma_softR_mpad(got.data(), img.data(), nx, ny, 3.0f, 2.0f);
    else
      gpu_2d_local_sigma_softR(got.data(), img.data(), nx, ny, 3.0f, 2.0f);
    for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], std::sqrt(m2[i] - m1[i] * m1[i]), 1e-3) << i;
  }
  // The reduction subtracts the local mean.
  std::vector<double> m = naive_local_mean(img, nx, ny, 3.0, 2.0, true);
  Dev d;
  float* d_img = d.put(img);
  hcuda_2d_bg_reduce_mpad_inplace(d_img, nx, ny, 3.0f, 2.0f);
  std::vector<float> red = from_dev(d_img, img.size());
  for (size_t i = 0; i < red.size(); ++i) ASSERT_NEAR(red[i], img[i] - m[i], 2e-5);
}

// The kept disc spectra give the bits of a fresh computation, whatever the
// order of the radii and however often the slots are reused.
TEST_P(LocalStats, KeptDiscsGiveTheSameBits) {
  const int n = 16;
  std::vector<float> img = noise_image(n, n, 4, 1.0f);
  const float radii[] = {2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 2.0f, 3.0f};
  std::vector<std::vector<float>> kept(7, std::vector<float>(img.size())), fresh = kept;
  zk_local_disc_cache_clear();
  for (int k = 0; k < 7; ++k) gpu_2d_bg_mpad(kept[k].data(), img.data(), n, n, radii[k], 3.0f);
  for (int k = 0; k < 7; ++k) {
    zk_local_disc_cache_clear();
    gpu_2d_bg_mpad(fresh[k].data(), img.data(), n, n, radii[k], 3.0f);
    EXPECT_TRUE(same_bits(kept[k], fresh[k])) << k;
  }
  EXPECT_FALSE(same_bits(kept[0], kept[1]));
}

ZK_BACKEND_SUITE(LocalStats);

class IceCells : public BackendTest {};

// Hand-made maps of 10 by 7 in cells of 4: Gx = 3, Gy = 2, the last column of
// cells 2 wide and the last row 3 tall.
TEST_P(IceCells, StrictRunningValuesOfTheCellScan) {
  const int nx = 10, ny = 7, g = 4;
  std::vector<float> ave((size_t)nx * ny, 0.0f), sig((size_t)nx * ny, 0.5f);
  auto at = [&](std::vector<float>& m, int x, int y) -> float& { return m[(size_t)y * nx + x]; };
  // (0, 0): sigma falls in row order from its first pixel, all above the
  // cutoff: never a hit.
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) at(sig, x, y) = 3.0f - 0.1f * (y * 4 + x);
  // (1, 0): two rising sigma hits and a lower one after them: the last hit wins.
  at(sig, 5, 1) = 2.0f;
  at(sig, 6, 2) = 2.5f;
  at(ave, 6, 2) = 0.3f;
  at(sig, 7, 3) = 2.2f;
  // (2, 0): the average starts at -3 and rises to -2: not marked.
  for (int y = 0; y < 4; ++y)
    for (int x = 8; x < 10; ++x) at(ave, x, y) = -2.0f;
  at(ave, 8, 0) = -3.0f;
  // (0, 1): one low average below lave_min; a later, higher one is no hit.
  at(ave, 1, 5) = -1.5f;
  at(sig, 1, 5) = 0.2f;
  at(ave, 2, 5) = -1.2f;
  // (1, 1): a sigma hit takes the average along to -2, so a later -1.5 is no
  // hit, though it lies below lave_min and below the start value 0.
  at(sig, 5, 4) = 2.0f;
  at(ave, 5, 4) = -2.0f;
  at(ave, 6, 5) = -1.5f;
  // (2, 1), clipped both ways: high averages, 1.5 then 1.2 (no hit) then 2.0.
  at(ave, 9, 4) = 1.5f;
  at(ave, 8, 5) = 1.2f;
  at(ave, 9, 6) = 2.0f;

  Dev d;
  float *d_ave = d.put(ave), *d_sig = d.put(sig), *d_ca = d.f(6), *d_cs = d.f(6);
  unsigned int* d_ice = d.keep(d_alloc_uint(6));
  hcuda_find_sigma_grids(d_ave, d_sig, d_ice, d_ca, d_cs, nx, ny, g, -1.0f, 1.0f, 1.3f);
  std::vector<unsigned int> ice = from_dev(d_ice, 6);
  std::vector<float> ca = from_dev(d_ca, 6), cs = from_dev(d_cs, 6);

  // Running values: the first pixel's where nothing hit, else the last hit's.
  const unsigned int want[6] = {0, 2 * 10 + 6, 0, 5 * 10 + 1, 4 * 10 + 5, 6 * 10 + 9};
  const float want_ca[6] = {0.0f, 0.3f, -3.0f, -1.5f, -2.0f, 2.0f}, want_cs[6] = {3.0f, 2.5f, 0.5f, 0.2f, 2.0f, 0.5f};
  for (int c = 0; c < 6; ++c) {
    EXPECT_EQ(ice[c], want[c]) << "cell " << c;
    EXPECT_FLOAT_EQ(ca[c], want_ca[c]) << "cell " << c;
    EXPECT_FLOAT_EQ(cs[c], want_cs[c]) << "cell " << c;
  }
}

// A 192 by 192 image in cells of 32: a dark disc in cell (2, 1), a bright
// checkered patch in cell (4, 3), a small dark disc in the corner cell (0, 0),
// faint noise elsewhere.
TEST_P(IceCells, StageRejectsTheRightCellsAndWritesItsFiles) {
  ZkTmpDir tmp;
  const int L = 192, g = 32, G = L / g;
  IcePara ip;
  ip.p.write_bg_mic = 1;
  ASSERT_EQ(zavik_grid_cell(&ip.p), g);
  std::vector<float> img = noise_image(L, L, 7, 0.05f);
  auto disc = [&](int cx, int cy, int r, float v) {
    for (int y = cy - r; y <= cy + r; ++y)
      for (int x = cx - r; x <= cx + r; ++x)
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r) img[(size_t)y * L + x] = v;
  };
  disc(80, 48, 7, -4.0f);
  disc(5, 5, 4, -4.0f);
  for (int y = 109; y < 115; ++y)
    for (int x = 141; x < 147; ++x) img[(size_t)y * L + x] = ((x + y) % 2) ? 3.0f : -3.0f;

  const std::string mic = tmp / "mic.mrc";
  Dev d;
  float* d_mic = d.put(img);
  unsigned int* d_ice = d.keep(d_alloc_uint(G * G));
  hcuda_empty(d_ice, G * G * sizeof(unsigned int));
  EXPECT_EQ(hcuda_2d_ice_detect(d_mic, L, L, make_i2(0, 0), d_ice, mic.c_str(), &ip.p), 0);
  std::vector<unsigned int> ice = from_dev(d_ice, G * G);
  EXPECT_TRUE(same_bits(from_dev(d_mic, img.size()), img)) << "the image is not changed";

  for (int c = 0; c < G * G; ++c) {
    const int cx = c % G, cy = c / G;
    const bool rejected = (cx == 2 && cy == 1) || (cx == 4 && cy == 3) || (cx == 0 && cy == 0);
    EXPECT_EQ(ice[c] != 0, rejected) << "cell " << cx << "," << cy;
    if (ice[c] != 0) {  // the word lies in its own cell
      EXPECT_EQ(std::make_pair((int)(ice[c] % L) / g, (int)(ice[c] / L) / g), std::make_pair(cx, cy));
    }
  }

  // The average map is written, the sigma map is not.
  const std::string bg = tmp / "mic_bg.mrc";
  ASSERT_TRUE(zk_exists(bg));
  EXPECT_FALSE(zk_exists(tmp / "mic_lsigma.mrc"));
  std::vector<float> bgmap((size_t)L * L), want_bg((size_t)L * L);
  mrcf_read_all(bg.c_str(), bgmap.data());
  gpu_2d_local_ave_softR_mpad(want_bg.data(), img.data(), L, L, 3.0f, 3.0f);
  EXPECT_TRUE(same_bits(bgmap, want_bg));
  std::vector<float> sigmap((size_t)L * L);
  gpu_2d_local_sigma_softR_mpad(sigmap.data(), img.data(), L, L, 3.0f, 3.0f);

  // The corner hit lies within half a cell of the edge: in d_ice, not in the
  // files.  The two others are listed in cell order, the box with the maps'
  // values at the rejected position.
  EXPECT_LT((int)(ice[0] % L), g / 2 + 1);
  const std::string star = zk_slurp(tmp / "mic_rejected.star");
  ASSERT_EQ(star.compare(0, strlen(kStarHead), kStarHead), 0);
  std::istringstream box_in(zk_slurp(tmp / "mic_rejected.box")), star_in(star.substr(strlen(kStarHead)));
  for (int c : {1 * G + 2, 3 * G + 4}) {
    const int x = ice[c] % L, y = ice[c] / L;
    int bx, by, bw, bh, sx, sy;
    float a, s;
    ASSERT_TRUE(box_in >> bx >> by >> bw >> bh >> a >> s);
    ASSERT_TRUE(star_in >> sx >> sy);
    EXPECT_EQ(std::vector<int>({bx, by, bw, bh, sx, sy}), std::vector<int>({x - 16, y - 16, 32, 32, x, y}));
    EXPECT_NEAR(a, bgmap[ice[c]], 1e-6);
    EXPECT_NEAR(s, sigmap[ice[c]], 1e-6);
  }
  std::string more;
  EXPECT_FALSE(box_in >> more);  // two lines each, no more
  EXPECT_FALSE(star_in >> more);
}

ZK_BACKEND_SUITE(IceCells);

// Rejected positions in raw pixels; half a cell from the edge is left out,
// all comparisons strict.
TEST(IceCoordinates, LinesOfTheRejectedFiles) {
  ZkTmpDir tmp;
  const int n = 100, g = 20;  // 5 by 5 cells, half a cell is 10
  std::vector<unsigned int> ice(25, 0);
  std::vector<float> ave(25, 0.0f), sig(25, 0.0f);
  ice[0] = 5 * n + 5;          // corner: out
  ice[7] = 30 * n + 50;        // (50, 30): in
  ice[8] = 50 * n + 89;        // x 89 < 90: in
  ice[9] = 50 * n + 90;        // x 90: out
  ice[10] = 50 * n + 11;       // x 11 > 10: in
  ice[15] = 60 * n + 10;       // x 10: out
  ave[7] = 0.5f;
  sig[7] = 1.25f;
  ave[8] = -1.5f;
  sig[8] = 0.75f;
  const std::string b = tmp / "r.box", s = tmp / "r.star";
  output_ice_coord(b.c_str(), ice.data(), ave.data(), sig.data(), n, n, make_i2(3, 7), g, 4, 2);
  output_ice_coord(s.c_str(), ice.data(), ave.data(), sig.data(), n, n, make_i2(3, 7), g, 4, 1);
  EXPECT_EQ(zk_slurp(b),
            "163     87      80      80      \t0.500000\t1.250000\n"
            "319     167     80      80      \t-1.500000\t0.750000\n"
            "7       167     80      80      \t0.000000\t0.000000\n");
  EXPECT_EQ(zk_slurp(s), std::string(kStarHead) +
                             "203     127     \n"
                             "359     207     \n"
                             "47      207     \n");
}

class Exclusion : public BackendTest {};

TEST_P(Exclusion, CoordinatesEnterTheirCells) {
  const int L = 120, g = 30, G = 4;
  std::vector<unsigned int> start(G * G, 0);
  start[0] = 777;  // a rejection of cell (0, 0) from ice detection
  Dev d;
  unsigned int* d_ice = d.put(start);
  auto box = [](int x, int y, int w, int h) {
    PTCL_BOX b = one_new_ptcl_box();
    b.x = x, b.y = y, b.w = w, b.h = h;
    return b;
  };
  std::vector<PTCL_BOX> boxes = {
      box(100, 200, 64, 64),   // px 33, py 58: cell (1, 1)
      box(300, 20, 0, 0),      // a .star centre: px 75, py 5, cell (2, 0)
      box(-32, -32, 64, 64),   // centre on pixel (0, 0): its word would read "free"
      box(-3, 100, 0, 0),      // centre left of the image
      box(480, 100, 0, 0),     // px 120: right of the square
      box(100, 483, 0, 0),     // py 120: below it
      box(380, 380, 100, 100), // px 107, py 107: cell (3, 3)
  };
  add_excluded_coords_to_ice(d_ice, L, L, g, boxes.data(), (int)boxes.size(), 4);
  std::vector<unsigned int> ice = from_dev(d_ice, G * G);
  std::vector<unsigned int> want(G * G, 0);
  want[0] = 777;
  want[1 * G + 1] = 33 + 58 * L;
  want[2] = 75 + 5 * L;
  want[3 * G + 3] = 107 + 107 * L;
  EXPECT_EQ(ice, want);
  // A later box in the same cell replaces the word.
  PTCL_BOX later = box(120, 180, 64, 64);  // px 38, py 53
  add_excluded_coords_to_ice(d_ice, L, L, g, &later, 1, 4);
  EXPECT_EQ(from_dev(d_ice, G * G)[1 * G + 1], 38u + 53u * L);
}

TEST_P(Exclusion, BoxFileEntersEveryBox) {
  ZkTmpDir tmp;
  const int L = 120, g = 60, G = 2;
  const std::string f = tmp / "global.box";
  // Six boxes for four cells: the last two replace the words of their cells.
  zk_put(f, "100 100 40 40\n300 100 40 40\n100 300 40 40\n300 300 40 40\n110 110 40 40\n310 310 40 40\n");
  Dev d;
  unsigned int* d_ice = d.keep(d_alloc_uint(G * G));
  hcuda_empty(d_ice, G * G * sizeof(unsigned int));
  EXPECT_EQ(zk_stdout([&] { add_excluded_boxf_to_ice(d_ice, L, L, g, f.c_str(), 4); }),
            "       6 particles in file " + f + " excluded from auto-picking \n");
  std::vector<unsigned int> want = {32 + 32 * L, 80 + 30 * L, 30 + 80 * L, 82 + 82 * L};
  EXPECT_EQ(from_dev(d_ice, G * G), want);
}

// The mask of a square whose side is no multiple of the cell: the last cells
// are clipped, every pixel written once, hard edges.
TEST_P(Exclusion, MaskByCoordsFollowsTheCells) {
  const int L = 70, g = 16, G = 5;
  std::vector<unsigned int> ice(G * G, 0);
  ice[0] = 17;                 // cell (0, 0)
  ice[2 * G + 4] = 40 * L + 66;  // cell (4, 2), 6 pixels wide
  ice[4 * G + 4] = 69 * L + 69;  // corner cell, 6 by 6
  Dev d;
  unsigned int* d_ice = d.put(ice);
  float* d_mask = d.f(L * L);
  for (float v : {0.0f, 1.0f, 0.25f}) {
    hcuda_memset_float(d_mask, -7.0f, L * L);
    hcuda_2d_generate_mask_by_coords(d_mask, nullptr, L, L, g, d_ice, v);
    std::vector<float> m = from_dev(d_mask, L * L);
    for (int y = 0; y < L; ++y)
      for (int x = 0; x < L; ++x) {
        const bool rej = ice[(y / g) * G + x / g] != 0;
        ASSERT_EQ(m[(size_t)y * L + x], rej ? v : 1.0f - v) << x << "," << y << " v " << v;
      }
  }
}

ZK_BACKEND_SUITE(Exclusion);
