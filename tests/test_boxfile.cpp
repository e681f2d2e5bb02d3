#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "formats/boxfile.h"
#include "test_util.h"

namespace {

void put_file(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

std::string written_by(void (*write)(FILE*)) {
  FILE* f = tmpfile();
  write(f);
  rewind(f);
  std::string s;
  int c;
  while ((c = fgetc(f)) != EOF) s.push_back((char)c);
  fclose(f);
  return s;
}

struct Reader {
  std::vector<PTCL_BOX> boxes;
  int n = 0;
  Reader(const std::string& path, int max = 64) : boxes(max > 0 ? max : 1) {
    // Fill with garbage so that the reader's own emptying is checked too.
    memset(boxes.data(), 0x5a, boxes.size() * sizeof(PTCL_BOX));
    n = read_all_ptcl_boxes(boxes.data(), max, path.c_str());
  }
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

TEST(BoxFormats, LineWritersByteForByte) {
  FILE* f = tmpfile();
  write_nonunique_line(f, 12, 345, 48, 48, 0.5f, 3, 127.5f);
  write_zavik_box_line(f, 1234, 56, 396, 396, 0.3125f, 0, 270.0f);
  write_zavik_star_line(f, 1432, 254, 270.0f, 11, 0.3125f);
  write_rejected_box_line(f, 80, 160, 168, 168, -1.25f, 2.5f);
  write_rejected_star_line(f, 164, 244);
  rewind(f);
  std::string s;
  int c;
  while ((c = fgetc(f)) != EOF) s.push_back((char)c);
  fclose(f);
  EXPECT_EQ(s,
            "12      345     48      48      0.500000\t3       \t127.500 \n"
            "1234    56      396     396     0.312500\t0       270.000000\n"
            "1432    254     270.000000\t11      0.312500\n"
            "80      160     168     168     \t-1.250000\t2.500000\n"
            "164     244     \n");
}

TEST(BoxFormats, StarHeadsByteForByte) {
  EXPECT_EQ(written_by(output_starbox_head), kStarHead);
  EXPECT_EQ(written_by(output_starbox_head_XYonly), "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n");
}

TEST(BoxFamilies, SuffixDecidesAndCaseCounts) {
  EXPECT_EQ(get_boxf_suffixf("a_zavik.star"), 1);
  EXPECT_EQ(get_boxf_suffixf("/d/a_zavik.box"), 2);
  EXPECT_EQ(get_boxf_suffixf("a.BOX"), 0);
  EXPECT_EQ(get_boxf_suffixf("a.Star"), 0);
  EXPECT_EQ(get_boxf_suffixf("a.box.txt"), 0);
  EXPECT_EQ(get_boxf_suffixf("a.txt"), 0);
}

TEST(BoxReader, WordCountDecidesTheFields) {
  ZkTmpDir dir;
  put_file(dir / "a.box",
           "\n"
           "1 2 3 4\n"                      // plain EMAN
           "5 6 7 8 -3\n"                   // EMAN with a fifth column: cc
           "9 10 11 12 0.75 4\n"            // six words: psi 0
           "13 14 15 16 0.5 2 33.5\n"       // extended
           "17 18 19 20 0.25 1 45 extra\n"  // surplus ignored
           "   \n"
           "\n");
  Reader r(dir / "a.box");
  ASSERT_EQ(r.n, 5);
  expect_box(r.boxes[0], 1, 2, 3, 4, 0, 0, 0);
  expect_box(r.boxes[1], 5, 6, 7, 8, -3, 0, 0);
  expect_box(r.boxes[2], 9, 10, 11, 12, 0.75f, 4, 0);
  expect_box(r.boxes[3], 13, 14, 15, 16, 0.5f, 2, 33.5f);
  expect_box(r.boxes[4], 17, 18, 19, 20, 0.25f, 1, 45);
  // Records beyond the count are zero.
  expect_box(r.boxes[5], 0, 0, 0, 0, 0, 0, 0);
}

TEST(BoxReader, EmanFilesWithTabsAndCrlf) {
  ZkTmpDir dir;
  put_file(dir / "eman.box",
           "1024\t2048\t256\t256\r\n"
           "  30 \t 40\t\t256 256\t-3\r\n"
           "\r\n"
           "50\t60\t256\t256\t-3");  // no final line feed
  Reader r(dir / "eman.box");
  ASSERT_EQ(r.n, 3);
  expect_box(r.boxes[0], 1024, 2048, 256, 256, 0, 0, 0);
  expect_box(r.boxes[1], 30, 40, 256, 256, -3, 0, 0);
  expect_box(r.boxes[2], 50, 60, 256, 256, -3, 0, 0);
}

TEST(BoxReader, CommentOfFourWordsIsARecordOfZeros) {
  ZkTmpDir dir;
  put_file(dir / "c.box", "# x y\n12 13 14 15\n");
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        Reader r(dir / "c.box");
      },
      ::testing::ExitedWithCode(1), "Error in function .*: unrecognized box format!! Exit now!");
  put_file(dir / "d.box", "# x y w h\n12 13 14 15\n");
  Reader r(dir / "d.box");
  ASSERT_EQ(r.n, 2);
  expect_box(r.boxes[0], 0, 0, 0, 0, 0, 0, 0);
  expect_box(r.boxes[1], 12, 13, 14, 15, 0, 0, 0);
}

TEST(BoxReader, OneToThreeWordsEndTheProcess) {
  ZkTmpDir dir;
  for (const char* bad : {"7\n", "7 8\n", "1 2 3 4\n7 8 9\n", "1 2 3 4\r\n\r\n5\r\n"}) {
    put_file(dir / "bad.box", bad);
    EXPECT_EXIT(
        {
          ZK_STDOUT_TO_STDERR();
          Reader r(dir / "bad.box");
        },
        ::testing::ExitedWithCode(1), "unrecognized box format!")
        << bad;
  }
}

TEST(BoxReader, MaxIsSilentAndLaterLinesAreNotRead) {
  ZkTmpDir dir;
  // The bad line lies beyond max records: never read, no exit.
  put_file(dir / "m.box", "1 1 1 1\n2 2 2 2\n3 3 3 3\nbad\n");
  Reader r(dir / "m.box", 2);
  EXPECT_EQ(r.n, 2);
  EXPECT_EQ(r.boxes[1].x, 2);
  Reader none(dir / "m.box", 0);
  EXPECT_EQ(none.n, 0);
}

TEST(BoxReader, OtherSuffixWarnsAndGivesNothingMissingFileEnds) {
  ZkTmpDir dir;
  put_file(dir / "a.BOX", "1 2 3 4\n");
  testing::internal::CaptureStdout();
  Reader r(dir / "a.BOX");
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(r.n, 0);
  EXPECT_NE(out.find(": unrecognized box file format, only EMAN .box and Relion .star file are supported now.!\n"),
            std::string::npos)
      << out;
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        Reader m(dir / "missing.txt");
      },
      ::testing::ExitedWithCode(1), "Cannot open file .*missing.txt. Permission denied or wrong file name.");
}

TEST(BoxReader, OverlongBinaryAndNonNumericLines) {
  ZkTmpDir dir;
  // 1. A line longer than 1023 characters counts as one line: its first 1023
  //    characters are read and the rest is passed over, so "9 9" of its tail
  //    never becomes a line of its own (it would end the run if it did).
  std::string longline = "1 2 3 4 0.5 1 10" + std::string(1100, ' ') + "9 9\n";
  // 2. Non-numeric words read as 0; 3. a NUL byte ends a line's text.
  std::string text = longline + "a b c d e f g\n" + std::string("5 6 7 8\0 x\n", 11) + std::string("\0 7\n", 4) +
                     "\xff\xfe\x80\x01 \x02 \x03 \x04\n";
  put_file(dir / "h.box", text);
  Reader r(dir / "h.box");
  ASSERT_EQ(r.n, 4);
  expect_box(r.boxes[0], 1, 2, 3, 4, 0.5f, 1, 10);
  expect_box(r.boxes[1], 0, 0, 0, 0, 0, 0, 0);
  expect_box(r.boxes[2], 5, 6, 7, 8, 0, 0, 0);
  expect_box(r.boxes[3], 0, 0, 0, 0, 0, 0, 0);
  // Huge numbers saturate.
  put_file(dir / "big.box", "99999999999999 -99999999999999 1e40 nan 1e400 5 -1e400\n");
  Reader b(dir / "big.box");
  ASSERT_EQ(b.n, 1);
  EXPECT_EQ(b.boxes[0].x, 2147483647);
  EXPECT_EQ(b.boxes[0].y, -2147483647 - 1);
  EXPECT_TRUE(std::isinf(b.boxes[0].cc));
  // Empty file.
  put_file(dir / "e.box", "");
  EXPECT_EQ(Reader(dir / "e.box").n, 0);
  put_file(dir / "e.star", "");
  testing::internal::CaptureStdout();
  EXPECT_EQ(Reader(dir / "e.star").n, 0);
  testing::internal::GetCapturedStdout();
}

TEST(StarReader, NarrowTableColumnsByNumber) {
  ZkTmpDir dir;
  put_file(dir / "p.star",
           std::string(kStarHead) +
               "1432    254     270.000000\t11      0.312500\n"
               "\n"
               "12.9 -7.9 1 2\n"                // fewer words: skipped
               "100 200 30 4 0.5 extra words\n"  // surplus ignored
               "NULL\n");
  Reader r(dir / "p.star");
  ASSERT_EQ(r.n, 2);
  expect_box(r.boxes[0], 1432, 254, 0, 0, 0.3125f, 11, 270);
  expect_box(r.boxes[1], 100, 200, 0, 0, 0.5f, 4, 30);

  // Columns out of the order of the labels; fractions are cut.
  put_file(dir / "q.star", "data_\nloop_\n_rlnCoordinateY #1\n_rlnCoordinateX #2\n10.9 20.7\n-3.5 4\n");
  Reader q(dir / "q.star");
  ASSERT_EQ(q.n, 2);
  expect_box(q.boxes[0], 20, 10, 0, 0, 0, 0, 0);
  expect_box(q.boxes[1], 4, -3, 0, 0, 0, 0, 0);
}

TEST(StarReader, TolerantReaderForRelion31AndOtherLayouts) {
  ZkTmpDir dir;
  const char* particles =
      "# version 30001\n\ndata_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n"
      "_rlnMicrographPixelSize #3\nopticsGroup1 1 1.06\n\n\n"
      "# version 30001\n\ndata_particles\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
      "_rlnClassNumber #3\n_rlnAutopickFigureOfMerit #4\n_rlnAnglePsi #5\n_rlnMicrographName #6\n"
      "_rlnOpticsGroup #7\n"
      " 1234.500000   987.200000            2     0.750000   -999.00000 mics/a.mrc 1\n"
      "# a comment among the rows\n"
      "\n"
      "   12.000000    34.000000            1     0.500000     10.00000 mics/a.mrc 1\n"
      "   13 14\n";  // too short: skipped
  put_file(dir / "r31.star", particles);
  testing::internal::CaptureStdout();
  Reader r(dir / "r31.star");
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "Reading " + (dir / "r31.star") +
                     " with the tolerant STAR reader: coordinates found in table data_particles.\n");
  ASSERT_EQ(r.n, 2);
  expect_box(r.boxes[0], 1234, 987, 0, 0, 0.75f, 2, -999);
  expect_box(r.boxes[1], 12, 34, 0, 0, 0.5f, 1, 10);

  // Labels without "#n", CRLF line ends, a label outside the keyword table,
  // extra columns: the column is the label's place in its table.
  put_file(dir / "plain.star",
           "data_\r\n\r\nloop_\r\n_rlnMicrographName\r\n_rlnHelicalTubeID\r\n_rlnCoordinateX\r\n"
           "_rlnCoordinateY\r\n_rlnAnglePsi\r\na.mrc 3 100.7 200.2 45.0\r\nb.mrc 3 300 400 -45\r\n");
  testing::internal::CaptureStdout();
  Reader p(dir / "plain.star");
  out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("coordinates found in table data_.\n"), std::string::npos) << out;
  ASSERT_EQ(p.n, 2);
  expect_box(p.boxes[0], 100, 200, 0, 0, 0, 0, 45);
  expect_box(p.boxes[1], 300, 400, 0, 0, 0, 0, -45);

  // The tolerant reader respects max as well, and stops at the next table.
  put_file(dir / "two.star",
           "data_a\nloop_\n_rlnCoordinateX\n_rlnCoordinateY\n1 2\n3 4\n5 6\n"
           "data_b\nloop_\n_rlnCoordinateX\n_rlnCoordinateY\n7 8\n");
  testing::internal::CaptureStdout();
  Reader two(dir / "two.star");
  Reader cut(dir / "two.star", 2);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(two.n, 3);
  EXPECT_EQ(two.boxes[2].y, 6);
  EXPECT_EQ(cut.n, 2);
}

TEST(StarReader, NarrowThreePointZeroFileDoesNotTakeTheTolerantRoad) {
  ZkTmpDir dir;
  put_file(dir / "r30.star",
           "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnClassNumber #3\n"
           "_rlnAutopickFigureOfMerit #4\n_rlnAnglePsi #5\n"
           " 1234.000000   987.000000            2     0.750000   -999.00000\n");
  testing::internal::CaptureStdout();
  Reader r(dir / "r30.star");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ASSERT_EQ(r.n, 1);
  expect_box(r.boxes[0], 1234, 987, 0, 0, 0.75f, 2, -999);
}

TEST(StarReader, NoCoordinatesWarnsOnceAndGivesAnEmptyList) {
  ZkTmpDir dir;
  for (const char* text : {"data_\nloop_\n_rlnMicrographName #1\n_rlnDefocusU #2\na.mrc 10000\n",
                           "# only a comment\n", "data_\nloop_\n_rlnCoordinateX #1\n5\n",
                           "\x01\x02\x03 binary\n\xff\n"}) {
    put_file(dir / "n.star", text);
    testing::internal::CaptureStdout();
    Reader r(dir / "n.star");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(r.n, 0);
    EXPECT_EQ(out, "Warning in function read_star_tolerant(), file boxfile.cpp on line " +
                       out.substr(out.find("line ") + 5, out.find(':') - out.find("line ") - 5) +
                       ": no _rlnCoordinateX and _rlnCoordinateY columns in the STAR file " + (dir / "n.star") +
                       ", read as an empty list!\n");
  }
}

TEST(StarReader, ColumnNumberBeyondTheLabelsCountsAsAbsent) {
  ZkTmpDir dir;
  // Y is numbered 5 in a head of two labels: the narrow reader cannot read
  // it; the tolerant one takes the places of the labels instead.
  put_file(dir / "o.star", "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #5\n10 20\n");
  testing::internal::CaptureStdout();
  Reader r(dir / "o.star");
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(r.n, 1);
  expect_box(r.boxes[0], 10, 20, 0, 0, 0, 0, 0);
}

TEST(BoxReadBack, OwnPicksGiveTheSameCentreFromBothFiles) {
  ZkTmpDir dir;
  FILE* fb = fopen((dir / "m_zavik.box").c_str(), "w");
  FILE* fs = fopen((dir / "m_zavik.star").c_str(), "w");
  output_starbox_head(fs);
  // Corner = centre - box / 2, as the box filter writes them.
  const int cx[] = {1432, 203, 3001}, cy[] = {254, 3700, 199}, box = 395;
  for (int i = 0; i < 3; ++i) {
    write_zavik_box_line(fb, cx[i] - box / 2, cy[i] - box / 2, box, box, 0.25f * (i + 1), i, 90.0f * i);
    write_zavik_star_line(fs, cx[i], cy[i], 90.0f * i, i, 0.25f * (i + 1));
  }
  fclose(fb);
  fclose(fs);
  Reader rb(dir / "m_zavik.box"), rs(dir / "m_zavik.star");
  ASSERT_EQ(rb.n, 3);
  ASSERT_EQ(rs.n, 3);
  for (int i = 0; i < 3; ++i) {
    expect_box(rb.boxes[i], cx[i] - 197, cy[i] - 197, box, box, 0.25f * (i + 1), i, 90.0f * i);
    expect_box(rs.boxes[i], cx[i], cy[i], 0, 0, 0.25f * (i + 1), i, 90.0f * i);
    EXPECT_EQ(rb.boxes[i].x + rb.boxes[i].w / 2, rs.boxes[i].x + rs.boxes[i].w / 2);
    EXPECT_EQ(rb.boxes[i].y + rb.boxes[i].h / 2, rs.boxes[i].y + rs.boxes[i].h / 2);
  }
  // A rejected-cell line has six words: average in cc, cut sigma in class.
  fb = fopen((dir / "m_rejected.box").c_str(), "w");
  write_rejected_box_line(fb, 80, 160, 168, 168, -1.25f, 2.5f);
  fclose(fb);
  Reader rr(dir / "m_rejected.box");
  ASSERT_EQ(rr.n, 1);
  expect_box(rr.boxes[0], 80, 160, 168, 168, -1.25f, 2, 0);
}

TEST(BoxResize, CornerMovesByHalfTheDifferenceTruncatedTowardsZero) {
  PTCL_BOX b[5];
  empty_all_ptcl_boxes(b, 5);
  b[0].x = 500, b[0].y = 300;                          // star record: w = h = 0
  b[1].x = 10, b[1].y = 20, b[1].w = b[1].h = 101;    // (101 - 100) / 2 = 0
  b[2].x = 10, b[2].y = 20, b[2].w = b[2].h = 100;    // (100 - 103) / 2 = -1, not -2
  b[3].x = -7, b[3].y = 5, b[3].w = 64, b[3].h = 32;  // different sides
  b[4].x = 10, b[4].y = 20, b[4].w = b[4].h = 99;     // (99 - 100) / 2 = 0
  b[2].cc = 0.5f, b[2].class_number = 3, b[2].psi = 9;
  resize_ptcl_boxes(b, 4, 100);
  resize_ptcl_boxes(b + 2, 1, 103);
  resize_ptcl_boxes(b + 4, 1, 100);
  EXPECT_EQ(b[0].x, 450);
  EXPECT_EQ(b[0].y, 250);
  EXPECT_EQ(b[1].x, 10);
  EXPECT_EQ(b[1].y, 20);
  EXPECT_EQ(b[2].x, 10 + (100 - 103) / 2);  // resized to 100 first (no move), then to 103
  EXPECT_EQ(b[2].x, 9);
  EXPECT_EQ(b[2].w, 103);
  EXPECT_FLOAT_EQ(b[2].cc, 0.5f);
  EXPECT_EQ(b[2].class_number, 3);
  EXPECT_EQ(b[3].x, -7 + (64 - 100) / 2);
  EXPECT_EQ(b[3].x, -25);
  EXPECT_EQ(b[3].y, 5 - 34);
  EXPECT_EQ(b[3].h, 100);
  EXPECT_EQ(b[4].x, 10);
}

TEST(BoxRecords, NewAndEmptyRecords) {
  PTCL_BOX z = one_new_ptcl_box();
  PTCL_BOX zero;
  memset(&zero, 0, sizeof zero);
  EXPECT_EQ(memcmp(&z, &zero, sizeof zero), 0);
  PTCL_BOX b[3];
  memset(b, 0x7f, sizeof b);
  EXPECT_EQ(empty_all_ptcl_boxes(b, 2), 0);
  EXPECT_EQ(memcmp(&b[1], &zero, sizeof zero), 0);
  EXPECT_NE(b[2].x, 0);  // beyond count: untouched
  EXPECT_EQ(empty_all_ptcl_boxes(b, 0), 0);
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
    const int dx = order[k][0], dy = order[k][1];
    EXPECT_EQ(b[k].x, 125 + dx - 10) << k;
    EXPECT_EQ(b[k].y, 225 + dy - 10) << k;
    EXPECT_EQ(b[k].w, 20);
    EXPECT_EQ(b[k].h, 20);
    const double r2 = dx * dx + dy * dy;
    EXPECT_NEAR(b[k].cc, std::exp(-r2 / (100.0 / 4.5)) * 0.3989423, 1e-6) << k;
    EXPECT_NEAR(b[k].dist, std::sqrt(r2), 1e-5) << k;
    EXPECT_EQ(b[k].psi, 0.0f);
  }
  expect_box(b[21], 0, 0, 0, 0, 0, 0, 0);
  // A radius reached exactly by a lattice point includes it: radius 8, step 4
  // gives (0,0), (±4,0), (0,±4), (±4,±4): r2 = 32 <= 64; (8,0) has j·step = 8
  // not below 8, so i stops at 1.
  EXPECT_EQ(auto_generate_neighbor_boxes(b.data(), 64, centre, 8.0f, 20, 4), 9);
}

TEST(NeighborBoxes, NeverWritesBeyondMaxNorLoopsOnAZeroStep) {
  PTCL_BOX centre = one_new_ptcl_box();
  std::vector<PTCL_BOX> b(8);
  b[5].x = 77;
  testing::internal::CaptureStdout();
  EXPECT_EQ(auto_generate_neighbor_boxes(b.data(), 5, centre, 10.0f, 20, 4), 5);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("More neighbour boxes than room for them"), std::string::npos);
  EXPECT_EQ(b[5].x, 77);
  EXPECT_EQ(auto_generate_neighbor_boxes(b.data(), 5, centre, 10.0f, 20, 0), 0);
}

TEST(NeighborBoxes, FromAFileTakesTheParticlesWithinTheRadius) {
  ZkTmpDir dir;
  put_file(dir / "n.box",
           "90 90 20 20\n"     // centre (100, 100): distance 0
           "96 84 20 20\n"     // (106, 94): r2 72
           "120 90 20 20\n"    // (130, 100): r2 900, outside 20
           "102 106 20 20\n"   // (112, 116): r2 400, on the radius
           "60 100 20 20\n");  // (70, 110): r2 1000
  PTCL_BOX centre = one_new_ptcl_box();
  centre.x = 100, centre.y = 100;  // a .star record: its own centre
  std::vector<PTCL_BOX> b(16);
  int n = generate_neighbor_boxes_from_boxf(b.data(), 16, centre, 20.0f, 40, (dir / "n.box").c_str());
  ASSERT_EQ(n, 3);
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
  testing::internal::CaptureStdout();
  print_all_ptcl_boxes(b, 3);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expect);

  put_file(dir / "c.box", "1 2 3 4 5 6 7\n1 2 3 4 5 6\n\n1 2 3 4 5 6 7 8\n");
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
}

TEST(BoxLibrary, WriteFailures) {
  PTCL_BOX b = one_new_ptcl_box();
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        fprint_all_ptcl_boxes("/nonexistent_zk/p.box", &b, 1);
      },
      ::testing::ExitedWithCode(1),
      "Cannot open file /nonexistent_zk/p.box. strike any key exit!\nError in function .*open file failed.! Exit");
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        auto_gridboxf_2d("/nonexistent_zk/g.star", 1, 0, 1, 1, 0, 1);
      },
      ::testing::ExitedWithCode(1), "Cannot write to file /nonexistent_zk/g.star. Permission denied or no space left!");
}
