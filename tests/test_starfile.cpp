#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "formats/starfile.h"
#include "test_util.h"

namespace {

void put_file(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

// A stream over a text held in memory by a temporary file.
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

const char* kPicks =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
    "_rlnClassNumber #4\n_rlnAutopickFigureOfMerit #5\n"
    "120     340     12.500000\t2       0.731000\n"
    "500     60      0.000000\t0       0.400000\n";

}  // namespace

TEST(StarKeywords, TableHoldsEveryLabelOnceInOrderAndEndsWithAnEmptyRow) {
  int n = 0;
  while (STAR_HEAD_KEYWORDS[n][0]) ++n;
  EXPECT_EQ(n, 228);
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[0], "_rlnComment");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[33], "_rlnCoordinateX");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[227], "_rlnSpectralIndex");
  int dim = 0;
  for (int i = 0; i < n; ++i) dim += strcmp(STAR_HEAD_KEYWORDS[i], "_rlnDataDimensionality") == 0;
  EXPECT_EQ(dim, 2);
  EXPECT_EQ(is_star_head_keyword("_rlnAutopickFigureOfMerit"), 1);
  EXPECT_EQ(is_star_head_keyword("_rlnCorrectedFourierShellCorrelationPhaseRandomizedMaskedMaps"), 1);
  // Compared in full length and case.
  EXPECT_EQ(is_star_head_keyword("_rlnCoordinate"), 0);
  EXPECT_EQ(is_star_head_keyword("_rlnCoordinateXY"), 0);
  EXPECT_EQ(is_star_head_keyword("_rlncoordinatex"), 0);
  EXPECT_EQ(is_star_head_keyword("_rlnOpticsGroup"), 0);
  EXPECT_EQ(is_star_head_keyword(""), 0);
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
  f = stream_of(named);
  StarHead* head2 = star_head_new();
  star_read_head(f, head2);
  EXPECT_EQ(memcmp(head, head2, sizeof(StarHead)), 0);
  fclose(f);
  free(head);
  free(head2);
}

TEST(StarHeadReader, EndsAtTheFirstLineThatIsNoHeadLine) {
  StarHead head;
  // A label without "#n" ends the head.
  FILE* f = stream_of("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY\n_rlnAnglePsi #3\n");
  star_read_head(f, &head);
  EXPECT_EQ(head.n_labels, 1);
  fclose(f);
  // A first line that is a comment: no labels, whatever follows.
  f = stream_of("# version 30001\ndata_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n");
  star_read_head(f, &head);
  EXPECT_EQ(head.n_labels, 0);
  fclose(f);
  // A label outside the table ends the head too.
  f = stream_of("data_\nloop_\n_rlnCoordinateX #1\n_rlnHelicalTubeID #2\n_rlnCoordinateY #3\n");
  star_read_head(f, &head);
  EXPECT_EQ(head.n_labels, 1);
  fclose(f);
  // CRLF line ends: the carriage return is a separator.
  f = stream_of("\r\ndata_\r\n\r\nloop_\r\n_rlnCoordinateX #1\r\n_rlnCoordinateY #2\r\n1 2\r\n");
  star_read_head(f, &head);
  ASSERT_EQ(head.n_labels, 2);
  EXPECT_EQ(head.numbers[1], 2);
  fclose(f);
}

TEST(StarHeadReader, ColumnNumberDecidesNotTheOrder) {
  FILE* f = stream_of("data_\nloop_\n_rlnCoordinateX #2\n_rlnCoordinateY #1\n10 20\n");
  ParticleInfoIndex index;
  StarHead head;
  star_read_head(f, &head);
  set_info_index_from_star_head(&head, &index);
  EXPECT_EQ(index.CoordinateX, 2);
  EXPECT_EQ(index.CoordinateY, 1);
  fclose(f);
}

TEST(StarHeadReader, HeadIsCutAtLine512) {
  std::string text = "data_\nloop_\n";
  for (int i = 0; i < 600; ++i) text += "_rlnCoordinateX #" + std::to_string(i + 1) + "\n";
  FILE* f = stream_of(text);
  StarHead head;
  star_read_head(f, &head);
  EXPECT_EQ(head.n_labels, 510);  // two block lines and 510 labels make 512 lines
  EXPECT_EQ(head.numbers[509], 510);
  fclose(f);
}

TEST(StarInfoIndex, FieldsOfTheLabelsAndNothingElse) {
  ParticleInfoIndex* index = particle_info_index_new();
  EXPECT_EQ(get_info_index_from_keyword("_rlnCoordinateX", index), 0);
  set_info_index_from_keyword_number("_rlnAutopickFigureOfMerit", 7, index);
  set_info_index_from_keyword_number("_rlnComment", 3, index);
  set_info_index_from_keyword_number("_rlnNotALabel", 4, index);
  EXPECT_EQ(index->AutopickFigureOfMerit, 7);
  EXPECT_EQ(get_info_index_from_keyword("_rlnAutopickFigureOfMerit", index), 7);
  EXPECT_EQ(get_info_index_from_keyword("_rlnComment", index), 0);
  // Every other field stayed 0.
  ParticleInfoIndex expect;
  particle_info_index_init(&expect);
  expect.AutopickFigureOfMerit = 7;
  EXPECT_EQ(memcmp(index, &expect, sizeof expect), 0);
  free(index);

  // Of two equal labels the last wins.
  FILE* f = stream_of("data_\nloop_\n_rlnAnglePsi #1\n_rlnAnglePsi #3\n_rlnCoordinateX #2\n");
  StarHead head;
  ParticleInfoIndex idx;
  star_read_head(f, &head);
  idx.CoordinateY = 99;  // zeroed by the call
  set_info_index_from_star_head(&head, &idx);
  EXPECT_EQ(idx.AnglePsi, 3);
  EXPECT_EQ(idx.CoordinateY, 0);
  fclose(f);
}

TEST(StarInfo, Defaults) {
  ParticleInfo info;
  particle_info_init(&info);
  EXPECT_FLOAT_EQ(info.Bfactor, 200.0f);
  EXPECT_STREQ(info.MicrographName, "");
  EXPECT_FLOAT_EQ(info.Voltage, 300.0f);
  EXPECT_FLOAT_EQ(info.DefocusU, 20000.0f);
  EXPECT_FLOAT_EQ(info.SphericalAberration, 2.7f);
  EXPECT_FLOAT_EQ(info.DetectorPixelSize, 14.0f);
  EXPECT_FLOAT_EQ(info.Magnification, 78652.0f);
  EXPECT_FLOAT_EQ(info.CtfFigureOfMerit, 0.15f);
  EXPECT_EQ(info.ClassNumber, 1);
  EXPECT_EQ(info.NrOfSignificantSamples, 100);
  EXPECT_FLOAT_EQ(info.LogLikeliContribution, 10000.0f);
  EXPECT_FLOAT_EQ(info.AutopickFigureOfMerit, 0.3f);
}

TEST(StarPointer, StandsAtDataLineN) {
  FILE* f = stream_of(kPicks);
  star_set_pointer(f, 1);
  EXPECT_EQ(rest_of(f), "500     60      0.000000\t0       0.400000\n");
  star_set_pointer(f, 0);
  char line[ZK_TXT_LEN];
  zk_read_text_line(line, f);
  EXPECT_STREQ(line, "120     340     12.500000\t2       0.731000\n");
  // Beyond the last data line: the end of the file.
  star_set_pointer(f, 5);
  EXPECT_EQ(rest_of(f), "");
  fclose(f);
}

TEST(StarPointer, HeadOnlyFile) {
  // With a final line feed the stream is left at the end.
  FILE* f = stream_of("\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n");
  star_set_pointer(f, 0);
  EXPECT_EQ(rest_of(f), "");
  EXPECT_EQ(get_lineN_from_star(f), 0);
  fclose(f);
  // Without it, at the start of that last line.
  f = stream_of("\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2");
  star_set_pointer(f, 0);
  EXPECT_EQ(rest_of(f), "_rlnCoordinateY #2");
  fclose(f);
  // A last data line without a line feed is found as such.
  f = stream_of("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n3 4");
  star_set_pointer(f, 1);
  EXPECT_EQ(rest_of(f), "3 4");
  fclose(f);
}

TEST(StarLineCount, OneColumnCountsNonNullLinesWiderTablesLinesWithWords) {
  // In a table of one column a line of one blank counts, in a wider one not.
  FILE* f = stream_of("data_\nloop_\n_rlnMicrographName #1\na.mrc\n \nb.mrc\n\n");
  EXPECT_EQ(get_lineN_from_star(f), 3);
  fclose(f);
  f = stream_of("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n1 2\n \n3 4\n\n5\n");
  EXPECT_EQ(get_lineN_from_star(f), 3);
  fclose(f);
  ZkTmpDir dir;
  put_file(dir / "p.star", kPicks);
  EXPECT_EQ(get_lineN_from_starf((dir / "p.star").c_str()), 2);
}

TEST(StarHeadWords, IsWordsStarhead) {
  char a[] = "_rlnCoordinateX", b[] = "#1", c[] = "12", d[] = "data_x", e[] = "loop_";
  char* w1[] = {a, b};
  EXPECT_TRUE(is_words_starhead(w1, 0));
  EXPECT_TRUE(is_words_starhead(w1, 2));
  EXPECT_TRUE(is_words_starhead(w1, 1));
  char* w2[] = {a, b, c};
  EXPECT_FALSE(is_words_starhead(w2, 3));
  char* w3[] = {c, b};
  EXPECT_FALSE(is_words_starhead(w3, 2));
  char* w4[] = {d, c, c};
  EXPECT_TRUE(is_words_starhead(w4, 3));
  char* w5[] = {e};
  EXPECT_TRUE(is_words_starhead(w5, 1));
}

TEST(StarMicrographList, NamesOfTheLinesOfFullWidth) {
  ZkTmpDir dir;
  put_file(dir / "m.star",
           "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnDefocusU #2\n_rlnDefocusV #3\n"
           "mics/a.mrc 10000 11000\n"
           "mics/b.mrc 12000\n"  // too short: skipped
           "\n"
           "mics/c.mrc 13000 14000 extra\n");
  int n = -1;
  char* mics = get_all_micrographs_from_ctfstar((dir / "m.star").c_str(), &n);
  ASSERT_EQ(n, 2);
  EXPECT_STREQ(mics, "mics/a.mrc");
  EXPECT_STREQ(mics + ZK_TXT_LEN, "mics/c.mrc");
  free(mics);
  // Without the column nothing is stored, but the lines count.
  put_file(dir / "n.star", "data_\nloop_\n_rlnDefocusU #1\n_rlnDefocusV #2\n1 2\n3 4\n");
  mics = get_all_micrographs_from_ctfstar((dir / "n.star").c_str(), &n);
  EXPECT_EQ(n, 2);
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
  std::string s = rest_of(f);
  fclose(f);
  EXPECT_EQ(s,
            "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCoordinateX #2\n_rlnCoordinateY #3\n_rlnVoltage #4\n"
            "_rlnDefocusU #5\n_rlnDefocusV #6\n_rlnDefocusAngle #7\n_rlnSphericalAberration #8\n"
            "_rlnDetectorPixelSize #9\n_rlnCtfFigureOfMerit #10\n_rlnMagnification #11\n"
            "_rlnAmplitudeContrast #12\n_rlnAutopickFigureOfMerit #13\n_rlnPhaseShift #14\n"
            "mic_01.mrc   120.000000    -3.000000   300.000000 21000.500000 22000.250000    45.000000     2.700000"
            "     5.000000     0.125000 50000.000000     0.100000     0.500000    90.000000\n");
}

TEST(StarFiles, MissingFileEndsTheRun) {
  StarHead head;
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        starf_read_head("/nonexistent_zk/x.star", &head);
      },
      ::testing::ExitedWithCode(1),
      "Cannot open file /nonexistent_zk/x.star. Permission denied or wrong file name.\n"
      "Error in function .*open file failed.! Exit now!");
}

TEST(TextLine, OverlongLineIsCutAndItsRestPassedOver) {
  std::string longline(1500, 'a');
  FILE* f = stream_of(longline + "\nnext\nlast");
  char line[ZK_TXT_LEN];
  EXPECT_EQ(zk_read_text_line(line, f), 1501);
  EXPECT_EQ(strlen(line), 1023u);
  EXPECT_EQ(zk_read_text_line(line, f), 5);
  EXPECT_STREQ(line, "next\n");
  EXPECT_EQ(zk_read_text_line(line, f), 4);
  EXPECT_STREQ(line, "last");
  EXPECT_EQ(zk_read_text_line(line, f), 0);
  EXPECT_STREQ(line, "");
  fclose(f);
  // A line of exactly 1023 characters and its line feed is one line.
  f = stream_of(std::string(1023, 'b') + "\nc\n");
  zk_read_text_line(line, f);
  zk_read_text_line(line, f);
  EXPECT_STREQ(line, "c\n");
  fclose(f);
}

TEST(TextLine, NumbersNeverOverflow) {
  EXPECT_EQ(zk_atoi("12abc"), 12);
  EXPECT_EQ(zk_atoi("abc"), 0);
  EXPECT_EQ(zk_atoi("-7.9"), -7);
  EXPECT_EQ(zk_atoi("99999999999999999999"), 2147483647);
  EXPECT_EQ(zk_atoi("-99999999999999999999"), -2147483647 - 1);
  EXPECT_FLOAT_EQ(zk_atof("0.25x"), 0.25f);
  EXPECT_FLOAT_EQ(zk_atof("#3"), 0.0f);
}

TEST(StarRobustness, HostileInputsNeverCrashTheHeadAndCountFunctions) {
  std::string inputs[] = {
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
