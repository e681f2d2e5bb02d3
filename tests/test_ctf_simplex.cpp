// The simplex of refinement strategies 2 and 3: its moves, its tie rule, its
// stop on a flat score, and kesmar runs that find a known CTF with it.
#include <gtest/gtest.h>

#include <string>

#include "ctf/ctf_simplex.h"
#include "test_util.h"

namespace {

const PUVA START[5] = {
    {0, 1000, 2000, 10}, {4, 900, 2000, 10}, {0, 900, 2100, 10}, {0, 1000, 2100, 40}, {4, 1000, 2000, 40}};

TEST(CtfSimplex, MovesAreCentreReflectionAndExtension) {
  // Hand sums: ps 8/5, U 4800/5, V 10200/5, A 110/5.
  const PUVA c = ctf_simplex_center(START);
  EXPECT_FLOAT_EQ(c.ps, 1.6f);
  EXPECT_FLOAT_EQ(c.defU, 960.0f);
  EXPECT_FLOAT_EQ(c.defV, 2040.0f);
  EXPECT_FLOAT_EQ(c.defA, 22.0f);
  const PUVA r = ctf_simplex_reflect(START, 3), e = ctf_simplex_rextend(START, 3);
  EXPECT_FLOAT_EQ(r.ps, 3.2f);
  EXPECT_FLOAT_EQ(r.defU, 920.0f);
  EXPECT_FLOAT_EQ(r.defV, 1980.0f);
  EXPECT_FLOAT_EQ(r.defA, 4.0f);
  EXPECT_FLOAT_EQ(e.defU, 880.0f);
  EXPECT_FLOAT_EQ(e.defV, 1920.0f);
  EXPECT_FLOAT_EQ(e.defA, -14.0f);  // the angle is not wrapped during the search
}

TEST(CtfSimplex, FirstOfEqualScoresCounts) {
  const float s[5] = {3, 7, 1, 7, 1};
  int best = -1, worst = -1;
  ctf_simplex_best_worst(s, best, worst);
  EXPECT_EQ(best, 1);
  EXPECT_EQ(worst, 2);
}

TEST(CtfSimplex, FlatScoreNeverMovesAndRunsOut) {
  PUVA s[5];
  for (int i = 0; i < 5; ++i) s[i] = START[i];
  int best = -1;
  float score = 0;
  // No centre, reflection or extension scores above the worst vertex.
  const int cycles = ctf_simplex_search(
      s, 2, CTF_SIMPLEX_TOL{0.2f, 2.0f, 0.5f}, 300,
      [](PUVA q) { return q.defU >= 1000 || q.defA == 40 ? q.defA : -1e6f; }, best, score);
  EXPECT_EQ(cycles, 300);
  EXPECT_EQ(best, 3);  // first of the two vertices at angle 40
  for (int i = 0; i < 5; ++i) EXPECT_EQ(s[i].defU, START[i].defU);
}

// Strategies 2 and 3 on a generated astigmatic micrograph: the simplex is
// announced in the log and on screen and finds the CTF.
TEST(CtfSimplexRun, StrategiesTwoAndThreeRecoverAstigmatism) {
  ZkTmpDir dir;
  std::string out;
  ASSERT_EQ(zk_run_in(dir.path, CTF_SYNTH_BIN,
                      "--out a.mrc --nx 1024 --ny 1024 --defu 12000 --defv 13000 --angle 30 --noise 3 --seed 3", &out),
            0)
      << out;
  for (int T : {2, 3}) {
    SCOPED_TRACE(T);
    ASSERT_EQ(zk_run_in(dir.path, KESMAR_BIN,
                        "--apix 1 --boxsize 512 --ctfstar all --refine_2d_T " + std::to_string(T) + " a.mrc", &out),
              0)
        << out;
    const std::string line = "******** ******** ********  using refinement strategy: " + std::to_string(T) +
                             "  ******** ******** ********\n";
    EXPECT_TRUE(zk_has(out, line)) << out;
    EXPECT_TRUE(zk_has(zk_slurp(dir / "a_kesmar.log"), line));
    EXPECT_FALSE(zk_has(out, "is not available in this version"));
    const std::string star = zk_slurp(dir / "all.star");
    const size_t at = star.find("a.mrc a.ctf:mrc ");
    ASSERT_NE(at, std::string::npos) << star;
    double u = 0, v = 0, a = 0;
    ASSERT_EQ(sscanf(star.c_str() + at + 16, "%lf %lf %lf", &u, &v, &a), 3);
    EXPECT_NEAR(u, 12000.0, 40.0);
    EXPECT_NEAR(v, 13000.0, 40.0);
    EXPECT_NEAR(a, 30.0, 2.0);
  }
}

}  // namespace
