// kesmar_more end to end on generated data: per-particle defocus on a tilted
// specimen, per-frame defocus of a drifting movie, validation of a right and
// a wrong result, the exact output lines, and the inputs it must refuse.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

void synth(const std::string& args) {
  std::string out;
  ASSERT_EQ(zk_run_in(".", CTF_SYNTH_BIN, args, &out), 0) << out;
}
int more(const std::string& dir, const std::string& args, std::string* out) {
  return zk_run_in(dir, KESMAR_MORE_BIN, args, out);
}

std::vector<std::vector<double>> numeric_rows(const std::string& path, size_t first_word) {
  std::vector<std::vector<double>> rows;
  std::istringstream is(zk_slurp(path));
  std::string line;
  while (std::getline(is, line)) {
    std::istringstream ls(line);
    std::vector<std::string> w;
    std::string x;
    while (ls >> x) w.push_back(x);
    if (w.size() <= first_word + 2 || w[0][0] == '_' || w[0][0] == '#') continue;
    std::vector<double> r;
    for (size_t k = first_word; k < w.size(); ++k) r.push_back(atof(w[k].c_str()));
    rows.push_back(r);
  }
  return rows;
}

// Least squares z = a + b x + c y by the normal equations, in double.
void plane_fit(const std::vector<double>& x, const std::vector<double>& y, const std::vector<double>& z, double& a,
               double& b, double& c) {
  double m[3][4] = {};
  for (size_t i = 0; i < z.size(); ++i) {
    const double v[3] = {1, x[i], y[i]};
    for (int r = 0; r < 3; ++r) {
      for (int k = 0; k < 3; ++k) m[r][k] += v[r] * v[k];
      m[r][3] += v[r] * z[i];
    }
  }
  for (int p = 0; p < 3; ++p)
    for (int r = 0; r < 3; ++r) {
      if (r == p) continue;
      const double f = m[r][p] / m[p][p];
      for (int k = 0; k < 4; ++k) m[r][k] -= f * m[p][k];
    }
  a = m[0][3] / m[0][0];
  b = m[1][3] / m[1][1];
  c = m[2][3] / m[2][2];
}

// A specimen tilted by 30 degrees about the x axis at 1 A/px: the defocus
// rises by tan 30 = 0.577 A per pixel of y.  The whole-micrograph value is
// the generator's (that of the centre); each particle's must follow the plane.
TEST(KesmarMore, LocalRefinementRecoversTiltPlane) {
  ZkTmpDir dir;
  synth("--out " + dir / "t.mrc" + " --nx 1024 --ny 1024 --defu 15000 --defv 15400 --angle 20 --tilt 30" +
        " --noise 2 --seed 5 --particles 14 --pbox 200 --boxes " + dir / "t_zavik.box" + " --ptruth " +
        dir / "truth_p.star" + " --truth " + dir / "sum.star");
  std::string out;
  ASSERT_EQ(
      more(dir.path, "local --ctfstar sum.star --boxsuffix _zavik.box --radius 256 --write_local_ctf 1 t.mrc", &out), 0)
      << out;
  const auto truth = numeric_rows(dir / "truth_p.star", 0), got = numeric_rows(dir / "t_local.star", 1);
  ASSERT_EQ(got.size(), 14u);
  std::vector<double> x, y, u;
  double err = 0;
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_EQ(got[i].size(), 13u);
    EXPECT_EQ(got[i][0], truth[i][0]);  // particle centres in the box file's order
    EXPECT_EQ(got[i][1], truth[i][1]);
    EXPECT_NEAR(got[i][4] - got[i][3], 400.0, 0.05);  // only the mean moves by default
    err += fabs(got[i][3] - truth[i][2]);
    x.push_back(got[i][0]);
    y.push_back(got[i][1]);
    u.push_back(got[i][3]);
  }
  EXPECT_LT(err / 14, 60.0);
  double a, b, c;
  plane_fit(x, y, u, a, b, c);
  EXPECT_NEAR(c, tan(M_PI / 6), 0.08);
  EXPECT_NEAR(b, 0.0, 0.08);
  EXPECT_NEAR(a + b * 511.5 + c * 511.5, 15000.0, 60.0);

  // The printed line of the first particle carries the values of its star line.
  char line[160];
  snprintf(line, sizeof line, "%8d%8d%12.2f%12.2f%12.2f", (int)got[0][0], (int)got[0][1], got[0][3], got[0][4],
           got[0][5]);
  EXPECT_TRUE(zk_has(out, line)) << line;
  EXPECT_TRUE(zk_has(out,
                     "Total particle number for local refinement: 14\n"
                     "\n       X       Y       Defocus_U   Defocus_V       Angle         CCC\n"));
  const std::string star = zk_slurp(dir / "t_local.star");
  EXPECT_EQ(star.find("\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCoordinateX #2\n"), 0u);
  EXPECT_TRUE(zk_has(star, "\nt.mrc "));
  const std::string log = zk_slurp(dir / "t_local.log");
  EXPECT_TRUE(zk_has(log, std::string(line)));
  EXPECT_EQ(log.substr(log.size() - 30), "Processing done successfully.\n");
  // One picture per particle.
  const std::string pic = zk_slurp(dir / "t_local.ctf");
  ASSERT_GE(pic.size(), 1024u);
  int n[3];
  memcpy(n, pic.data(), sizeof n);
  EXPECT_EQ(n[0], 256);
  EXPECT_EQ(n[2], 14);
  EXPECT_EQ(pic.size(), 1024u + 14u * 256 * 256 * 4);

  if (zk_run("command -v relion_star_printtable", nullptr) != 0) GTEST_SKIP() << "RELION is not installed";
  ASSERT_EQ(
      zk_run("cd '" + dir.path + "' && relion_star_printtable t_local.star data_ rlnDefocusU rlnCoordinateY", &out), 0)
      << out;
  std::istringstream is(out);
  std::string first;
  std::getline(is, first);
  double du = 0, cy = 0;
  ASSERT_EQ(sscanf(first.c_str(), "%lf %lf", &du, &cy), 2) << out;
  EXPECT_NEAR(du, got[0][3], 0.01);
  EXPECT_EQ(cy, got[0][1]);
}

// Eight frames whose defocus grows by 80 A per frame; groups of three.
TEST(KesmarMore, FrameRefinementRecoversLinearDrift) {
  ZkTmpDir dir;
  synth("--out " + dir / "m.mrc" + " --nx 1024 --ny 1024 --defu 12000 --defv 12600 --angle 40 --frames 8" +
        " --drift 80 --noise 2 --seed 7 --truth " + dir / "sum.star");
  std::string out;
  ASSERT_EQ(more(dir.path, "frames --ctfstar sum.star --aveN 3 m.mrc", &out), 0) << out;
  // Groups 0-2 .. 5-7: central frames 1 to 6.
  for (int c = 1; c <= 6; ++c) EXPECT_TRUE(zk_has(out, "  STACK CTF Value " + std::to_string(c) + "\n")) << c;
  EXPECT_FALSE(zk_has(out, "  STACK CTF Value 7\n"));
  const size_t at = out.find("Linear fitted stack/movie CTF values:\n");
  ASSERT_NE(at, std::string::npos) << out;
  std::istringstream is(out.substr(at));
  std::string line;
  std::getline(is, line);
  std::vector<double> fit_u;
  for (int i = 0; i < 8 && std::getline(is, line); ++i) {
    double u, v, a, c;
    int frame;
    ASSERT_EQ(sscanf(line.c_str(), "%lf %lf %lf %lf STACK CTF Value %d", &u, &v, &a, &c, &frame), 5) << line;
    EXPECT_EQ(frame, i + 1);
    EXPECT_NEAR(v - u, 600.0, 1.0);
    fit_u.push_back(u);
  }
  ASSERT_EQ(fit_u.size(), 8u);
  EXPECT_NEAR((fit_u[7] - fit_u[0]) / 7, 80.0, 20.0);
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(fit_u[i], 12000.0 + 80.0 * i, 120.0) << i;
  EXPECT_TRUE(zk_has(zk_slurp(dir / "m_frames.log"), "Linear fitted stack/movie CTF values:\n"));
}

TEST(KesmarMore, ValidationTellsRightFromWrong) {
  ZkTmpDir dir;
  synth("--out " + dir / "v.mrc" + " --nx 1024 --ny 1024 --defu 14000 --defv 14700 --angle 60 --noise 3 --seed 9" +
        " --truth " + dir / "sum.star");
  std::string sum = zk_slurp(dir / "sum.star"), out;
  ASSERT_EQ(more(dir.path, "validate --ctfstar sum.star v.mrc", &out), 0) << out;
  EXPECT_TRUE(zk_matches(out, "Lowest validation score of v.mrc: [45] \\((GOOD|PERFECT)\\) over 5 bands\n")) << out;
  const std::string log = zk_slurp(dir / "v_validation.log");
  size_t n = 0;
  for (size_t at = 0; (at = log.find("     VALIDATION_SCORE: ", at)) != std::string::npos; ++at) ++n;
  EXPECT_EQ(n, 5u) << log;
  // The same micrograph with defocus 20 % low.
  const size_t at = sum.find(" 14000.000000 14700.000000 ");
  ASSERT_NE(at, std::string::npos) << sum;
  sum.replace(at, 28, " 11200.000000 11760.000000 ");
  zk_put(dir / "sum.star", sum);
  ASSERT_EQ(more(dir.path, "validate --ctfstar sum.star v.mrc", &out), 0) << out;
  EXPECT_TRUE(zk_matches(out, "Lowest validation score of v.mrc: [12] \\((BAD|WRONG)\\) over 5 bands\n")) << out;
}

// Inputs that skip the micrograph: a clear message, status 1 when nothing
// was done, and no output under its final name.
TEST(KesmarMore, BadInputSkipsTheMicrographAndWritesNothing) {
  ZkTmpDir dir;
  synth("--out " + dir / "a.mrc" + " --nx 512 --ny 512 --defu 14000 --defv 14000 --seed 2 --truth " + dir / "sum.star");
  zk_put(dir / "empty_zavik.box", "");
  zk_put(dir / "bad_zavik.box", "100 100 64 64\n100 100\n");
  zk_put(dir / "out_zavik.box", "100\t100\t64\t64\t1.0\t0\t0\n500\t300\t64\t64\t1.0\t0\t0\n");
  struct Case {
    std::string args, message, output;
  } cases[] = {
      {"local --ctfstar sum.star --boxsize 128 a.mrc",
       "the box file a_zavik.star does NOT exsit! Local refinement automatically ignored! Maybe you want to check "
       "the option '--boxsuffix' as well.",
       "a_local"},
      {"local --ctfstar sum.star --boxsize 128 --box empty_zavik.box a.mrc",
       "the box file empty_zavik.box holds no "
       "particles! Local refinement",
       "a_local"},
      {"local --ctfstar sum.star --boxsize 128 --box out_zavik.box a.mrc",
       "the box file out_zavik.box has a particle at (532, 332), outside the 512 x 512 micrograph!", "a_local"},
      {"local --ctfstar sum.star --boxsize 128 --box bad_zavik.box a.mrc",
       "the micrograph a.mrc cannot be refined by the boxes of bad_zavik.box: unrecognized box format! Automatically "
       "ignored!",
       "a_local"},
      {"frames --ctfstar sum.star --boxsize 128 a.mrc",
       "the micrograph a.mrc is a stack of one frame; per-frame refinement needs a movie! Automatically ignored!",
       "a_frames"},
      {"validate --ctfstar sum.star --boxsize 128 b.mrc", "the micrograph b.mrc has no kesmar result in sum.star!",
       "b_validation"},
      {"validate --ctfstar none.star --boxsize 128 a.mrc",
       "the micrograph a.mrc has no kesmar result: the summary none.star cannot be read", "a_validation"},
  };
  for (const Case& c : cases) {
    std::string out;
    EXPECT_EQ(more(dir.path, c.args, &out), 1) << out;
    EXPECT_TRUE(zk_has(out, c.message)) << c.args << "\n" << out;
    EXPECT_TRUE(zk_has(out, ": 0 of 1 micrographs done\n")) << out;
    for (const char* ext : {".star", ".log", ".ctf"}) EXPECT_FALSE(zk_exists(dir / (c.output + ext))) << c.args;
  }
  // Nothing temporary is left beside the outputs either.
  EXPECT_EQ(zk_listing(dir.path), "a.mrc\nbad_zavik.box\nempty_zavik.box\nout_zavik.box\nsum.star\n");

  // zavik's STAR file by the default suffix: centres as they stand.
  zk_put(dir / "a_zavik.star",
         "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
         "_rlnClassNumber #4\n_rlnAutopickFigureOfMerit #5\n"
         "200     300     0.000000 1 0.750000\n"
         "60      480     0.000000 1 0.500000\n");
  std::string done;
  ASSERT_EQ(more(dir.path, "local --ctfstar sum.star --boxsize 128 --radius 100 a.mrc", &done), 0) << done;
  const auto rows = numeric_rows(dir / "a_local.star", 1);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0][0], 200);
  EXPECT_EQ(rows[0][1], 300);
  EXPECT_EQ(rows[0][11], 0.75);  // the pick's figure of merit goes with it
  EXPECT_EQ(rows[1][0], 60);
  EXPECT_EQ(rows[1][1], 480);
  EXPECT_TRUE(zk_has(done, ": 1 of 1 micrographs done\n"));
  EXPECT_FALSE(zk_exists(dir / "a_local.ctf"));  // pictures only when asked

  // A bad command line: the usage, status 1.
  std::string out;
  EXPECT_EQ(more(dir.path, "local --radious 3 a.mrc", &out), 1);
  EXPECT_TRUE(zk_has(out, "Unknown option --radious.\nUsage: kesmar_more local|validate|frames")) << out;
}

}  // namespace
