// The weighting front end: its help rows, option scan, refusals before any
// work, and the frames a movie uses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "formats/mrcfile.h"
#include "movie/lombar_para.h"
#include "test_util.h"

namespace {

int lombar(const std::string& dir, const std::string& args, std::string* out) {
  return zk_run_in(dir, LOMBAR_BIN, args, out);
}

// The option rows as the help prints them.
const char* const ROWS =
    "         --apix              1.34             Pixel size in angstrom;\n"
    "         --newsize           360              Using this newsize to extract the particles\n"
    "         --invert            0                Whether to invert the contrast for extracted particles from the "
    "movies;\n"
    "         --first             0                0-based; if 0, negative, or bigger then frame number,  frames will "
    "be used from number-0; \n"
    "         --last              0                0-based; if 0, negative, or bigger then frame number,  frames will "
    "be used up to the last (Nz-1); \n"
    "         --Ne_a              0.5              Weighting factor 'a' for radiation damage; \n"
    "         --Ne_a              1.3              Weighting factor 'b' for radiation damage; f \n"
    "         --D_a               1.0              Weighting factor 'a' for drift in range [0,1]; to adjust the "
    "weighting contributions from drift, larger values means more weighting\n"
    "         --D_b               1.0              Weighting factor 'b' for drift in range [0,1]; to regulate "
    "anistropic drift weighting; bigger value, more isotropic; 1 means 100% isotropic weighting\n"
    "         --wnorm_type        2                How to normalized the weights; 1:  L-1 norm, |w1|+|w2|+|w3| ... ; "
    "\n                                                                             2:  L-2 norm, sqrt(w1^2 + w2^2 "
    "... w3^2)\n"
    "         --mw_skeme          3                0: simple average  1: dose weighting only  2: drift weighting only "
    " 3: dose and drfit weighting;\n                                              CTF weighting will be ignored if "
    "CTFW files doesn't exist;        \n"
    "         --gid               0                GPU id, normally it's 0, use gpu_info to get information of all "
    "available GPUs.\n"
    "         --box_suffix        _zavik.box    \n"
    "         --dd_suffix         _dose_drift.txt   \n"
    "         --ctfw_suffix       _ctfw.txt         \n";

TEST(MovieCli, HelpPrintsTheOptionRows) {
  ZkTmpDir dir;
  for (const char* args : {"", "--help", "-h"}) {
    std::string out;
    EXPECT_EQ(lombar(dir.path, args, &out), 0);
    EXPECT_NE(out.find(ROWS), std::string::npos) << args << ":\n" << out;
    EXPECT_NE(out.find("--do_unfinished"), std::string::npos);
  }
}

// A small square movie that a run would weight, so that a refusal is seen to
// come before any work on it.
std::string make_movie(const ZkTmpDir& dir) {
  std::vector<float> v(32 * 32 * 4, 1.0f);
  mrcf_write_xyz_data((dir / "m.mrc").c_str(), v.data(), 32, 32, 4);
  zk_put(dir / "m_zavik.box", "4 4 16 16\n");
  zk_put(dir / "m_dose_drift.txt", "0 1 0 0\n1 2 0 0\n2 3 0 0\n3 4 0 0\n");
  return "m.mrc";
}

TEST(MovieCli, RefusalsComeBeforeAnyWork) {
  struct Case {
    const char* args;
    const char* message;
  };
  const Case cases[] = {
      {"--mw_skeme 4", "--mw_skeme 4 is no weighting scheme; use 0 \\(plain average\\), 1 \\(dose\\), 2 \\(drift\\) or 3 "
                       "\\(dose and drift\\)"},
      {"--wnorm_type 3", "--wnorm_type 3 is no norm of the weights; use 1 \\(L1, sum of \\|w\\|\\) or 2 \\(L2, square "
                         "root of the sum of w\\^2\\)"},
      {"--apix 0", "--apix must be greater than 0"},
      {"--newsize -8", "--newsize must be 0 \\(the box file's size\\) or a number of pixels"},
      {"--first 3 --last 2", "--first 3 lies after --last 2: no frames to weight"},
      {"--newsize 16 --gid", "the option --gid at the end of the command line has no value"},
  };
  for (const Case& c : cases) {
    ZkTmpDir dir;
    const std::string movie = make_movie(dir);
    std::string out;
    EXPECT_EQ(lombar(dir.path, movie + " " + c.args, &out), 1) << c.args;
    EXPECT_TRUE(zk_matches(out, std::string("^Error in function lombar_get_parameters\\(\\), file lombar_para.cpp on "
                                            "line [0-9]+: ") +
                                    c.message + "[^\n]*! Exit now!\n$"))
        << c.args << ":\n"
        << out;
    EXPECT_FALSE(zk_exists(dir / "m_wave.mrc")) << c.args;
  }
}

TEST(MovieCli, UnknownOptionListsTheWordsAndNoMoviesIsAnError) {
  ZkTmpDir dir;
  std::string out;
  EXPECT_EQ(lombar(dir.path, "m.mrc --mw_scheme 2", &out), 0);
  EXPECT_TRUE(zk_matches(out, "Failed to recognize option: --mw_scheme! Exit now.")) << out;
  EXPECT_TRUE(zk_matches(out, "All valid options:\n--apix\t --newsize\t .*--do_unfinished\t --help")) << out;
  EXPECT_EQ(lombar(dir.path, "--apix 1.0", &out), 1);
  EXPECT_TRUE(zk_matches(out, "^Error: No files to be processed.\n")) << out;
}

TEST(MovieCli, OptionsAndMoviesInAnyOrder) {
  const char* argv[] = {"lombar",     "a.mrc",         "--NE_B",      "1.7",        "-d_b",          "0.25",
                        "b.mrcs",     "--invert",      "--box_suffix", "_p.star",   "--dd_suffix",   "_dd.txt",
                        "--first",    "2",             "c.mrc",       "--ctfw_suffix", "_w.txt",      "--do_unfinished",
                        "1",          "--mw_skeme",    "1"};
  const int argc = (int)(sizeof argv / sizeof argv[0]);
  LOMBAR_PARA p;
  lombar_init_parameters(&p);
  ASSERT_EQ(lombar_get_parameters(argc, (char**)argv, &p), 3);
  EXPECT_EQ(std::string(p.movies[0]), "a.mrc");
  EXPECT_EQ(std::string(p.movies[1]), "b.mrcs");
  EXPECT_EQ(std::string(p.movies[2]), "c.mrc");
  EXPECT_FLOAT_EQ(p.gps.Ne_b, 1.7f);
  EXPECT_FLOAT_EQ(p.gps.Db, 0.25f);
  EXPECT_FLOAT_EQ(p.gps.Ne_a, 0.5f);
  EXPECT_EQ(p.gps.mw_skeme, 1);
  EXPECT_EQ(p.gps.wnorm_type, 2);
  EXPECT_EQ(p.invert, 1);
  EXPECT_EQ(p.do_unfinished, 1);
  EXPECT_EQ(p.first_opt, 2);
  EXPECT_EQ(std::string(p.suffix_a), "_p.star");
  EXPECT_EQ(std::string(p.suffix_b), "_dd.txt");
  EXPECT_EQ(std::string(p.suffix_c), "_w.txt");
}

TEST(MovieCli, FramesOfAMovie) {
  struct Case {
    int first, last, F, want_first, want_last;
  };
  const Case cases[] = {
      {0, 0, 40, 0, 39},   {-2, -5, 40, 0, 39}, {5, 0, 40, 5, 39},  {0, 12, 40, 0, 12},
      {39, 39, 40, 39, 39}, {40, 40, 40, 0, 39}, {50, 20, 40, 0, 20}, {3, 99, 16, 3, 15},
  };
  for (const Case& c : cases) {
    LOMBAR_PARA p;
    lombar_init_parameters(&p);
    p.first_opt = c.first;
    p.last_opt = c.last;
    int first = -1, last = -1;
    lombar_frames_of_movie(&p, c.F, first, last);
    EXPECT_EQ(first, c.want_first) << c.first << " " << c.last;
    EXPECT_EQ(last, c.want_last) << c.first << " " << c.last;
  }
}

}  // namespace
