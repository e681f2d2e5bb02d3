#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/txt_file.h"
#include "formats/starfile.h"
#include "test_util.h"

namespace {

// A stream over a text held by a temporary file.
FILE* stream_of(const std::string& text) {
  FILE* f = tmpfile();
  fwrite(text.data(), 1, text.size(), f);
  rewind(f);
  return f;
}

std::string rest_of(FILE* f) {
  std::string s;
  int c;
  while ((c = fgetc(f)) != EOF) s.push_back((char)c);
  return s;
}

// The head of text, read from a fresh stream.
StarHead head_of(const std::string& text) {
  StarHead head;
  FILE* f = stream_of(text);
  EXPECT_EQ(star_read_head(f, &head), 0);
  fclose(f);
  return head;
}

const char* kPicks =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
    "_rlnClassNumber #4\n_rlnAutopickFigureOfMerit #5\n"
    "120     340     12.500000\t2       0.731000\n"
    "500     60      0.000000\t0       0.400000\n";

}  // namespace

TEST(StarKeywords, TableHoldsEveryLabelInOrderAndLookupIsExact) {
  int n = 0, dim = 0;
  for (; STAR_HEAD_KEYWORDS[n][0]; ++n) dim += strcmp(STAR_HEAD_KEYWORDS[n], "_rlnDataDimensionality") == 0;
  EXPECT_EQ(n, 228);
  EXPECT_EQ(dim, 2);
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[0], "_rlnComment");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[33], "_rlnCoordinateX");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[227], "_rlnSpectralIndex");
  // Compared in full length and case.
  const std::pair<const char*, int> words[] = {
      {"_rlnAutopickFigureOfMerit", 1}, {"_rlnCorrectedFourierShellCorrelationPhaseRandomizedMaskedMaps", 1},
      {"_rlnCoordinate", 0}, {"_rlnCoordinateXY", 0}, {"_rlncoordinatex", 0}, {"_rlnOpticsGroup", 0}, {"", 0}};
  for (auto& w : words) EXPECT_EQ(is_star_head_keyword(w.first), w.second) << w.first;
}

TEST(StarHeadReader, ReadsLabelsAndTheirStatedColumns) {
  FILE* f = stream_of(kPicks);
  StarHead* head = star_head_new();
  EXPECT_EQ(star_read_head(f, head), 0);
  ASSERT_EQ(head->n_labels, 5);
  EXPECT_STREQ(head->names[0], "_rlnCoordinateX");
  EXPECT_STREQ(head->names[4], "_rlnAutopickFigureOfMerit");
  EXPECT_EQ(head->numbers[2], 3);
  // The stream stands behind the first data line.
  EXPECT_EQ(rest_of(f), "500     60      0.000000\t0       0.400000\n");
  fclose(f);
  // data_images instead of a bare data_ reads the same.
  std::string named = kPicks;
  named.replace(named.find("data_"), 5, "data_images");
  StarHead head2 = head_of(named);
  EXPECT_EQ(memcmp(head, &head2, sizeof(StarHead)), 0);
  free(head);
}

TEST(StarHeadReader, EndsAtTheFirstLineThatIsNoHeadLine) {
  const std::pair<const char*, int> cases[] = {
      // A label without "#n" ends the head.
      {"data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY\n_rlnAnglePsi #3\n", 1},
      // A first line that is a comment: no labels, whatever follows.
      {"# version 30001\ndata_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n", 0},
      // A label outside the table.
      {"data_\nloop_\n_rlnCoordinateX #1\n_rlnHelicalTubeID #2\n_rlnCoordinateY #3\n", 1},
      // CRLF line ends: the carriage return is a separator.
      {"\r\ndata_\r\n\r\nloop_\r\n_rlnCoordinateX #1\r\n_rlnCoordinateY #2\r\n1 2\r\n", 2},
  };
  for (auto& c : cases) {
    StarHead head = head_of(c.first);
    EXPECT_EQ(head.n_labels, c.second) << c.first;
    if (c.second == 2) {
      EXPECT_EQ(head.numbers[1], 2);
    }
  }
  // At most 512 head lines: two block lines and 510 labels.
  std::string text = "data_\nloop_\n";
  for (int i = 0; i < 600; ++i) text += "_rlnCoordinateX #" + std::to_string(i + 1) + "\n";
  StarHead head = head_of(text);
  EXPECT_EQ(head.n_labels, 510);
  EXPECT_EQ(head.numbers[509], 510);
}

TEST(StarInfoIndex, ColumnsOfTheKnownLabelsAndNothingElse) {
  ParticleInfoIndex* index = particle_info_index_new();
  EXPECT_EQ(get_info_index_from_keyword("_rlnCoordinateX", index), 0);
  set_info_index_from_keyword_number("_rlnAutopickFigureOfMerit", 7, index);
  set_info_index_from_keyword_number("_rlnComment", 3, index);
  set_info_index_from_keyword_number("_rlnNotALabel", 4, index);
  EXPECT_EQ(get_info_index_from_keyword("_rlnAutopickFigureOfMerit", index), 7);
  EXPECT_EQ(get_info_index_from_keyword("_rlnComment", index), 0);
  // Every other field stayed 0.
  ParticleInfoIndex expect;
  particle_info_index_init(&expect);
  expect.AutopickFigureOfMerit = 7;
  EXPECT_EQ(memcmp(index, &expect, sizeof expect), 0);
  free(index);

  // The stated column decides, not the order; of two equal labels the last
  // wins; fields of absent labels are zeroed.
  StarHead head = head_of("data_\nloop_\n_rlnAnglePsi #1\n_rlnCoordinateY #4\n_rlnAnglePsi #3\n_rlnCoordinateX #2\n");
  ParticleInfoIndex idx;
  idx.ClassNumber = 99;
  set_info_index_from_star_head(&head, &idx);
  EXPECT_EQ(idx.AnglePsi, 3);
  EXPECT_EQ(idx.CoordinateX, 2);
  EXPECT_EQ(idx.CoordinateY, 4);
  EXPECT_EQ(idx.ClassNumber, 0);
}

TEST(StarPointer, StandsAtDataLineN) {
  FILE* f = stream_of(kPicks);
  star_set_pointer(f, 1);
  EXPECT_EQ(rest_of(f), "500     60      0.000000\t0       0.400000\n");
  star_set_pointer(f, 0);
  char line[ZK_TXT_LEN];
  zk_read_text_line(line, f);
  EXPECT_STREQ(line, "120     340     12.500000\t2       0.731000\n");
  star_set_pointer(f, 5);  // beyond the last data line: the end
  EXPECT_EQ(rest_of(f), "");
  fclose(f);
  // A head-only file: at the end, or at the start of a last line without a
  // line feed; a last data line without one is found as such.
  const struct {
    const char* text;
    int n;
    const char* rest;
  } cases[] = {{"\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n", 0, ""},
               {"\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2", 0, "_rlnCoordinateY #2"},
               {"data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n3 4", 1, "3 4"}};
  for (auto& c : cases) {
    f = stream_of(c.text);
    star_set_pointer(f, c.n);
    EXPECT_EQ(rest_of(f), c.rest) << c.text;
    fclose(f);
  }
}

TEST(StarLineCount, OneColumnCountsNonNullLinesWiderTablesLinesWithWords) {
  const std::pair<const char*, int> cases[] = {
      {"\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n", 0},
      // In a table of one column a line of one blank counts, in a wider one not.
      {"data_\nloop_\n_rlnMicrographName #1\na.mrc\n \nb.mrc\n\n", 3},
      {"data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n \n3 4\n\n5\n", 3},
  };
  for (auto& c : cases) {
    FILE* f = stream_of(c.first);
    EXPECT_EQ(get_lineN_from_star(f), c.second) << c.first;
    fclose(f);
  }
  ZkTmpDir dir;
  zk_put(dir / "p.star", kPicks);
  EXPECT_EQ(get_lineN_from_starf((dir / "p.star").c_str()), 2);
}

TEST(StarMicrographList, NamesOfTheLinesOfFullWidth) {
  ZkTmpDir dir;
  const std::string m = dir / "m.star", n = dir / "n.star";
  zk_put(m, "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnDefocusU #2\n_rlnDefocusV #3\n"
         "mics/a.mrc 10000 11000\nmics/b.mrc 12000\n\nmics/c.mrc 13000 14000 extra\n");
  int count = -1;
  char* mics = get_all_micrographs_from_ctfstar(m.c_str(), &count);
  ASSERT_EQ(count, 2);  // the short line is skipped
  EXPECT_STREQ(mics, "mics/a.mrc");
  EXPECT_STREQ(mics + ZK_TXT_LEN, "mics/c.mrc");
  free(mics);
  // Without the column nothing is stored, but the lines count.
  zk_put(n, "data_\nloop_\n_rlnDefocusU #1\n_rlnDefocusV #2\n1 2\n3 4\n");
  mics = get_all_micrographs_from_ctfstar(n.c_str(), &count);
  EXPECT_EQ(count, 2);
  EXPECT_STREQ(mics, "");
  free(mics);
}

TEST(StarWriters, ParticleHeadAndLineByteForByte) {
  FILE* f = tmpfile();
  fputs("junk that the head overwrites", f);
  particle_star_write_head(f);
  particle_star_write_oneline(f, "mic_01.mrc", 120, -3, 21000.5f, 22000.25f, 45.0f, 300.0f, 2.7f, 0.1f, 50000.0f,
                              5.0f, 0.125f, 0.5f, 90.0f);
  rewind(f);
  EXPECT_EQ(rest_of(f),
            "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCoordinateX #2\n_rlnCoordinateY #3\n_rlnVoltage #4\n"
            "_rlnDefocusU #5\n_rlnDefocusV #6\n_rlnDefocusAngle #7\n_rlnSphericalAberration #8\n"
            "_rlnDetectorPixelSize #9\n_rlnCtfFigureOfMerit #10\n_rlnMagnification #11\n"
            "_rlnAmplitudeContrast #12\n_rlnAutopickFigureOfMerit #13\n_rlnPhaseShift #14\n"
            "mic_01.mrc   120.000000    -3.000000   300.000000 21000.500000 22000.250000    45.000000     2.700000"
            "     5.000000     0.125000 50000.000000     0.100000     0.500000    90.000000\n");
  fclose(f);
  StarHead head;
  EXPECT_FAILS("Cannot open file /nonexistent_zk/x.star. Permission denied or wrong file name.\n"
      "Error in function .*open file failed.! Exit now!",
               starf_read_head("/nonexistent_zk/x.star", &head););
}

TEST(TextLine, OverlongLineIsCutAndItsRestPassedOver) {
  FILE* f = stream_of(std::string(1500, 'a') + "\nnext\n");
  char line[ZK_TXT_LEN];
  EXPECT_EQ(zk_read_text_line(line, f), 1501);
  EXPECT_EQ(strlen(line), 1023u);
  EXPECT_EQ(zk_read_text_line(line, f), 5);
  EXPECT_STREQ(line, "next\n");
  fclose(f);
  // A line of exactly 1023 characters and its line feed is one line.
  f = stream_of(std::string(1023, 'b') + "\nc\n");
  zk_read_text_line(line, f);
  zk_read_text_line(line, f);
  EXPECT_STREQ(line, "c\n");
  fclose(f);
}

TEST(StarRobustness, HostileInputsNeverCrashTheHeadAndCountFunctions) {
  const std::string inputs[] = {
      "",
      std::string("\0\0\0\xff\xfe", 5),
      "data_",
      "loop_\n_rlnCoordinateX #",
      "_rlnCoordinateX #99999999999999999999\n_rlnCoordinateY #-5\n1 2\n",
      std::string(5000, '_') + "\n" + std::string(3000, ' ') + "x\n",
      "_rlnCoordinateX " + std::string(2000, '#') + "\n1\n",
      std::string("data_\nloop_\n_rlnMicrographName #1\n\0abc\nd\n", 42),
  };
  for (const std::string& text : inputs) {
    FILE* f = stream_of(text);
    StarHead head;
    star_read_head(f, &head);
    EXPECT_LE(head.n_labels, STAR_MAX_LABELS);
    get_lineN_from_star(f);
    for (int n = 0; n < 3; ++n) star_set_pointer(f, n);
    fclose(f);
  }
}
