// lombar end to end on generated movies: the weighted particles against an
// independent double-precision computation from the movie file, skipped
// movies, unfinished runs, the CTF weight log and the contrast switch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"
#include "toolbox_files.h"

namespace {

const double PI = 3.14159265358979323846;

void synth(const std::string& dir, const std::string& args) {
  std::string out;
  ASSERT_EQ(zk_run_in(dir, MOVIE_SYNTH_BIN, args, &out), 0) << out;
}
int lombar(const std::string& dir, const std::string& args, std::string* out) {
  return zk_run_in(dir, LOMBAR_BIN, args, out);
}

using cd = std::complex<double>;

// In-place 2D DFT of an n x n array, row by row then column by column;
// sign -1 forward, +1 inverse (unscaled).
void dft2(std::vector<cd>& a, int n, int sign) {
  std::vector<cd> t(n), w(n);
  for (int k = 0; k < n; ++k) w[k] = std::polar(1.0, sign * 2 * PI * k / n);
  for (int pass = 0; pass < 2; ++pass)
    for (int line = 0; line < n; ++line) {
      auto at = [&](int i) -> cd& { return pass == 0 ? a[(size_t)line * n + i] : a[(size_t)i * n + line]; };
      for (int k = 0; k < n; ++k) {
        cd s = 0;
        for (int i = 0; i < n; ++i) s += at(i) * w[(size_t)k * i % n];
        t[k] = s;
      }
      for (int k = 0; k < n; ++k) at(k) = t[k];
    }
}

struct Log {
  std::vector<double> dose, dx, dy;
};
Log read_log(const std::string& path) {
  Log l;
  std::istringstream is(zk_slurp(path));
  double f, d, x, y;
  while (is >> f >> d >> x >> y) {
    l.dose.push_back(d);
    l.dx.push_back(x);
    l.dy.push_back(y);
  }
  return l;
}

// Particle k of the run, computed afresh: the box cut from every frame of the
// movie, each frame's spectrum weighted by exp(-a D s^b) times the sinc of
// its drift, the sum over the L2 norm of the weights, the CTF weight of the
// radius, and back.  An element of the full spectrum takes the weight of the
// element of the half spectrum (columns 0 to box/2) that stands for it: its
// own or its Hermitian partner's.  Only on the row of the Nyquist frequency,
// where fy = -box/2 stands for both signs, does this differ from weighting
// each element by its own angle.
std::vector<double> reference_particle(const std::vector<float>& movie, int n, int F, int x0, int y0, int box,
                                       const Log& log, double apix, double Db, const std::vector<double>& ctfw) {
  std::vector<cd> sum((size_t)box * box, 0.0), spectrum((size_t)box * box);
  std::vector<double> wsum((size_t)box * box, 0.0);
  auto half_freq = [&](int kx, int ky, int& fx, int& fy) {
    if (kx > box / 2) {
      kx = box - kx;
      ky = (box - ky) % box;
    }
    fx = kx;
    fy = ky < box / 2 ? ky : ky - box;
  };
  for (int f = 0; f < F; ++f) {
    for (int j = 0; j < box; ++j)
      for (int i = 0; i < box; ++i) spectrum[(size_t)j * box + i] = movie[((size_t)f * n + y0 + j) * n + x0 + i];
    dft2(spectrum, box, -1);
    for (int ky = 0; ky < box; ++ky)
      for (int kx = 0; kx < box; ++kx) {
        int fx, fy;
        half_freq(kx, ky, fx, fy);
        const double s = hypot(fx, fy) / (box * apix);
        double w = 1;
        if (s > 0) {
          const double c = fabs(cos(atan2(fy, fx) - atan2(log.dy[f], log.dx[f])));
          const double K = 2 * PI * s * apix * hypot(log.dx[f], log.dy[f]) * ((1 - Db) * c + Db);
          w = exp(-0.5 * log.dose[f] * pow(s, 1.3)) * (K == 0 ? 1 : sin(K) / K);
        }
        sum[(size_t)ky * box + kx] += w * spectrum[(size_t)ky * box + kx];
        wsum[(size_t)ky * box + kx] += w * w;
      }
  }
  for (int ky = 0; ky < box; ++ky)
    for (int kx = 0; kx < box; ++kx) {
      int fx, fy;
      half_freq(kx, ky, fx, fy);
      const double r = std::min(hypot(fx, fy), box / 2.0);
      const int i0 = (int)r;
      const double cw = i0 < box / 2 ? ctfw[i0] + (r - i0) * (ctfw[i0 + 1] - ctfw[i0]) : ctfw[box / 2];
      sum[(size_t)ky * box + kx] *= cw / sqrt(wsum[(size_t)ky * box + kx]);
    }
  dft2(sum, box, +1);
  std::vector<double> img((size_t)box * box);
  for (size_t k = 0; k < img.size(); ++k) img[k] = sum[k].real() / ((double)box * box);
  return img;
}

TEST(MovieEndToEnd, WeightedParticlesAgainstAnIndependentComputation) {
  ZkTmpDir dir;
  synth(dir.path,
        "--out mov.mrc --size 160 --frames 7 --box 48 --diameter 30 --noise 0.5 --drift0 2.5 --drift1 0.5 "
        "--seed 5");
  // A CTF weight log of its own, falling with the radius.
  std::string w;
  std::vector<double> ctfw;
  for (int r = 0; r <= 24; ++r) {
    ctfw.push_back(1.0 - r / 40.0);
    w += std::to_string(r) + " 0 " + std::to_string(ctfw.back()) + "\n";
  }
  zk_put(dir / "mov_ctfw.txt", w);
  std::string out;
  ASSERT_EQ(lombar(dir.path, "--apix 1.25 --newsize 48 --D_b 0.3 mov.mrc", &out), 0) << out;
  const std::vector<float> movie = read_test_mrc(dir / "mov.mrc").v;
  const TestMrc got = read_test_mrc(dir / "mov_wave.mrc");
  ASSERT_EQ(got.nx(), 48);
  ASSERT_EQ(got.nz(), 9);  // 3 x 3 cells of 48 pixels
  const Log log = read_log(dir / "mov_dose_drift.txt");
  ASSERT_EQ(log.dose.size(), 7u);
  // Particles 0 and 5: boxes at the cell corners, 8 pixels of margin.
  for (int k : {0, 5}) {
    const int x0 = 8 + (k % 3) * 48, y0 = 8 + (k / 3) * 48;
    const std::vector<double> ref = reference_particle(movie, 160, 7, x0, y0, 48, log, 1.25, 0.3, ctfw);
    double scale = 0;
    for (double v : ref) scale = std::max(scale, fabs(v));
    for (size_t i = 0; i < ref.size(); ++i)
      ASSERT_NEAR(got.v[(size_t)k * 48 * 48 + i], ref[i], 2e-5 * scale) << "particle " << k << " pixel " << i;
  }
}

TEST(MovieEndToEnd, UnusableMoviesAreNamedAndSkipped) {
  ZkTmpDir dir;
  const std::string small = "--size 96 --frames 5 --box 32 --diameter 20 --noise 1";
  for (const char* m : {"a", "b", "c", "d", "e", "f", "g"})
    synth(dir.path, std::string("--out ") + m + ".mrc " + small);
  remove((dir / "b_dose_drift.txt").c_str());
  zk_put(dir / "g_zavik.box", "10 10 32 32\n20 20\n");
  zk_put(dir / "c_dose_drift.txt", "0 1 0 0\n1 2 0 0\n3 3 0 0\n3 4 0 0\n4 5 0 0\n");
  zk_put(dir / "d_ctfw.txt", "0 0 1\n1 0 1\n");
  remove((dir / "e_zavik.box").c_str());
  std::string out;
  ASSERT_EQ(lombar(dir.path, "--apix 1 --newsize 32 a.mrc b.mrc c.mrc d.mrc gone.mrc e.mrc g.mrc f.mrc", &out), 0)
      << out;
  const char* const reports[] = {
      "the movie b.mrc has no readable dose/drift log b_dose_drift.txt! Automatically ignored!",
      "Warning in function get_dose_smoothed_drift_from_txt\\(\\), .*: Can not get dose/drift parameters from log "
      "file. Check file format or parameters. Or have you modified the log file\\?!\n.*the movie c.mrc has a "
      "dose/drift log c_dose_drift.txt without a line for each of its 5 frames! Automatically ignored!",
      "Can not get lines from CTF_W log file.*\n.*the movie d.mrc has a CTF weight log d_ctfw.txt without a line for "
      "each of its 17 radii! Automatically ignored!",
      "the movie gone.mrc does not exist! Automatically ignored!",
      "the movie e.mrc has no readable box file e_zavik.box! Automatically ignored!",
      "the movie g.mrc cannot be cut by g_zavik.box: unrecognized box format! Automatically ignored!",
      "All 8 movies finished: 2 weighted \\(18 particles\\), 6 skipped.",
  };
  for (const char* r : reports) EXPECT_TRUE(zk_matches(out, r)) << r;
  for (const char* m : {"b", "c", "d", "e", "g"}) EXPECT_FALSE(zk_exists(dir / (std::string(m) + "_wave.mrc"))) << m;
  EXPECT_TRUE(zk_exists(dir / "a_wave.mrc"));
  EXPECT_TRUE(zk_exists(dir / "f_wave.mrc"));
  EXPECT_FALSE(zk_has(zk_listing(dir.path), ".part"));
  // Boxes larger than the frames.
  ASSERT_EQ(lombar(dir.path, "--apix 1 --newsize 128 f.mrc", &out), 0) << out;
  EXPECT_TRUE(zk_matches(out,
                         "the movie f.mrc has boxes of 128 x 128 pixels in f_zavik.box, larger than its 96 x 96 "
                         "frames! Automatically ignored!"))
      << out;

  // An unfinished list resumes: the weighted ones are passed over, the others
  // are done once their logs are mended.
  const std::string a_before = zk_slurp(dir / "a_wave.mrc");
  synth(dir.path, "--out b.mrc " + small);
  remove((dir / "a_wave.mrc").c_str());
  zk_put(dir / "a_wave.mrc", "kept");
  ASSERT_EQ(lombar(dir.path, "--apix 1 --newsize 32 --do_unfinished a.mrc b.mrc f.mrc", &out), 0) << out;
  EXPECT_TRUE(zk_matches(out, "Movie a.mrc has already been weighted. Automatically skipped.")) << out;
  EXPECT_TRUE(zk_matches(out, "Movie f.mrc has already been weighted. Automatically skipped.")) << out;
  EXPECT_TRUE(zk_matches(out, "All 3 movies finished: 1 weighted \\(9 particles\\), 2 skipped.")) << out;
  EXPECT_EQ(zk_slurp(dir / "a_wave.mrc"), "kept");
  EXPECT_TRUE(zk_exists(dir / "b_wave.mrc"));
  // Without the switch everything is weighted again.
  ASSERT_EQ(lombar(dir.path, "--apix 1 --newsize 32 a.mrc", &out), 0) << out;
  EXPECT_EQ(zk_slurp(dir / "a_wave.mrc"), a_before);
}

TEST(MovieEndToEnd, MissingCtfWeightsMeanNoneAndInvertFlipsTheContrast) {
  ZkTmpDir dir;
  synth(dir.path, "--out m.mrc --size 96 --frames 6 --box 32 --diameter 20 --noise 1 --ctfw 1");
  std::string out;
  // The generator's curve without defocus is 1 everywhere.
  ASSERT_EQ(lombar(dir.path, "--apix 1 --newsize 32 m.mrc", &out), 0) << out;
  EXPECT_FALSE(zk_matches(out, "No CTF weight log"));
  const std::string with_ones = zk_slurp(dir / "m_wave.mrc");
  remove((dir / "m_ctfw.txt").c_str());
  ASSERT_EQ(lombar(dir.path, "--apix 1 --newsize 32 m.mrc", &out), 0) << out;
  EXPECT_TRUE(zk_matches(out, "No CTF weight log m_ctfw.txt: no CTF weighting.")) << out;
  EXPECT_EQ(zk_slurp(dir / "m_wave.mrc"), with_ones);

  const std::vector<float> plain = read_test_mrc(dir / "m_wave.mrc").v;
  ASSERT_EQ(lombar(dir.path, "--apix 1 --newsize 32 --invert m.mrc", &out), 0) << out;
  const std::vector<float> inverted = read_test_mrc(dir / "m_wave.mrc").v;
  ASSERT_EQ(plain.size(), inverted.size());
  for (size_t k = 0; k < plain.size(); ++k) ASSERT_EQ(inverted[k], -plain[k]) << k;
}

}  // namespace
