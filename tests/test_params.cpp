#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "driver/zavik_para.h"
#include "test_util.h"

namespace {

// Owns an argv whose argv[0] is zavik.
struct Args : ZkArgs {
  explicit Args(std::vector<std::string> w) : ZkArgs("zavik", std::move(w)) {}
};

// A command line parsed into a record; out holds what the scan printed.
struct Parsed {
  Args a;
  Zavik_Para p;
  std::string out;
  explicit Parsed(std::vector<std::string> w) : a(std::move(w)) {
    testing::internal::CaptureStdout();
    zavik_init_parameters(a.argc(), &p);
    zavik_get_parameters(a.argc(), a.argv(), &p);
    out = testing::internal::GetCapturedStdout();
  }
  ~Parsed() { zavik_free_parameters(&p); }
  std::string echo() {
    testing::internal::CaptureStdout();
    zavik_fput_parameters(a.argc(), a.argv(), &p, stdout);
    return testing::internal::GetCapturedStdout();
  }
};

// A scan that is to fail; the record is released whatever happens.
void parse_raw(std::vector<std::string> w) {
  Args a(std::move(w));
  Zavik_Para p;
  zavik_init_parameters(a.argc(), &p);
  struct Release {
    Zavik_Para* p;
    ~Release() { zavik_free_parameters(p); }
  } release{&p};
  zavik_get_parameters(a.argc(), a.argv(), &p);
}

// The scan ends the run with the status code and a report matching regex.
#define EXPECT_PARSE_EXIT(words, code, regex)                      \
  do {                                                             \
    const ZkOutcome o_ = zk_outcome([&]() { parse_raw(words); });  \
    EXPECT_TRUE(o_.threw) << o_.text;                              \
    EXPECT_EQ(o_.status, code);                                    \
    EXPECT_TRUE(zk_matches(o_.text, regex)) << o_.text;            \
  } while (0)

using Words = std::vector<std::string>;

const char* W_DIAMETER =
    "Waring: You have not set the parameter '--diameter',  the default value 400Å will be used.\n";
const char* W_T =
    "Waring: You have not set the parameter '--T',  the automatically generated Gaussian template will be used. "
    "This is fine for 'spherical particles' like virus or ribosome. Do use templates for non-spherical "
    "particles.\n";
const char* W_APIXM =
    "Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be 1.34Å by "
    "default.\n";
const char* W_APIXT =
    "Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be the same as "
    "micrographs by default.\n";

}  // namespace

// The defaults that neither the echo nor the derived values below show; the
// derived ones follow from the default diameter by the formulas checked there.
TEST(Params, Defaults) {
  Parsed r({"mic.mrc"});
  const Zavik_Para& p = r.p;
  EXPECT_STREQ(p.global_excluded_box, "NULL");
  EXPECT_FLOAT_EQ(p.diameter, 400.0f);
  EXPECT_EQ(p.update_T, 0);
  EXPECT_FLOAT_EQ(p.center1_ratio, 0.05f);
  EXPECT_EQ(p.do_local_ctf, 0);
  EXPECT_FLOAT_EQ(p.kV, 300.0f);
  EXPECT_FLOAT_EQ(p.local_soft_edge, 8.0f);
  EXPECT_FLOAT_EQ(p.psi_start, 0.0f);
  EXPECT_FLOAT_EQ(p.psi_end, 359.0f);
  ASSERT_EQ(p.n_files, 1);
  EXPECT_STREQ(p.files[0], "mic.mrc");
}

TEST(Params, DerivedDefaultsUseTheFinalValuesWhereverTheyStand) {
  // The micrograph and options mixed; diameter and apixM after everything else.
  Parsed r({"a.mrc", "--speed", "1", "b.mrc", "--diameter", "100", "--apixM", "2.0", "--diameter", "200"});
  const Zavik_Para& p = r.p;
  EXPECT_EQ(p.n_files, 2);
  EXPECT_FLOAT_EQ(p.diameter, 200.0f);  // repeats override
  EXPECT_EQ(p.shrink, 2);
  EXPECT_FLOAT_EQ(p.min_dist, 160.0f);
  EXPECT_FLOAT_EQ(p.lsigma_D, 200.0f);
  EXPECT_FLOAT_EQ(p.lave_D, 260.0f);
  EXPECT_FLOAT_EQ(p.apixT, 2.0f);
  EXPECT_NEAR(p.min_dist_px, 40.0, 1e-5);        // 160 / (2 * 2)
  EXPECT_NEAR(p.T_radius, 1.3 * 200 / 8.0, 1e-5);  // 32.5
  EXPECT_NEAR(p.lsigma_R, 25.0, 1e-5);
  EXPECT_NEAR(p.lave_R, 32.5, 1e-5);

  // Given values replace the derived ones.
  Parsed g({"--min_dist", "100", "--lsigma_D", "50", "--lave_D", "60", "--diameter", "500", "m.mrc"});
  EXPECT_FLOAT_EQ(g.p.min_dist, 100.0f);
  EXPECT_FLOAT_EQ(g.p.lsigma_D, 50.0f);
  EXPECT_FLOAT_EQ(g.p.lave_D, 60.0f);
}

TEST(Params, BoxSizeAndGridCell) {
  struct Case {
    Words words;
    int boxsize, cell;
  };
  const Case cases[] = {
      {{"m.mrc"}, 396, 42},                                      // trunc(532 / 1.34) = 397, made even downward
      // 300 * 1.33 / 1.33f is just below 300 in double precision (1.33f >
      // 1.33): 299 made even; a float quotient would round to 300.
      {{"--diameter", "300", "--apixM", "1.33", "m.mrc"}, 298, 31},
      {{"--boxsize", "77", "m.mrc"}, 77, 42},  // a given box is kept, odd or not
      // 8 A at speed 2: 8 * 1.41421354 / (2 * 4 * 1.34) = 1.055, one pixel.
      {{"--min_dist", "8", "m.mrc"}, 396, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words[0] + " " + (c.words.size() > 1 ? c.words[1] : ""));
    Parsed r(c.words);
    EXPECT_EQ(r.p.boxsize, c.boxsize);
    EXPECT_EQ(zavik_grid_cell(&r.p), c.cell);
  }
}

TEST(Params, SpeedLevelsMapToShrinkFactors) {
  const int expect[5] = {1, 2, 4, 6, 8};
  for (int s = 0; s < 5; ++s) {
    int speed = s, shrink = -1;
    zavik_speed2shrink(speed, shrink);
    EXPECT_EQ(shrink, expect[s]) << "speed " << s;
  }
}

TEST(Params, SwitchesReadTheirValueOnlyFromDigitWords) {
  {
    Parsed r({"--do_pre_filter", "mic.mrc"});  // a letter: switch on, the name stays
    EXPECT_EQ(r.p.do_pre_filter, 1);
    ASSERT_EQ(r.p.n_files, 1);
    EXPECT_STREQ(r.p.files[0], "mic.mrc");
  }
  {
    Parsed r({"--do_pre_filter", "./mic.mrc", "--write_star", "1.mrc", "x.mrc"});  // consumed as values
    EXPECT_EQ(r.p.do_pre_filter, 0);
    EXPECT_EQ(r.p.write_star, 1);
    ASSERT_EQ(r.p.n_files, 1);
    EXPECT_STREQ(r.p.files[0], "x.mrc");
  }
  {
    Parsed r({"--detect_ice", "0", "--do_bandpass", "0", "mic.mrc", "--extract_raw"});  // last word: on
    EXPECT_EQ(r.p.detect_ice, 0);
    EXPECT_EQ(r.p.do_bandpass, 0);
    EXPECT_EQ(r.p.extract_raw, 1);
    EXPECT_EQ(r.p.n_files, 1);
  }
  // '-': on, and the word stays... and fails.
  EXPECT_PARSE_EXIT((Words{"--write_ccmax_mic", "--mask_excluded", "-5", "m.mrc"}), 0,
                    "Failed to recognize option: .*-5!");
}

TEST(Params, ValueOptionsTakeTheNextWordUnconditionally) {
  Parsed r({"--lave_min", "-0.8", "--T_norm_type", "7", "--apixT", " 2.5e0", "m.mrc"});
  EXPECT_FLOAT_EQ(r.p.lave_min, -0.8f);
  EXPECT_EQ(r.p.T_norm_type, 7);  // not refused
  EXPECT_FLOAT_EQ(r.p.apixT, 2.5f);
}

TEST(Params, WarningsInTheirOrderForWhatWasNotGiven) {
  {
    Parsed r({"m.mrc"});
    EXPECT_EQ(r.out, std::string(W_DIAMETER) + W_T + W_APIXM + W_APIXT);
  }
  {
    // apixT given, apixM not: templates keep their own pixel size.
    Parsed r({"--apixT", "2.5", "--diameter", "180", "m.mrc"});
    EXPECT_EQ(r.out, std::string(W_T) + W_APIXM);
    EXPECT_FLOAT_EQ(r.p.apixT, 2.5f);
    EXPECT_FLOAT_EQ(r.p.apixM, 1.34f);
  }
  {
    Parsed r({"--apixM", "0.9", "--T", "t.mrcs", "m.mrc"});
    EXPECT_EQ(r.out, std::string(W_DIAMETER) + W_APIXT);
    EXPECT_FLOAT_EQ(r.p.apixT, 0.9f);  // apixT follows apixM
  }
  {
    // "none" keeps the generated template and counts as set: no warning.
    Parsed r({"--T", "none", "m.mrc"});
    EXPECT_EQ(r.p.auto_T, 1);
    EXPECT_EQ(r.out.find("'--T'"), std::string::npos);
  }
}

TEST(Params, EchoOfAFullCommandLine) {
  Parsed r({"--apixM", "1.06", "--lp", "20", "--detect_ice", "0", "--global_excluded_box", "gg.box", "--KV", "200",
            "--do_local_ctf", "a.mrc", "-diameter", "180.5", "b.mrc"});
  const std::string expected =
      "***************************************************************************************************\n"
      "User input parameters:\n"
      "       --apixM              1.060\n"
      "       --lp                 20.000\n"
      "       --detect_ice         0\n"
      "       --global_excluded_box    gg.box\n"
      "       --kV                 200.00\n"
      "       --local_ctf          1\n"
      "       --diameter           180.50\n"
      "\n"
      "All parameters to be used:\n"
      "Basic options:  \n"
      "       --T                    NULL\n"
      "       --apixM                1.060\n"
      "       --diameter             180.50\n"
      "       --apixT                1.060\n"
      "Additional options:  \n"
      "       --ang_step             5.00\n"
      "       --speed                2\n"
      "       --boxsize              226\n"
      "       --min_dist             144.40\n"
      "       --cc_cutoff            0.150\n"
      "       --lsigma_cutoff        1.300\n"
      "       --lsigma_D             190.250\n"
      "       --lave_min             -1.000\n"
      "       --lave_max             1.000\n"
      "       --lave_D               254.150\n"
      "       --dont_invertT         0\n"
      "       --lp                   20.00\n"
      "       --hp                   1000.00\n"
      "       --do_pre_filter        0\n"
      "       --pre_lp               8.00\n"
      "       --pre_hp               1000.00\n"
      "       --detect_ice           0\n"
      "       --T_norm_type          1\n"
      "       --do_bandpass          1\n"
      "CTF options: \n"
      "       --do_ctf               0\n"
      "       --local_ctf            1\n"
      "       --kV                   200.00\n"
      "       --cs                   2.70\n"
      "       --ac                   0.10\n"
      "I/O options:  \n"
      "       --write_ccmax_mic      0\n"
      "       --write_pf_mic         0\n"
      "       --write_pref_mic       0\n"
      "       --write_bg_mic         0\n"
      "       --write_bgfree_mic     0\n"
      "       --write_lsigma_mic     0\n"
      "       --write_mic_mask       0\n"
      "       --write_star           1\n"
      "       --do_unfinished        0\n"
      "       --write_rejected_box   1\n"
      "       --exclusive_picking    0\n"
      "       --excluded_suffix      NULL\n"
      "       --mask_excluded        0\n"
      "       --global_excluded_box  gg.box\n"
      "       --extract_raw          0\n"
      "       --extract_pf           0\n"
      "       --gid                  0\n"
      "\n"
      "\n"
      "All 2 files to be used:\n"
      "        a.mrc\n"
      "        b.mrc\n";
  EXPECT_EQ(r.echo(), expected);
}

// The automatic cutoff and the filling of rejected areas: values of their
// own, echoed as given; without them the echo keeps its classic rows.
TEST(Params, AutomaticCutoffAndFillRejected) {
  Parsed r({"--cc_cutoff", "AUTO", "--fill_rejected", "m.mrc"});
  EXPECT_EQ(r.p.cc_auto, 1);
  EXPECT_EQ(r.p.fill_rejected, 1);
  EXPECT_FLOAT_EQ(r.p.cc_cutoff, 0.15f);
  const std::string all = r.echo();
  EXPECT_NE(all.find("User input parameters:\n       --cc_cutoff          auto\n       --fill_rejected      1\n"),
            std::string::npos)
      << all;
  EXPECT_NE(all.find("       --cc_cutoff            auto\n"), std::string::npos) << all;
  EXPECT_NE(all.find("       --do_bandpass          1\n       --fill_rejected        1\nCTF options:"),
            std::string::npos)
      << all;
  // A number after "auto" takes the cutoff back.
  Parsed n({"--cc_cutoff", "auto", "--cc_cutoff", "0.3", "m.mrc"});
  EXPECT_EQ(n.p.cc_auto, 0);
  EXPECT_FLOAT_EQ(n.p.cc_cutoff, 0.3f);
  EXPECT_EQ(n.echo().find("fill_rejected"), std::string::npos);
}

TEST(Params, FailuresOfTheScan) {
  struct Case {
    Words words;
    int status;
    const char* regex;
  };
  const Case cases[] = {
      {{"--speed", "9", "m.mrc"}, 1,
       "Error in function zavik_speed2shrink\\(\\), file zavik_para.cpp on line [0-9]+: speed level must belong "
       "to \\{0,1,2,3,4\\}! Exit now!"},
      {{"m.mrc", "--min_dist"}, 1,
       "Error in function zavik_get_parameters\\(\\), file zavik_para.cpp on line [0-9]+: the option --min_dist "
       "at the end of the command line has no value! Exit now!"},
      {{"--ang_step", "0", "m.mrc"}, 1, "--ang_step must be greater than 0! Exit now!"},
      {{"--diameter", "-100", "m.mrc"}, 1, "--diameter must be greater than 0"},
      {{"--apixM", "0", "m.mrc"}, 1, "--apixM must be greater than 0"},
      // A value that is no number in full, or outside its range, is refused before any work.
      {{"--apixM", "1,34", "m.mrc"}, 1,
       "Error in function zavik_get_parameters\\(\\), file zavik_para.cpp on line [0-9]+: --apixM takes a number, "
       "not '1,34'! Exit now!"},
      {{"--apixM", "nan", "m.mrc"}, 1, "--apixM takes a number, not 'nan'"},
      {{"--lp", "--hp", "m.mrc"}, 1, "--lp takes a number, not '--hp'"},
      {{"--speed", "abc", "m.mrc"}, 1, "--speed takes a whole number, not 'abc'"},
      {{"--boxsize", "2.5", "m.mrc"}, 1, "--boxsize takes a whole number, not '2.5'"},
      {{"--boxsize", "-5", "m.mrc"}, 1, "--boxsize must be greater than 0 and at most 1e\\+06, not -5! Exit now!"},
      {{"--lp", "0", "m.mrc"}, 1, "--lp must be greater than 0"},
      {{"--ac", "1.5", "m.mrc"}, 1, "--ac must lie between 0 and 1, not 1.5"},
      {{"--gid", "-1", "m.mrc"}, 1, "--gid must lie between 0 and 1e\\+06, not -1"},
      {{"--cc_cutoff", "automatic", "m.mrc"}, 1, "--cc_cutoff takes a number, not 'automatic'"},
      {{"--min_dist", "7", "m.mrc"}, 1, "--min_dist 7.00 gives a grid cell of less than one pixel at speed 2"},
      {{"--detect_ice", "0"}, 1, "Usage:(.|\n)*No valid files to be processed.! Exit now!"},
      {{"m.mrc", "--bogus", "3"}, 0,
       "\x1b\\[41m\x1b\\[1m\x1b\\[5mCRITICAL ERROR:\x1b\\[min function zavik_get_parameters\\(\\), file "
       "zavik_para.cpp on line [0-9]+. Failed to recognize option: \x1b\\[41m\x1b\\[1m\x1b\\[5m--bogus!\x1b\\[m "
       "Exit now. Check your input please.\n\n-{130}\nAll valid options:\n--apixM\t --T\t "},
      {{"--write_rejected_box", "m.mrc"}, 0, "Failed to recognize option: .*--write_rejected_box!"},
      {{"m.mrc", "--help"}, 0, "Failed to recognize option: .*--help!"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words[0] + " " + c.words[1]);
    EXPECT_PARSE_EXIT(c.words, c.status, c.regex);
  }
}

// Names fill buffers of 1024 bytes: 1023 fit, more end the run.
TEST(Params, NamesAndOutputNamesMustFitTheirBuffers) {
  {
    Parsed r({"--excluded_suffix", std::string(1023, 's'), "--T", std::string(1023, 't'), "m.mrc"});
    EXPECT_EQ(strlen(r.p.excluded_suffix), 1023u);
    EXPECT_EQ(strlen(r.p.T), 1023u);
  }
  for (const char* k : {"T", "excluded_suffix", "global_excluded_box"}) {
    EXPECT_PARSE_EXIT((Words{std::string("--") + k, std::string(1024, 'b'), "m.mrc"}), 1,
                      std::string("zavik_get_parameters\\(\\), file zavik_para.cpp on line [0-9]+: the name given "
                                  "to --") + k + " is 1024 bytes long, the limit is 1023 bytes! Exit now!");
  }
  EXPECT_PARSE_EXIT((Words{"m.mrc", std::string(1100, 'c') + ".mrc"}), 1,
                    "a micrograph name is 1104 bytes long, the limit is 1023 bytes! Exit now!");

  // A stem of 1009 bytes + "_nonunique.box" = 1023 bytes: fits; one more does not.
  EXPECT_EQ(Parsed({std::string(1009, 'd') + ".mrc"}).p.n_files, 1);
  EXPECT_PARSE_EXIT((Words{"m.mrc", std::string(1010, 'd') + ".mrc"}), 1,
                    "zavik_get_parameters\\(\\), file zavik_para.cpp on line [0-9]+: an output name of micrograph 2 "
                    "would be 1024 bytes long, the limit is 1023 bytes! Exit now!");
  // The exclusion suffix counts only when exclusion files are read.
  EXPECT_EQ(Parsed({"--excluded_suffix", std::string(100, 'x'), std::string(930, 'e') + ".mrc"}).p.n_files, 1);
  EXPECT_PARSE_EXIT(
      (Words{"--exclusive_picking", "--excluded_suffix", std::string(100, 'x'), std::string(930, 'e') + ".mrc"}), 1,
      "an output name of micrograph 1 would be 1030 bytes long");
}
