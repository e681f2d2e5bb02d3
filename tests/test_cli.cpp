// The picker as a program: its exits, messages and the order of its run, by
// running the built binary on small micrographs.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "driver/zavik_para.h"
#include "driver/zavik_run.h"
#include "formats/mrcfile.h"
#include "test_util.h"

namespace {

int run_zavik(const std::string& args, std::string* out) { return zk_run(std::string(ZAVIK_BIN) + " " + args, out); }

void write_mic(const std::string& name, int nx, int ny) {
  std::vector<float> img((size_t)nx * ny);
  for (size_t i = 0; i < img.size(); ++i) img[i] = (float)(i % 7) - 3.0f;
  mrcf_write_xyz_data(name.c_str(), img.data(), nx, ny, 1);
}

size_t count(const std::string& s, const std::string& part) {
  size_t n = 0;
  for (size_t p = s.find(part); p != std::string::npos; p = s.find(part, p + 1)) ++n;
  return n;
}

const std::string SEPARATOR = "\n" + std::string(129, '-') + "\n";
const std::string HASHES = std::string(129, '#') + "\n";

}  // namespace

// Help only as the first word; anywhere else it is an unknown option, which
// ends with status 0 and no echo.
TEST(Cli, HelpUsageAndUnknownWords) {
  std::string out;
  EXPECT_EQ(run_zavik("", &out), 0);
  EXPECT_TRUE(zk_has(out, "Usage:\n"));
  EXPECT_TRUE(zk_has(out, "Print full help document\n"));
  EXPECT_FALSE(zk_has(out, "Tips"));
  EXPECT_FALSE(zk_has(out, "Waring"));
  for (const char* args : {"--HELP m.mrc", "-h"}) {
    EXPECT_EQ(run_zavik(args, &out), 0) << args;
    EXPECT_TRUE(zk_has(out, "Usage:\n")) << args;
    EXPECT_TRUE(zk_has(out, "\x1b[1mTips")) << args;  // the full help adds the tips
  }
  const char* unknown[][2] = {{"m.mrc -h", "-h"}, {"--apixM 1.0 --per_lp 20 m.mrc", "--per_lp"}};
  for (const auto& u : unknown) {
    EXPECT_EQ(run_zavik(u[0], &out), 0) << u[0];
    EXPECT_TRUE(zk_has(out, "Failed to recognize option: \x1b[41m\x1b[1m\x1b[5m" + std::string(u[1]) + "!\x1b[m")) << out;
    EXPECT_FALSE(zk_has(out, "Usage:")) << u[0];
    EXPECT_FALSE(zk_has(out, "User input parameters")) << u[0];
  }
}

TEST(Cli, NoUsableMicrographStopsWithOneLine) {
  ZkTmpDir dir;
  std::string out;
  EXPECT_EQ(run_zavik("--apixM 1.0 " + dir / "a.mrc " + dir / "b.mrc", &out), 1);
  EXPECT_EQ(count(out, "does NOT exsit! Automatically ignored!"), 2u);
  EXPECT_TRUE(zk_has(out, "Automatically ignored!\x1b[m\n\nError in function main(), file zavik_main.cpp on line "));
  EXPECT_TRUE(zk_has(out, ": none of the 2 micrographs given exists and is readable! Exit now!\n"));
  EXPECT_FALSE(zk_has(out, "PREPARATION"));
}

TEST(Cli, NoUsableFirstMicrographEndsTheRunBeforeAnyOutput) {
  ZkTmpDir dir;
  const std::string a = dir / "short.mrc", s = dir / "tiny.mrc", w = dir / "wide.mrc";
  write_mic(a, 64, 64);
  ASSERT_EQ(truncate(a.c_str(), 1024 + 100), 0);  // the head promises more samples
  write_mic(s, 6, 6);  // smaller than one even square of shrunk pixels
  write_mic(w, 128, 64);  // 2:1, which cannot be squared by mirroring
  const std::string red = "\x1b[41m\x1b[1m\x1b[5m";
  const std::string cases[][2] = {
      {a, "Opening " + a + " for initial test and preperation .......\n" + red + "Micrograph " + a +
              " is shorter than its head promises: 1124 bytes, at least 17408 needed. It gets no results; the next "
              "micrograph is tried."},
      {w, red + "Micrograph " + w + " is 128 x 64 pixels: the picker needs its longer side to be less than twice "
                "the shorter (32 x 16 pixels after shrinking by 4)."},
      {a + " " + w, ": none of the 2 micrographs given can be picked! Exit now!\n"},
      {"--min_dist 8 " + s, "Opening " + s + " for initial test and preperation .......\nError in function main(), "
                            "file zavik_main.cpp on line "},
      {"--min_dist 8 " + s, ": micrographs of 6 x 6 pixels are too small for speed 2, at least 8 pixels a side! "
                            "Exit now!\n"},
  };
  for (const auto& c : cases) {
    std::string out;
    EXPECT_EQ(run_zavik("--apixM 1.0 --diameter 40 " + c[0], &out), 1) << c[0];
    EXPECT_TRUE(zk_has(out, c[1])) << out;
    EXPECT_FALSE(zk_has(out, "PREPARATION")) << c[0];
  }
  EXPECT_EQ(zk_listing(dir.path), "short.mrc\ntiny.mrc\nwide.mrc\n");  // nothing written beside them
}

TEST(Cli, LaterMicrographOfAnotherSizeEndsTheRun) {
  ZkTmpDir dir;
  std::string a = dir / "a.mrc", b = dir / "b.mrc";
  write_mic(a, 64, 64);
  write_mic(b, 64, 48);
  std::string out;
  EXPECT_EQ(run_zavik("--apixM 1.0 --diameter 20 " + a + " " + b, &out), 1);
  const std::string table = "Micrograph \x1b[1m" + a + "\x1b[m has a different size or format from  \x1b[1m" + b +
                            "\x1b[m.\nCheck if all the micrographs are the same sizes and format? \n "
                            "      Nx      Ny      Nz      Mode             File:\n"
                            "      64      64      1       Float               " +
                            a + "\n      64      48      1       Float               " + b + "\n";
  EXPECT_TRUE(zk_has(out, table)) << out;
  EXPECT_EQ(count(out, "Reading File"), 1u);  // b's slice is never read
  EXPECT_FALSE(zk_has(out, "finished successfully"));
  EXPECT_FALSE(zk_has(out, "\n" + std::string(127, '-') + "\n"));  // a failed run prints no tip
}

// A micrograph that cannot be picked is reported by name with its reason and
// passed over; the run goes on, and the closing banner names it.
TEST(Cli, BadMicrographsInTheListArePassedOver) {
  ZkTmpDir dir;
  const std::string a = dir / "a.mrc", c = dir / "c.mrc", empty = dir / "empty.mrc", cut = dir / "cut.mrc",
                    gone = dir / "gone.mrc", folder = dir / "folder.mrc", pipe = dir / "pipe.mrc";
  write_mic(a, 128, 128);
  write_mic(c, 128, 128);
  zk_put(empty, "");
  write_mic(cut, 128, 128);
  ASSERT_EQ(truncate(cut.c_str(), 1024 + 1000), 0);
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);  // opening it would wait for a writer
  std::string out;
  ASSERT_EQ(run_zavik("--apixM 1.0 --diameter 40 " + a + " " + empty + " " + cut + " " + gone + " " + folder + " " +
                          pipe + " " + c,
                      &out),
            0)
      << out;
  const std::string reasons[] = {
      "Micrograph " + empty + " is too short for an MRC file: 0 bytes, at least 1024 needed.",
      "Micrograph " + cut + " is shorter than its head promises: 2024 bytes, at least 66560 needed.",
      "Cannot open file " + gone + ". Permission denied or wrong file name.",
      "Micrograph " + folder + " is not a regular file (a directory, pipe or device).",
      "Micrograph " + pipe + " is not a regular file (a directory, pipe or device).",
  };
  std::string banner = HASHES + "Finished 7 files; 5 micrographs could not be picked and have no results:\n";
  for (const std::string& why : reasons) {
    EXPECT_TRUE(zk_has(out, "\x1b[41m\x1b[1m\x1b[5m" + why + " It gets no results; the run goes on.\x1b[m\n")) << why;
    banner += "    " + why + "\n";
  }
  EXPECT_TRUE(zk_has(out, banner + ">>>>>>TIME<<<<<<")) << out;
  EXPECT_TRUE(zk_has(out, "File " + c + " finished.\n"));
  EXPECT_EQ(zk_listing(dir.path), "a.mrc\na_nonunique.box\na_rejected.box\na_rejected.star\na_zavik.box\na_zavik.star\n"
                     "c.mrc\nc_nonunique.box\nc_rejected.box\nc_rejected.star\nc_zavik.box\nc_zavik.star\n"
                     "cut.mrc\nempty.mrc\nfolder.mrc\npipe.mrc\n");
}

TEST(Cli, RunOrderFromEchoToClosingBanner) {
  ZkTmpDir dir;
  std::string a = dir / "a.mrc", b = dir / "b.mrcs";
  write_mic(a, 100, 80);
  write_mic(b, 100, 80);
  std::string out;
  ASSERT_EQ(run_zavik("--apixM 2.0 --diameter 40 --T none --apixT 2 --write_mic_mask 1 " + a + " " + b, &out), 0)
      << out;

  // The file list closes the echo; the back-end line, when there is one, comes next.
  const std::string files = "All 2 files to be used:\n        " + a + "\n        " + b + "\n";
  size_t at = out.find(files);
  ASSERT_NE(at, std::string::npos) << out;
  at += files.size();
  if (out.compare(at, 3, "No ") == 0) {
    size_t eol = out.find('\n', at);
    EXPECT_TRUE(zk_has(out.substr(at, eol - at), "back end stands in as GPU device 0."));
    at = eol + 1;
  }
  const std::string opening = "Opening " + a + " for initial test and preperation .......\n";
  ASSERT_EQ(out.compare(at, opening.size(), opening), 0) << out.substr(at);

  // Then, in order: preparation, the three stages of each micrograph, the banner.
  std::vector<std::string> order = {">>>>>>TIME<<<<<<                     PREPARATION: "};
  for (const std::string& m : {a, b}) {
    order.push_back(SEPARATOR + "Reading File " + m + " ...\n");
    order.push_back(">>>>>>TIME<<<<<<                         READING: ");
    order.push_back("Normalizing the micrograph " + m + " ...\n");
    order.push_back(">>>>>>TIME<<<<<<                   NORMALIZATION: ");
    order.push_back("File " + m + " finished.\n");
    order.push_back(">>>>>>TIME<<<<<<                         PICKING: ");
  }
  order.push_back(HASHES + "All 2 files finished successfully:\n>>>>>>TIME<<<<<<                           TOTAL: ");
  order.push_back("s\n" + HASHES + "\n" + std::string(127, '-') + "\n");
  for (const std::string& piece : order) {
    size_t p = out.find(piece, at);
    ASSERT_NE(p, std::string::npos) << "missing after " << at << ": " << piece << "\n" << out;
    at = p + piece.size();
  }
  EXPECT_EQ(out.substr(out.size() - 128), std::string(127, '-') + "\n");

  // Every micrograph gets its raw candidates, both results, the rejected
  // cells of ice detection and the mask asked for beside it.
  EXPECT_EQ(zk_listing(dir.path),
            "a.mrc\na_mask.mrc\na_nonunique.box\na_rejected.box\na_rejected.star\na_zavik.box\na_zavik.star\n"
            "b.mrcs\nb_mask.mrc\nb_nonunique.box\nb_rejected.box\nb_rejected.star\nb_zavik.box\nb_zavik.star\n");
}

TEST(Cli, FirstNameUnusableSecondStandsInEntryZero) {
  ZkTmpDir dir;
  std::string a = dir / "a.mrc", b = dir / "b.mrc";
  write_mic(b, 128, 128);
  std::string out;
  ASSERT_EQ(run_zavik("--apixM 1.0 --diameter 40 " + a + " " + b, &out), 0) << out;
  EXPECT_TRUE(zk_has(out, "\x1b[41m\x1b[1m\x1b[5mWarning in function check_access_openf_1st(), file txt_file.cpp on "
                       "line "));
  EXPECT_TRUE(zk_has(out, ": the micrograph " + a + " does NOT exsit! Automatically ignored!\x1b[m\n\n"));
  EXPECT_EQ(count(out, "Reading File " + b + " ...\n"), 2u);  // entry 0 and entry 1
  EXPECT_FALSE(zk_has(out, "Reading File " + a));
  EXPECT_TRUE(zk_has(out, "All 2 files finished successfully:\n"));
}

TEST(Cli, DoUnfinishedSkipsAMicrographWithAFinishedResult) {
  ZkTmpDir dir;
  std::string a = dir / "a.mrc", b = dir / "b.mrc";
  write_mic(a, 128, 128);
  write_mic(b, 128, 128);
  zk_put(dir / "a_zavik.star", "");  // any file, even empty, under --write_star 0
  std::string out;
  ASSERT_EQ(run_zavik("--apixM 1.0 --diameter 40 --do_unfinished --write_star 0 " + a + " " + b, &out), 0) << out;
  EXPECT_TRUE(zk_has(out, SEPARATOR + "Micrograph " + a + " has already been processed. Automatically skipped.\n" +
                           SEPARATOR + "Reading File " + b + " ...\n"))
      << out;
  EXPECT_EQ(count(out, "READING: "), 1u);  // the skip prints no stage line
  EXPECT_EQ(count(out, "PICKING: "), 1u);
  EXPECT_TRUE(zk_has(out, "All 2 files finished successfully:\n"));

  // Without the option the micrograph is read again.
  ASSERT_EQ(run_zavik("--apixM 1.0 --diameter 40 " + a, &out), 0);
  EXPECT_FALSE(zk_has(out, "already been processed"));
  EXPECT_TRUE(zk_has(out, "Reading File " + a));
}

TEST(Cli, ExclusionFilesAreReadOrWarnedAbout) {
  ZkTmpDir dir;
  std::string a = dir / "a.mrc", b = dir / "b.mrc";
  write_mic(a, 128, 128);
  write_mic(b, 128, 128);
  zk_put(dir / "a_bad.box", "10 10 20 20\n30 30 20 20\n5 40 20 20\n");
  std::string out;
  const std::string opts = "--apixM 1.0 --diameter 40 --excluded_suffix _bad.box ";
  ASSERT_EQ(run_zavik("--exclusive_picking " + opts + a + " " + b, &out), 0) << out;
  EXPECT_TRUE(zk_has(out, "Reading File " + a + " ...\n       3 particles in file " + dir / "a_bad.box" +
                           " excluded from auto-picking \n>>>>>>TIME<<<<<<"))
      << out;
  EXPECT_TRUE(zk_has(out, "\x1b[43m\x1b[1m\x1b[5mWarning in function check_file_access(), file txt_file.cpp on line "));
  EXPECT_TRUE(zk_has(out, ": the file " + dir / "b_bad.box" + " does NOT exist! Automatically ignored!\x1b[m\n\n"));
  EXPECT_TRUE(zk_has(out, "File " + b + " finished.\n"));

  // Without --exclusive_picking the suffix alone reads nothing.
  ASSERT_EQ(run_zavik(opts + a, &out), 0);
  EXPECT_FALSE(zk_has(out, "excluded from auto-picking"));
}

TEST(Geometry, RectangularMicrographAtTheDefaults) {
  // 3710 x 3838 at speed 2: L from the longer side, true shape kept apart.
  Zavik_Para para;
  zavik_init_parameters(1, &para);
  ZkRun run;
  run.para = &para;
  run.head_first.nx = 3710;
  run.head_first.ny = 3838;
  zavik_run_set_geometry(&run);
  zavik_run_set_grid(&run);
  const int got[] = {run.Nx, run.Ny, run.L, run.Nsx, run.Nsy, run.origin.x, run.origin.y, run.G, run.Gx, run.Gy};
  // L = 2 * (3838 / 8) and 3710 / 4, 3838 / 4 lose their remainders; Gx = ceil(958 / 42)
  const int want[] = {3710, 3838, 958, 927, 959, 0, 0, 42, 23, 23};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(got[i], want[i]) << "value " << i;
  zavik_free_parameters(&para);
}
