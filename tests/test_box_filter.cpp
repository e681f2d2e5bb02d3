#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "formats/boxfile.h"
#include "picking/box_filter.h"
#include "test_util.h"

// Most cases use min_dist 14.2 shrunk pixels: cell = trunc(1.41421354 · 14.2
// / 2) = 10 and limit2 = 200, on a micrograph of 100 by 100 shrunk pixels,
// so a grid of 10 by 10 cells whose inner cells are 1 .. 8.

namespace {

struct Cand {
  int cx, cy;  // centre in shrunk pixels
  float cc;
  int t;
  float psi;
};

struct Params {
  int nx = 100, ny = 100;
  float min_dist = 14.2f;
  float cutoff = 0.1f;
  float shrink = 1.0f;
  int box = 4;
  int2 origin = make_i2(0, 0);
  std::string excluded = "NULL";
};

using Centres = std::vector<std::pair<int, int>>;

const std::string kStarHead =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
    "_rlnClassNumber #4\n_rlnAutopickFigureOfMerit #5\n";

void write_raw(const std::string& path, const std::vector<Cand>& cands) {
  FILE* f = fopen(path.c_str(), "w");
  ASSERT_NE(f, nullptr);
  // Boxes of 10 shrunk pixels around the centres, as the peak stage writes.
  for (const Cand& c : cands) write_nonunique_line(f, c.cx - 5, c.cy - 5, 10, 10, c.cc, c.t, c.psi);
  fclose(f);
}

// Filters the raw file m_nonunique.box (written from cands unless they are
// empty and the file stands there) and returns the output of the given mode.
std::string filter(const ZkTmpDir& dir, const std::vector<Cand>& cands, int mode, const Params& p = Params()) {
  if (!cands.empty() || !zk_exists(dir / "m_nonunique.box")) write_raw(dir / "m_nonunique.box", cands);
  std::string out = dir / (mode == 1 ? "m_zavik.star" : "m_zavik.box");
  EXPECT_EQ(box_filter(p.nx, p.ny, p.min_dist, p.cutoff, p.shrink, p.box, p.box, p.origin,
                       (dir / "m_nonunique.box").c_str(), p.excluded.c_str(), out.c_str(), mode),
            0);
  return zk_slurp(out);
}

// The centres (x, y) of the picks of a box-form output.
Centres centres(const std::string& box_text, int box) {
  Centres v;
  int x, y, w, h, t, used;
  float cc, psi;
  for (const char* s = box_text.c_str(); sscanf(s, "%d %d %d %d %f %d %f%n", &x, &y, &w, &h, &cc, &t, &psi, &used) == 7;
       s += used)
    v.push_back({x + box / 2, y + box / 2});
  return v;
}

Centres picks(const ZkTmpDir& dir, const std::vector<Cand>& cands, const Params& p = Params()) {
  return centres(filter(dir, cands, 2, p), p.box);
}

std::string star_line(int x, int y, float cc) {
  char s[128];
  snprintf(s, sizeof s, "%-8d%-8d0.000000\t0       %f\n", x, y, cc);
  return s;
}

}  // namespace

TEST(BoxFilter, OneInnerPickByteForByteInBothForms) {
  ZkTmpDir dir;
  std::vector<Cand> c = {{55, 57, 0.5f, 2, 12.5f}};
  EXPECT_EQ(filter(dir, c, 2), "53      55      4       4       0.500000\t2       12.500000\n");
  EXPECT_EQ(filter(dir, c, 1), kStarHead + "55      57      12.500000\t2       0.500000\n");
  // Shrink 4, an odd box of 397: centre 4·(55, 57) = (220, 228), corner 397 / 2 = 198 less.
  Params p;
  p.nx = p.ny = 200;
  p.shrink = 4.0f;
  p.box = 397;
  EXPECT_EQ(filter(dir, c, 2, p), "22      30      397     397     0.500000\t2       12.500000\n");
  EXPECT_EQ(filter(dir, c, 1, p), kStarHead + "220     228     12.500000\t2       0.500000\n");
  // The origin is added to every output coordinate.
  p.origin = make_i2(1000, -7);
  EXPECT_EQ(filter(dir, c, 2, p), "1022    23      397     397     0.500000\t2       12.500000\n");
  EXPECT_EQ(filter(dir, c, 1, p), kStarHead + "1220    221     12.500000\t2       0.500000\n");
}

TEST(BoxFilter, CompetitionInRasterOrderStrictDistanceAndTies) {
  ZkTmpDir dir;
  const struct {
    const char* what;
    std::vector<Cand> cands;
    Centres want;
  } cases[] = {
      // Cells (3,5), (4,5), (5,5); A-B and B-C within limit2, A and C two
      // cells apart.  High to low: B goes; C stays, B being gone already.
      {"chain down", {{39, 55, 0.9f, 0, 0}, {41, 55, 0.8f, 0, 0}, {50, 55, 0.7f, 0, 0}}, {{39, 55}, {50, 55}}},
      // Low to high: A goes to B, B goes to C.
      {"chain up", {{39, 55, 0.7f, 0, 0}, {41, 55, 0.8f, 0, 0}, {50, 55, 0.9f, 0, 0}}, {{50, 55}}},
      {"chain in a column", {{55, 39, 0.9f, 0, 0}, {55, 41, 0.8f, 0, 0}, {55, 50, 0.7f, 0, 0}}, {{55, 39}, {55, 50}}},
      // Diagonal neighbours at a squared distance of exactly 200: both stay.
      {"distance 200", {{44, 44, 0.9f, 0, 0}, {54, 54, 0.5f, 0, 0}}, {{44, 44}, {54, 54}}},
      {"distance 181", {{44, 44, 0.9f, 0, 0}, {53, 54, 0.5f, 0, 0}}, {{44, 44}}},
      // Two cells apart never compete, even at distance 11.
      {"two cells apart", {{39, 55, 0.9f, 0, 0}, {50, 55, 0.5f, 0, 0}}, {{39, 55}, {50, 55}}},
      // Equal scores of neighbours: the later cell stays.
      {"tie", {{41, 55, 0.5f, 0, 0}, {39, 55, 0.5f, 1, 0}}, {{41, 55}}},
  };
  for (auto& c : cases) EXPECT_EQ(picks(dir, c.cands), c.want) << c.what;
  // Of equal scores in one cell the first read (the lower template) stays; a
  // strictly higher score of a later template replaces it, angle included.
  std::vector<Cand> one = {{55, 55, 0.5f, 0, 10}, {56, 55, 0.5f, 1, 20}, {55, 55, 0.4f, 2, 30}};
  EXPECT_EQ(filter(dir, one, 2), "53      53      4       4       0.500000\t0       10.000000\n");
  one.push_back({57, 56, 0.6f, 3, 40});
  EXPECT_EQ(filter(dir, one, 2), "55      54      4       4       0.600000\t3       40.000000\n");
}

TEST(BoxFilter, BorderRingOfANonSquareMicrographGivesNothing) {
  ZkTmpDir dir;
  Params p;
  p.ny = 60;  // 10 by 6 cells; row 5 is the last
  std::vector<Cand> c = {
      {5, 35, 0.9f, 0, 0},    // first column
      {95, 35, 0.9f, 0, 0},   // last column
      {55, 5, 0.9f, 0, 0},    // first row
      {55, 55, 0.9f, 0, 0},   // last row
      {35, 35, 0.9f, 0, 0},   // inner: stays
      {75, 15, 0.8f, 0, 0},   // inner, row 1: stays
      {55, 75, 0.9f, 0, 0},   // beyond the true height (mirrored search area): no cell
      {105, 35, 0.9f, 0, 0},  // beyond the true width: no cell
  };
  // Each ring candidate has its box inside the micrograph: only the ring
  // removes them.
  EXPECT_EQ(picks(dir, c, p), (Centres{{75, 15}, {35, 35}}));
  EXPECT_EQ(filter(dir, c, 1, p), kStarHead + star_line(75, 15, 0.8f) + star_line(35, 35, 0.9f));
}

TEST(BoxFilter, CutoffEqualityStaysAndScoreZeroNeverComesOut) {
  ZkTmpDir dir;
  Params p;
  p.cutoff = 0.25f;
  EXPECT_EQ(picks(dir, {{25, 25, 0.25f, 0, 0}, {55, 25, 0.249999f, 0, 0}, {25, 55, 0.26f, 0, 0}}, p),
            (Centres{{25, 25}, {25, 55}}));
  // Scores of 0 or below never enter a cell, whatever the cutoff, so they
  // defeat no neighbour either.
  p.cutoff = -1.0f;
  EXPECT_EQ(picks(dir, {{25, 25, 0.0f, 0, 0}, {55, 25, -0.5f, 0, 0}, {25, 55, 0.000001f, 0, 0}}, p),
            (Centres{{25, 55}}));
  EXPECT_EQ(picks(dir, {{39, 55, 0.0f, 0, 0}, {41, 55, 0.3f, 0, 0}}, p), (Centres{{41, 55}}));
}

TEST(BoxFilter, ExclusionIsStrictScaledByShrinkAndShiftedByTheOrigin) {
  ZkTmpDir dir;
  const std::vector<Cand> c = {{55, 55, 0.5f, 0, 0}};
  const Centres kept = {{55, 55}};
  Params p;
  p.excluded = dir / "m_excluded.star";
  // limit2 · shrink² = 200: a .star centre at squared distance 200 leaves it.
  zk_put(p.excluded, kStarHead + "65 65 0 0 1\n");
  EXPECT_EQ(picks(dir, c, p), kept);
  zk_put(p.excluded, kStarHead + "65 64 0 0 1\n");
  EXPECT_EQ(filter(dir, c, 2, p), "");
  // A box record counts by its centre (60 + 10/2, 59 + 10/2) = (65, 64).
  p.excluded = dir / "m_excluded.box";
  zk_put(p.excluded, "500 500 10 10\n60 59 10 10\n");
  EXPECT_EQ(filter(dir, c, 2, p), "");
  zk_put(p.excluded, "60 60 10 10\n");
  EXPECT_EQ(picks(dir, c, p), kept);
  // Shrink 2: raw position (110, 110), limit 800.
  p.shrink = 2.0f;
  p.excluded = dir / "m_excluded.star";
  zk_put(p.excluded, kStarHead + "130 130 0 0 1\n");
  EXPECT_EQ(filter(dir, c, 1, p), kStarHead + star_line(110, 110, 0.5f));
  zk_put(p.excluded, kStarHead + "130 129 0 0 1\n");
  EXPECT_EQ(filter(dir, c, 1, p), kStarHead);
  // The origin shifts the candidate in the test: 110 + 10 against 140.
  p.origin = make_i2(10, 0);
  zk_put(p.excluded, kStarHead + "140 130 0 0 1\n");
  EXPECT_EQ(filter(dir, c, 1, p), kStarHead + star_line(120, 110, 0.5f));
  zk_put(p.excluded, kStarHead + "140 129 0 0 1\n");
  EXPECT_EQ(filter(dir, c, 1, p), kStarHead);
}

TEST(BoxFilter, ExclusionListIsReadWholeAndMayBeMissing) {
  ZkTmpDir dir;
  Params p;
  p.nx = p.ny = 30;  // 3 by 3 cells, one inner cell
  p.excluded = dir / "m_excluded.box";
  const std::vector<Cand> c = {{15, 15, 0.5f, 0, 0}};
  std::string far;
  for (int i = 0; i < 99; ++i) far += "1000 1000 0 0\n";
  zk_put(p.excluded, far + "15 15 0 0\n");  // more records than cells: the last one counts too
  EXPECT_EQ(filter(dir, c, 2, p), "");
  // A missing list is reported and filtering goes on.
  p.excluded = dir / "absent.box";
  Centres got;
  const std::string said = zk_stdout([&] { got = picks(dir, c, p); });
  EXPECT_EQ(got, (Centres{{15, 15}}));
  EXPECT_NE(said.find("the file " + p.excluded + " does NOT exist! Automatically ignored!"), std::string::npos);
}

TEST(BoxFilter, EdgeTestDropsBoxesThatTouchTheBorder) {
  ZkTmpDir dir;
  Params p;
  p.box = 20;  // hx = 10
  // Centre x equal to box / 2: dropped; one pixel further: kept.
  EXPECT_EQ(filter(dir, {{10, 55, 0.5f, 0, 0}}, 2, p), "");
  EXPECT_EQ(filter(dir, {{11, 55, 0.5f, 0, 0}}, 2, p), "1       45      20      20      0.500000\t0       0.000000\n");
  EXPECT_EQ(filter(dir, {{55, 10, 0.5f, 0, 0}}, 2, p), "");
  // Far edges of a rectangle: nx = 95 and ny = 99 give 10 cells each way,
  // inner up to 8; x must stay below 95 - 10 = 85, y below 99 - 10 = 89.
  p.nx = 95;
  p.ny = 99;
  EXPECT_EQ(filter(dir, {{85, 55, 0.5f, 0, 0}}, 2, p), "");
  EXPECT_EQ(filter(dir, {{84, 55, 0.5f, 0, 0}}, 2, p), "74      45      20      20      0.500000\t0       0.000000\n");
  EXPECT_EQ(filter(dir, {{55, 89, 0.5f, 0, 0}}, 2, p), "");
  // With shrink 2 and box 40 the limit is raw x 20: shrunk 10 goes, 11 stays.
  p = Params();
  p.shrink = 2.0f;
  p.box = 40;
  EXPECT_EQ(filter(dir, {{10, 55, 0.5f, 0, 0}}, 1, p), kStarHead);
  EXPECT_EQ(filter(dir, {{11, 55, 0.5f, 0, 0}}, 1, p), kStarHead + star_line(22, 110, 0.5f));
}

TEST(BoxFilter, EmptyShortAndHostileRawLines) {
  ZkTmpDir dir;
  EXPECT_EQ(filter(dir, {}, 2), "");
  EXPECT_TRUE(zk_exists(dir / "m_zavik.box"));
  EXPECT_EQ(filter(dir, {}, 1), kStarHead);
  // Lines of fewer than seven words and blank lines are no candidates; an
  // overlong line counts once, by its first 1023 characters.
  std::string raw = "50      50      10      10      0.900000\t0\n\n   \n1 2\n";
  raw += "30      30      10      10      0.500000\t0       \t0.000   \n";
  raw += "60 60 10 10 0.4 1 7" + std::string(1100, ' ') + "9 9 9 9 9 9 9\n";
  raw += "a b c d e f g\n";                                           // all zero: score 0
  raw += "99999999999 99999999999 2147483647 2147483647 1e30 5 1\n";  // far beyond the grid
  raw += "-50 -50 10 10 0.9 0 0\n";                                   // negative centre
  raw += "50 50 10 10 nan 0 0\n";                                     // no score
  raw += std::string("\xff\xfe 1 2 3 4 5 6\n") + std::string("40 40\0 10 10 0.9 0 0\n", 21);
  zk_put(dir / "m_nonunique.box", raw);
  EXPECT_EQ(filter(dir, {}, 2), "33      33      4       4       0.500000\t0       0.000000\n"
                                "63      63      4       4       0.400000\t1       7.000000\n");
}

TEST(BoxFilter, FailuresEndTheRunAndLeaveOldResultsInPlace) {
  ZkTmpDir dir;
  zk_put(dir / "m_zavik.box", "old\n");
  const std::string raw = dir / "m_nonunique.box", out = dir / "m_zavik.box";
  EXPECT_FAILS("Cannot open file .*m_nonunique.box. Permission denied or wrong file name.\n"
              "Error in function box_filter.*open file failed.! Exit now!",
              box_filter(100, 100, 14.2f, 0.1f, 1, 4, 4, make_i2(0, 0), raw.c_str(), "NULL", out.c_str(), 2));
  EXPECT_EQ(zk_slurp(out), "old\n");
  write_raw(raw, {{55, 55, 0.5f, 0, 0}});
  EXPECT_FAILS("Cannot write to file /nonexistent_zk/m.box. Permission denied or no space left!",
              box_filter(100, 100, 14.2f, 0.1f, 1, 4, 4, make_i2(0, 0), raw.c_str(), "NULL", "/nonexistent_zk/m.box", 2));
  // A minimum distance that gives a cell below one pixel.
  EXPECT_FAILS("grid cell of less than 1 pixel. Use a larger --min_dist.\n"
              "Error in function box_filter.*grid cell below 1 pixel! Exit now!",
              box_filter(100, 100, 1.4f, 0.1f, 1, 4, 4, make_i2(0, 0), raw.c_str(), "NULL", out.c_str(), 2));
  EXPECT_EQ(zk_slurp(out), "old\n");
  // 1.5 gives a cell of exactly 1: a working grid.
  EXPECT_EQ(box_filter(100, 100, 1.5f, 0.1f, 1, 4, 4, make_i2(0, 0), raw.c_str(), "NULL", out.c_str(), 2), 0);
}
