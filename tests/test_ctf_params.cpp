// The CTF run's option grammar, phase-plate defaults, bounds check and echoes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctf/kesmar.h"
#include "test_util.h"

namespace {

// Owns an argv whose argv[0] is kesmar.
struct Args : ZkArgs {
  explicit Args(std::vector<std::string> w) : ZkArgs("kesmar", std::move(w)) {}
};

// A command line read and checked; out holds what the scan printed.
struct Parsed {
  Args a;
  KESMAR_A k;
  std::string out;
  explicit Parsed(std::vector<std::string> w) : a(std::move(w)) {
    testing::internal::CaptureStdout();
    k.kesmar_init_parameters(a.argc(), a.argv());
    k.kesmar_get_parameters(a.argc(), a.argv());
    out = testing::internal::GetCapturedStdout();
  }
  const KESMAR_Para& p() const { return *k.para; }
};

// A scan that is to fail, without a capture of its own.
void parse_raw(std::vector<std::string> w) {
  Args a(std::move(w));
  KESMAR_A k;
  k.kesmar_init_parameters(a.argc(), a.argv());
  k.kesmar_get_parameters(a.argc(), a.argv());
}

using Words = std::vector<std::string>;

TEST(KesmarParams, DefaultsAndPhasePlateDefaults) {
  Parsed d({"a.mrc"});
  EXPECT_EQ(d.p().boxsize, 1024);
  EXPECT_EQ(d.p().convsize, 85);
  EXPECT_EQ(d.p().defL, 5000);
  EXPECT_EQ(d.p().defH, 90000);
  EXPECT_EQ(d.p().defS, 500);
  EXPECT_EQ(d.p().resL, 50);
  EXPECT_EQ(d.p().do_phase_shift, 0);
  EXPECT_FLOAT_EQ(d.p().ctfout_resH, 2 * 1.34f + 0.1f);
  EXPECT_STREQ(d.p().ctfstar, "micrographs_all_kesmar.star");
  EXPECT_EQ(d.p().nfiles, 1);
  EXPECT_EQ(d.p().files[1], nullptr);

  // One phase-shift option turns the search on with its own defaults.
  Parsed t({"--phase_shift_T", "2", "a.mrc"});
  EXPECT_EQ(t.p().do_phase_shift, 1);
  EXPECT_EQ(t.k.ctrl.refine_ps, 1);
  EXPECT_EQ(t.p().boxsize, 512);
  EXPECT_EQ(t.p().convsize, 25);
  EXPECT_EQ(t.p().defL, 1000);
  EXPECT_EQ(t.p().defH, 30000);
  EXPECT_EQ(t.p().defS, 200);
  EXPECT_EQ(t.p().resL, 15);
  EXPECT_EQ(t.p().phase_shift_S, 3);
  EXPECT_EQ(t.p().phase_shift_T, 2);

  // Given values stay; --refine_input_ctf switches the search off again.
  Parsed r({"-PHASE_SHIFT_L", "400", "--defL", "2000", "--refine_input_ctf", "1", "a.mrc"});
  EXPECT_EQ(r.p().do_phase_shift, 0);
  EXPECT_EQ(r.k.ctrl.refine_ps, 1);
  EXPECT_EQ(r.p().defL, 2000);
  EXPECT_FLOAT_EQ(r.p().phase_shift_L, 40);
  EXPECT_EQ(r.p().phase_shift_H, 180);
}

TEST(KesmarParams, BoxAndConvolutionSizesInEitherOrder) {
  EXPECT_EQ(Parsed({"--convsize", "40", "--boxsize", "512", "a.mrc"}).p().convsize, 40);
  EXPECT_EQ(Parsed({"--boxsize", "512", "--convsize", "40", "a.mrc"}).p().convsize, 40);
  EXPECT_EQ(Parsed({"--boxsize", "512", "a.mrc"}).p().convsize, 42);
  EXPECT_FLOAT_EQ(Parsed({"--apix", "1", "--ctfout_resH", "1.5", "a.mrc"}).p().ctfout_resH, 2.1f);
  EXPECT_FLOAT_EQ(Parsed({"--apix", "1", "--ctfout_resH", "3", "a.mrc"}).p().ctfout_resH, 3.0f);
  EXPECT_STREQ(Parsed({"--ctfstar", "out/all", "a.mrc"}).p().ctfstar, "out/all.star");
  EXPECT_STREQ(Parsed({"--ctfstar", "all.star", "a.mrc"}).p().ctfstar, "all.star");
  EXPECT_STREQ(Parsed({"--ctfstar", "none", "a.mrc"}).p().ctfstar, "NULL");
  // A switch followed by a name leaves the name a micrograph.
  Parsed s({"--do_EPA", "a.mrc", "--do_unfinished", "0", "b.mrc"});
  EXPECT_EQ(s.p().do_EPA, 1);
  EXPECT_EQ(s.p().do_unfinished, 0);
  EXPECT_EQ(s.p().nfiles, 2);
}

// Each repair of the check, with its exact warning.
TEST(KesmarParams, BoundsCheckRepairsWithExactWarnings) {
  struct Case {
    Words w;
    const char* text;
  } cases[] = {
      {{"--apix", "0"},
       "Warning: Invalid pixel size 0.00! Exit now. Make sure you are using the right value, typically 0.5~3.0. Set it "
       "as default 1.34.\n"},
      {{"--kV", "600"},
       "Waring: Invalid high tension value kV=600.00. Exit now. Make sure you are using the right value, typically "
       "300, "
       "200, 120kV.\n"},
      {{"--defL", "9000", "--defH", "4000"}, "Warning: defL larger than defH, swapping them ...\n"},
      {{"--resL", "3", "--resH", "8"}, "Warning: resL smaller than resH, swapping them ...\n"},
      {{"--boxsize", "100"},
       "Waring: too small  --boxsize 100! Make sure you are using the right value, typically 512 or 1024, can't be "
       "smaller than 128(128 still fine). Set it as default 1024. \n"},
      {{"--phase_shift_T", "5"},
       "Waring: invalide --phase_shift_T 5! Make sure you are using the right value: 1 or 2. Forced to set "
       "--phase_shift_T  1\n"},
  };
  for (Case& c : cases) {
    Words w = c.w;
    w.push_back("a.mrc");
    Parsed p(w);
    EXPECT_NE(p.out.find(c.text), std::string::npos) << c.w[0] << "\n" << p.out;
  }
  Parsed res({"--apix", "2.5", "--resH", "3", "a.mrc"});
  EXPECT_FLOAT_EQ(res.p().resH, 5.0f);
  Parsed swap({"--defL", "9000", "--defH", "4000", "a.mrc"});
  EXPECT_EQ(swap.p().defL, 4000);
  EXPECT_EQ(swap.p().defH, 9000);
}

TEST(KesmarParams, FailuresOfTheCommandLine) {
  EXPECT_FAILS("\nError: No files to be processed\\.\n\n.*Usage:", parse_raw({"--apix", "1"}));
  EXPECT_FAILS("Can not get file name for ctfstar! Check input!! Exit now!", parse_raw({"a.mrc", "--ctfstar"}));
  // An unknown option lists the valid ones and ends with status 0.
  const ZkOutcome o = zk_outcome([&]() { parse_raw({"--help", "a.mrc"}); });
  EXPECT_TRUE(o.threw);
  EXPECT_EQ(o.status, 0);
  EXPECT_NE(o.text.find("Failed to recognize option: --help! Exit now. Check your input please."), std::string::npos);
  EXPECT_NE(o.text.find("All valid options:\n--apix\t --kV\t "), std::string::npos);
  EXPECT_NE(o.text.find("--gid\t --help\t \n"), std::string::npos);
}

TEST(KesmarParams, EchoLines) {
  Parsed p({"--apix", "1.07", "--kV", "200", "--boxsize", "512", "a.mrc", "b.mrc"});
  testing::internal::CaptureStdout();
  p.k.kesmar_put_parameters(p.a.argc(), p.a.argv());
  const std::string echo = testing::internal::GetCapturedStdout();
  EXPECT_EQ(
      echo.find(std::string(99, '*') + "\nUser input parameters:\n        --apix                 1.070\n"
                                       "        --kv                   200.00\n        --boxsize              512\n\n"
                                       "All parameters to be used:\nGeneral options:\n"),
      0u)
      << echo;
  EXPECT_NE(echo.find("Phase shift options: OFF\n"), std::string::npos);
  EXPECT_NE(echo.find("Input CTF parameters for refinement:\n"), std::string::npos);
  EXPECT_NE(echo.find("         --do_validation     0\n"), std::string::npos);
  EXPECT_NE(echo.find("         --do_phase_flip     0\n"), std::string::npos);
  EXPECT_NE(echo.find("All 2 files to be searched and refined:\n        a.mrc\n        b.mrc\n"), std::string::npos);
}

TEST(KesmarParams, StartingValuesFromStar) {
  ZkTmpDir dir;
  const std::string star = dir / "in.star";
  zk_put(star, "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnDefocusU #2\n_rlnDefocusV #3\n_rlnDefocusAngle #4\n"
               "_rlnPhaseShift #5\nm1.mrc 11000 12000 33 40\nshort.mrc 1 2\nm2.mrc 0 15000 10 0\n");
  Parsed p({"--input_ctfstar", star, "--refine_input_ctf", "1", "x.mrc"});
  ASSERT_EQ(p.p().nfiles, 3);
  EXPECT_EQ(p.p().nfiles_search, 1);
  EXPECT_EQ(p.p().nfiles_refine, 2);
  EXPECT_STREQ(p.p().files[1], "m1.mrc");
  EXPECT_STREQ(p.p().files[2], "m2.mrc");
  EXPECT_EQ(p.p().ctfinit[1].valid, 1);
  EXPECT_EQ(p.p().ctfinit[1].defV, 12000);
  EXPECT_EQ(p.p().ctfinit[1].ps, 40);
  EXPECT_EQ(p.p().ctfinit[1].kV, 300);   // absent column: the default
  EXPECT_EQ(p.p().ctfinit[2].valid, 0);  // defocus U of 0
  EXPECT_EQ(p.p().ps_from_star, 1);
  DEFOCUS d[4];
  EXPECT_EQ(get_all_defocus_from_ctfstar(star.c_str(), d, 4), 2);
  EXPECT_EQ(d[0].defA, 33);
}

bool ends_with(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string print_to_string(void (*f)(FILE*, void*), void* arg) {
  char* text = nullptr;
  size_t len = 0;
  FILE* mem = open_memstream(&text, &len);
  f(mem, arg);
  fclose(mem);
  std::string s(text, len);
  free(text);
  return s;
}

TEST(KesmarLines, SummaryLinesAndRefinementState) {
  const std::string line = print_to_string(
      [](FILE* fp, void*) {
        log_ctfstar_ex_oneline(fp, "a/m.mrc", "a/m.ctf", 12345.678f, 13000, 42.5f, 300, 2.7f, 0.1f, 104477.6f, 14,
                               0.25f, 3.5f);
      },
      nullptr);
  EXPECT_EQ(line,
            "a/m.mrc a/m.ctf:mrc 12345.677734 13000.000000    42.500000   300.000000     2.700000     0.100000 "
            "104477.601562    14.000000     0.250000     3.500000\n");
  const std::string ps = print_to_string(
      [](FILE* fp, void*) {
        log_ctfstar_ex_oneline_phase_shift(fp, "m.mrc", "m.ctf", 1, 2, 3, 88.25f, 300, 2.7f, 0.1f, 1, 14, 0.5f, 4);
      },
      nullptr);
  EXPECT_TRUE(ends_with(ps, " 0.500000     4.000000    88.250000\n")) << ps;
  const std::string head = print_to_string([](FILE* fp, void*) { log_ctfstar_ex_head_phase_shift(fp); }, nullptr);
  EXPECT_TRUE(ends_with(head, "_rlnCtfFigureOfMerit #11\n_rlnCtfMaxResolution #12\n_rlnPhaseShift #13\n")) << head;
  CTF_2DR_Para rp = {};
  rp.UV_ave_1 = 1;
  rp.V_refined = 2;
  const std::string state = print_to_string([](FILE* fp, void* a) { print_rp(*(CTF_2DR_Para*)a, fp); }, &rp);
  EXPECT_EQ(state.find("UV_ave_1=1.000000, UV_ave_2=0.000000,"), 0u);
  EXPECT_NE(state.find("\nfloat ccc_1=0.000000,    ccc_2="), std::string::npos);
  EXPECT_TRUE(ends_with(state, ";\nU_refined=0.000000, V_refined=2.000000\n")) << state;
}

}  // namespace
