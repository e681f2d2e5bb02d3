#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "formats/boxfile.h"
#include "test_util.h"

namespace {

// The records of a file holding text; what the reader prints goes to *said.
struct Reader {
  std::vector<PTCL_BOX> boxes;
  int n = 0;
  std::string said;
  Reader(const std::string& path, int max = 64) : boxes(max > 0 ? max : 1) {
    // Garbage first, so that the reader's own emptying is checked too.
    memset(boxes.data(), 0x5a, boxes.size() * sizeof(PTCL_BOX));
    said = zk_stdout([&] { n = read_all_ptcl_boxes(boxes.data(), max, path.c_str()); });
  }
  Reader(const ZkTmpDir& dir, const char* name, const std::string& text, int max = 64)
      : Reader((zk_put(dir / name, text), dir / name), max) {}
};

void expect_box(const PTCL_BOX& b, int x, int y, int w, int h, float cc, int cls, float psi) {
  EXPECT_EQ(b.x, x);
  EXPECT_EQ(b.y, y);
  EXPECT_EQ(b.w, w);
  EXPECT_EQ(b.h, h);
  EXPECT_FLOAT_EQ(b.cc, cc);
  EXPECT_EQ(b.class_number, cls);
  EXPECT_FLOAT_EQ(b.psi, psi);
  EXPECT_EQ(b.dist, 0.0f);
}

const char* kStarHead =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
    "_rlnClassNumber #4\n_rlnAutopickFigureOfMerit #5\n";

}  // namespace

TEST(BoxReader, WordCountDecidesTheFields) {
  ZkTmpDir dir;
  Reader r(dir, "a.box",
           "\n"
           "1 2 3 4\n"                      // plain EMAN
           "5 6 7 8 -3\n"                   // EMAN with a fifth column: cc
           "9 10 11 12 0.75 4\n"            // six words: psi 0
           "13 14 15 16 0.5 2 33.5\n"       // extended
           "17 18 19 20 0.25 1 45 extra\n"  // surplus ignored
           "   \n\n");
  ASSERT_EQ(r.n, 5);
  expect_box(r.boxes[0], 1, 2, 3, 4, 0, 0, 0);
  expect_box(r.boxes[1], 5, 6, 7, 8, -3, 0, 0);
  expect_box(r.boxes[2], 9, 10, 11, 12, 0.75f, 4, 0);
  expect_box(r.boxes[3], 13, 14, 15, 16, 0.5f, 2, 33.5f);
  expect_box(r.boxes[4], 17, 18, 19, 20, 0.25f, 1, 45);
  expect_box(r.boxes[5], 0, 0, 0, 0, 0, 0, 0);  // records beyond the count are zero
  // Tabs, CRLF, no final line feed.
  Reader e(dir, "eman.box", "1024\t2048\t256\t256\r\n  30 \t 40\t\t256 256\t-3\r\n\r\n50\t60\t256\t256\t-3");
  ASSERT_EQ(e.n, 3);
  expect_box(e.boxes[0], 1024, 2048, 256, 256, 0, 0, 0);
  expect_box(e.boxes[1], 30, 40, 256, 256, -3, 0, 0);
  expect_box(e.boxes[2], 50, 60, 256, 256, -3, 0, 0);
}

TEST(BoxReader, OneToThreeWordsEndTheProcess) {
  ZkTmpDir dir;
  PTCL_BOX b[4];
  for (const char* bad : {"7\n", "7 8\n", "1 2 3 4\n7 8 9\n", "1 2 3 4\r\n\r\n5\r\n", "# x y\n12 13 14 15\n"}) {
    SCOPED_TRACE(bad);
    zk_put(dir / "bad.box", bad);
    EXPECT_FAILS("Error in function .*: unrecognized box format!! Exit now!",
                 read_all_ptcl_boxes(b, 4, (dir / "bad.box").c_str()));
  }
  EXPECT_FAILS("Cannot open file .*missing.txt. Permission denied or wrong file name.",
              read_all_ptcl_boxes(b, 4, (dir / "missing.txt").c_str()));
}

TEST(BoxReader, MaxOtherSuffixesAndEmptyFiles) {
  ZkTmpDir dir;
  // The bad line lies beyond max records: never read, no exit.
  Reader r(dir, "m.box", "1 1 1 1\n2 2 2 2\n3 3 3 3\nbad\n", 2);
  EXPECT_EQ(r.n, 2);
  EXPECT_EQ(r.boxes[1].x, 2);
  EXPECT_EQ(Reader(dir / "m.box", 0).n, 0);
  Reader o(dir, "a.BOX", "1 2 3 4\n");
  EXPECT_EQ(o.n, 0);
  EXPECT_NE(o.said.find(": unrecognized box file format, only EMAN .box and Relion .star file are supported now.!\n"),
            std::string::npos)
      << o.said;
  EXPECT_EQ(Reader(dir, "e.box", "").n, 0);
  EXPECT_EQ(Reader(dir, "e.star", "").n, 0);
}

TEST(BoxReader, OverlongBinaryNonNumericAndHugeWords) {
  ZkTmpDir dir;
  // A line longer than 1023 characters is one line: "9 9" of its tail never
  // becomes a line of its own (it would end the run if it did).  Non-numeric
  // words read as 0; a NUL byte ends a line's text.
  std::string text = "1 2 3 4 0.5 1 10" + std::string(1100, ' ') + "9 9\n" + "a b c d e f g\n" +
                     std::string("5 6 7 8\0 x\n", 11) + std::string("\0 7\n", 4) + "\xff\xfe\x80\x01 \x02 \x03 \x04\n";
  Reader r(dir, "h.box", text);
  ASSERT_EQ(r.n, 4);
  expect_box(r.boxes[0], 1, 2, 3, 4, 0.5f, 1, 10);
  expect_box(r.boxes[1], 0, 0, 0, 0, 0, 0, 0);
  expect_box(r.boxes[2], 5, 6, 7, 8, 0, 0, 0);
  expect_box(r.boxes[3], 0, 0, 0, 0, 0, 0, 0);
  // Huge numbers saturate.
  Reader b(dir, "big.box", "99999999999999 -99999999999999 1e40 nan 1e400 5 -1e400\n");
  ASSERT_EQ(b.n, 1);
  EXPECT_EQ(b.boxes[0].x, 2147483647);
  EXPECT_EQ(b.boxes[0].y, -2147483647 - 1);
  EXPECT_TRUE(std::isinf(b.boxes[0].cc));
}

TEST(StarReader, NarrowTableColumnsByNumber) {
  ZkTmpDir dir;
  Reader r(dir, "p.star",
           std::string(kStarHead) +
               "1432    254     270.000000\t11      0.312500\n\n"
               "12.9 -7.9 1 2\n"                 // fewer words: skipped
               "100 200 30 4 0.5 extra words\n"  // surplus ignored
               "NULL\n");
  EXPECT_EQ(r.said, "");  // a narrow file does not take the tolerant road
  ASSERT_EQ(r.n, 2);
  expect_box(r.boxes[0], 1432, 254, 0, 0, 0.3125f, 11, 270);
  expect_box(r.boxes[1], 100, 200, 0, 0, 0.5f, 4, 30);
  // Columns out of the order of the labels; fractions are cut.
  Reader q(dir, "q.star", "data_\nloop_\n_rlnCoordinateY #1\n_rlnCoordinateX #2\n10.9 20.7\n-3.5 4\n");
  ASSERT_EQ(q.n, 2);
  expect_box(q.boxes[0], 20, 10, 0, 0, 0, 0, 0);
  expect_box(q.boxes[1], 4, -3, 0, 0, 0, 0, 0);
  // Y numbered 5 in a head of two labels: the narrow reader cannot read it,
  // the tolerant one takes the places of the labels instead.
  Reader o(dir, "o.star", "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #5\n10 20\n");
  ASSERT_EQ(o.n, 1);
  expect_box(o.boxes[0], 10, 20, 0, 0, 0, 0, 0);
}

TEST(StarReader, TolerantReaderForRelion31AndOtherLayouts) {
  ZkTmpDir dir;
  Reader r(dir, "r31.star",
           "# version 30001\n\ndata_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n"
           "_rlnMicrographPixelSize #3\nopticsGroup1 1 1.06\n\n\n"
           "# version 30001\n\ndata_particles\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
           "_rlnClassNumber #3\n_rlnAutopickFigureOfMerit #4\n_rlnAnglePsi #5\n_rlnMicrographName #6\n"
           "_rlnOpticsGroup #7\n"
           " 1234.500000   987.200000            2     0.750000   -999.00000 mics/a.mrc 1\n"
           "# a comment among the rows\n\n"
           "   12.000000    34.000000            1     0.500000     10.00000 mics/a.mrc 1\n"
           "   13 14\n");  // too short: skipped
  EXPECT_EQ(r.said, "Reading " + (dir / "r31.star") +
                        " with the tolerant STAR reader: coordinates found in table data_particles.\n");
  ASSERT_EQ(r.n, 2);
  expect_box(r.boxes[0], 1234, 987, 0, 0, 0.75f, 2, -999);
  expect_box(r.boxes[1], 12, 34, 0, 0, 0.5f, 1, 10);
  // Labels without "#n", CRLF line ends, a label outside the keyword table,
  // extra columns: the column is the label's place in its table.
  Reader p(dir, "plain.star",
           "data_\r\n\r\nloop_\r\n_rlnMicrographName\r\n_rlnHelicalTubeID\r\n_rlnCoordinateX\r\n"
           "_rlnCoordinateY\r\n_rlnAnglePsi\r\na.mrc 3 100.7 200.2 45.0\r\nb.mrc 3 300 400 -45\r\n");
  EXPECT_NE(p.said.find("coordinates found in table data_.\n"), std::string::npos) << p.said;
  ASSERT_EQ(p.n, 2);
  expect_box(p.boxes[0], 100, 200, 0, 0, 0, 0, 45);
  expect_box(p.boxes[1], 300, 400, 0, 0, 0, 0, -45);
  // It respects max as well, and stops at the next table.
  const char* two = "data_a\nloop_\n_rlnCoordinateX\n_rlnCoordinateY\n1 2\n3 4\n5 6\ndata_b\nloop_\n"
                    "_rlnCoordinateX\n_rlnCoordinateY\n7 8\n";
  Reader all(dir, "two.star", two), cut(dir / "two.star", 2);
  EXPECT_EQ(all.n, 3);
  EXPECT_EQ(all.boxes[2].y, 6);
  EXPECT_EQ(cut.n, 2);
}

TEST(StarReader, NoCoordinatesWarnsOnceAndGivesAnEmptyList) {
  ZkTmpDir dir;
  for (const char* text : {"data_\nloop_\n_rlnMicrographName #1\n_rlnDefocusU #2\na.mrc 10000\n",
                           "# only a comment\n", "data_\nloop_\n_rlnCoordinateX #1\n5\n",
                           "\x01\x02\x03 binary\n\xff\n"}) {
    Reader r(dir, "n.star", text);
    const std::string& out = r.said;
    EXPECT_EQ(r.n, 0);
    EXPECT_EQ(out, "Warning in function read_star_tolerant(), file boxfile.cpp on line " +
                       out.substr(out.find("line ") + 5, out.find(':') - out.find("line ") - 5) +
                       ": no _rlnCoordinateX and _rlnCoordinateY columns in the STAR file " + (dir / "n.star") +
                       ", read as an empty list!\n");
  }
}

TEST(BoxRecords, ResizedAroundTheCentre) {
  // The corner moves by half the size difference, truncated towards zero.
  PTCL_BOX b[5];
  empty_all_ptcl_boxes(b, 5);
  b[0].x = 500, b[0].y = 300;                          // star record: w = h = 0
  b[1].x = 10, b[1].y = 20, b[1].w = b[1].h = 101;    // (101 - 100) / 2 = 0
  b[2].x = 10, b[2].y = 20, b[2].w = b[2].h = 100;    // then (100 - 103) / 2 = -1, not -2
  b[3].x = -7, b[3].y = 5, b[3].w = 64, b[3].h = 32;  // different sides
  b[4].x = 10, b[4].y = 20, b[4].w = b[4].h = 99;     // (99 - 100) / 2 = 0
  b[2].cc = 0.5f, b[2].class_number = 3, b[2].psi = 9;
  resize_ptcl_boxes(b, 4, 100);
  resize_ptcl_boxes(b + 2, 1, 103);
  resize_ptcl_boxes(b + 4, 1, 100);
  expect_box(b[0], 450, 250, 100, 100, 0, 0, 0);
  expect_box(b[1], 10, 20, 100, 100, 0, 0, 0);
  expect_box(b[2], 9, 19, 103, 103, 0.5f, 3, 9);
  expect_box(b[3], -25, -29, 100, 100, 0, 0, 0);
  expect_box(b[4], 10, 20, 100, 100, 0, 0, 0);
}

TEST(NeighborBoxes, DiscMatchesAHandCount) {
  // Radius 10, step 4: i and j run 0..2; (i² + j²)·16 <= 100 holds for all
  // but (2, 2).  Records: (0,0) 1, (±1,0) (±2,0) 4, (0,±1) (0,±2) 4, and
  // four each for (1,1), (2,1), (1,2): 21 in all.
  PTCL_BOX centre = one_new_ptcl_box();
  centre.x = 100, centre.y = 200, centre.w = centre.h = 50;  // centre (125, 225)
  std::vector<PTCL_BOX> b(64);
  int n = auto_generate_neighbor_boxes(b.data(), 64, centre, 10.0f, 20, 4);
  ASSERT_EQ(n, 21);
  // The order: (i, j), then (-i, j), (-i, -j), (i, -j) where they differ.
  const int order[][2] = {{0, 0},  {4, 0},  {-4, 0}, {8, 0},  {-8, 0},  {0, 4},  {0, -4},
                          {4, 4},  {-4, 4}, {-4, -4}, {4, -4}, {8, 4},  {-8, 4}, {-8, -4},
                          {8, -4}, {0, 8},  {0, -8}, {4, 8},  {-4, 8}, {-4, -8}, {4, -8}};
  for (int k = 0; k < 21; ++k) {
    SCOPED_TRACE(k);
    const int dx = order[k][0], dy = order[k][1];
    const double r2 = dx * dx + dy * dy;
    EXPECT_EQ(std::vector<int>({b[k].x, b[k].y, b[k].w, b[k].h}), std::vector<int>({115 + dx, 215 + dy, 20, 20}));
    EXPECT_NEAR(b[k].cc, std::exp(-r2 / (100.0 / 4.5)) * 0.3989423, 1e-6);
    EXPECT_NEAR(b[k].dist, std::sqrt(r2), 1e-5);
    EXPECT_EQ(b[k].psi, 0.0f);
  }
  expect_box(b[21], 0, 0, 0, 0, 0, 0, 0);
  // A radius reached exactly by a lattice point includes it: radius 8, step 4
  // gives (0,0), (±4,0), (0,±4), (±4,±4): r2 = 32 <= 64; (8,0) has j·step = 8
  // not below 8, so i stops at 1.
  EXPECT_EQ(auto_generate_neighbor_boxes(b.data(), 64, centre, 8.0f, 20, 4), 9);
  // Never beyond max (with a warning), and no endless loop on a zero step.
  b[5].x = 77;
  EXPECT_TRUE(zk_has(zk_stdout([&] { EXPECT_EQ(auto_generate_neighbor_boxes(b.data(), 5, centre, 10.0f, 20, 4), 5); }),
                     "More neighbour boxes than room for them"));
  EXPECT_EQ(b[5].x, 77);
  EXPECT_EQ(auto_generate_neighbor_boxes(b.data(), 5, centre, 10.0f, 20, 0), 0);
}

TEST(NeighborBoxes, FromAFileTakesTheParticlesWithinTheRadius) {
  ZkTmpDir dir;
  zk_put(dir / "n.box",
           "90 90 20 20\n"     // centre (100, 100): distance 0
           "96 84 20 20\n"     // (106, 94): r2 72
           "120 90 20 20\n"    // (130, 100): r2 900, outside 20
           "102 106 20 20\n"   // (112, 116): r2 400, on the radius
           "60 100 20 20\n");  // (70, 110): r2 1000
  PTCL_BOX centre = one_new_ptcl_box();
  centre.x = 100, centre.y = 100;  // a .star record: its own centre
  std::vector<PTCL_BOX> b(16);
  ASSERT_EQ(generate_neighbor_boxes_from_boxf(b.data(), 16, centre, 20.0f, 40, (dir / "n.box").c_str()), 3);
  EXPECT_EQ(b[0].x, 80);
  EXPECT_EQ(b[1].x, 86);
  EXPECT_EQ(b[1].y, 74);
  EXPECT_EQ(b[2].x, 92);
  EXPECT_EQ(b[2].w, 40);
  EXPECT_NEAR(b[1].dist, std::sqrt(72.0), 1e-5);
  EXPECT_NEAR(b[2].cc, std::exp(-400.0 / (400.0 / 4.5)) * 0.3989423, 1e-7);
}

TEST(BoxLibrary, PrintCountAndGrid) {
  ZkTmpDir dir;
  PTCL_BOX b[3];
  empty_all_ptcl_boxes(b, 3);
  b[0].x = 1, b[0].y = 2, b[0].w = 3, b[0].h = 4, b[0].cc = 0.5f, b[0].class_number = 6, b[0].psi = 7;
  b[1].x = 9, b[1].w = 5;  // h = 0: not printed
  b[2].x = 11, b[2].y = 12, b[2].w = 13, b[2].h = 14;
  fprint_all_ptcl_boxes((dir / "p.box").c_str(), b, 3);
  const std::string expect =
      "1       2       3       4       0.500000        6       7.000000\n"
      "11      12      13      14      0.000000        0       0.000000\n";
  EXPECT_EQ(zk_slurp(dir / "p.box"), expect);
  EXPECT_EQ(zk_stdout([&] { print_all_ptcl_boxes(b, 3); }), expect);

  zk_put(dir / "c.box", "1 2 3 4 5 6 7\n1 2 3 4 5 6\n\n1 2 3 4 5 6 7 8\n");
  EXPECT_EQ(get_ptcl_number_from_boxf((dir / "c.box").c_str()), 2);

  // Both ends included, x in the inner loop.
  EXPECT_EQ(auto_gridboxf_2d((dir / "g.star").c_str(), 10, 0, 20, 5.5f, 5, 15), 6);
  EXPECT_EQ(zk_slurp(dir / "g.star"),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
            "        0.00        5.00\n       10.00        5.00\n       20.00        5.00\n"
            "        0.00       10.50\n       10.00       10.50\n       20.00       10.50\n\n");
  float xy[4];
  EXPECT_EQ(auto_gridbox_2d(nullptr, 0, 0.1f, 0, 1, 1, 0, 0), 11);  // 0.1 steps reach 1.0
  EXPECT_EQ(auto_gridbox_2d(xy, 2, 1, 0, 5, 1, 0, 5), 2);
  EXPECT_EQ(xy[2], 1.0f);
  EXPECT_EQ(auto_gridbox_2d(nullptr, 0, 0, 0, 5, 1, 0, 5), 0);  // a zero step: no points
  EXPECT_EQ(auto_gridbox_2d(nullptr, 0, 1, 5, 0, 1, 0, 5), 0);  // end before start

  PTCL_BOX one = one_new_ptcl_box();
  EXPECT_FAILS("Cannot open file /nonexistent_zk/p.box. strike any key exit!\nError in function .*open file failed.! Exit",
              fprint_all_ptcl_boxes("/nonexistent_zk/p.box", &one, 1));
  EXPECT_FAILS("Cannot write to file /nonexistent_zk/g.star. Permission denied or no space left!",
              auto_gridboxf_2d("/nonexistent_zk/g.star", 1, 0, 1, 1, 0, 1));
}
