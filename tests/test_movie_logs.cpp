// The dose/drift, drift and CTF weight logs: exact behaviour on good,
// short, malformed and out-of-step files.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "movie/pre_shiny6_logs.h"
#include "test_util.h"

namespace {

const std::string W = "Warning in function ";
const std::string DD_LINES =
    "get_dose_smoothed_drift_from_txt\\(\\), file pre_shiny6_logs.cpp on line [0-9]+: Can not get lines from "
    "dose/drift log file. Check file format or parameters. Or have you modified the log file\\?!\n$";
const std::string DD_PARAMS =
    "get_dose_smoothed_drift_from_txt\\(\\), file pre_shiny6_logs.cpp on line [0-9]+: Can not get dose/drift "
    "parameters from log file. Check file format or parameters. Or have you modified the log file\\?!\n$";

struct DdCase {
  const char* what;
  const char* text;
  int result;
  std::vector<float> dose;  // the entries read
  std::string printed;      // regex of the output, empty for none
};

TEST(MovieLogs, DoseDriftReader) {
  const DdCase cases[] = {
      {"plain", "0 1.0 0.5 -0.5\n1 2.0 0.25 0.75\n2 3 0 0\n", 0, {1, 2, 3}, ""},
      {"short lines passed over", "\n0 1 2 3\nfoo bar\n# x y\n1 2 3 4\n\t\n2 3 4 5 6 7\n", 0, {1, 2, 3}, ""},
      {"every delimiter, CRLF", "#0 1.5 2.5 3.5\r\n1,2,3,4\r\n2;3:4\t5\r\n", 0, {1.5f, 2, 3}, ""},
      {"the rest of the file is not read", "0 1 1 1\n1 2 2 2\n2 3 3 3\nbad\n7 7 7 7\n", 0, {1, 2, 3}, ""},
      {"a commented head counts as frame 0", "# frame dose dx dy\n0 1 1 1\n1 2 2 2\n2 3 3 3\n", -1, {0}, W + DD_PARAMS},
      {"ends early", "0 1 1 1\n1 2 2 2\n", -1, {1, 2}, W + DD_LINES},
      {"empty file", "", -1, {}, W + DD_LINES},
      {"out of step", "0 1 1 1\n2 2 2 2\n1 3 3 3\n", -1, {1}, W + DD_PARAMS},
  };
  ZkTmpDir dir;
  for (const DdCase& c : cases) {
    zk_put(dir / "dd.txt", c.text);
    std::vector<float> dose(3, -9.0f);
    std::vector<float2> drift(3, make_f2(-9, -9));
    int r = 0;
    const ZkOutcome o = zk_outcome([&]() {
      r = get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, (dir / "dd.txt").c_str());
    });
    EXPECT_FALSE(o.threw) << c.what;
    EXPECT_EQ(r, c.result) << c.what;
    for (size_t i = 0; i < c.dose.size(); ++i) EXPECT_EQ(dose[i], c.dose[i]) << c.what << " " << i;
    for (size_t i = c.dose.size(); i < 3; ++i) EXPECT_EQ(dose[i], -9.0f) << c.what << " " << i;
    if (c.printed.empty())
      EXPECT_EQ(o.text, "") << c.what;
    else
      EXPECT_TRUE(zk_matches(o.text, "^" + c.printed)) << c.what << ":\n" << o.text;
  }
  // The drift values of the plain and the delimiter cases.
  zk_put(dir / "dd.txt", "#0 1.5 2.5 3.5\r\n1,2,-3,4\r\n2;3:4\t5\r\n");
  std::vector<float> dose(3);
  std::vector<float2> drift(3);
  ASSERT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, (dir / "dd.txt").c_str()), 0);
  EXPECT_EQ(drift[0].x, 2.5f);
  EXPECT_EQ(drift[0].y, 3.5f);
  EXPECT_EQ(drift[1].x, -3.0f);
  EXPECT_EQ(drift[2].y, 5.0f);
}

TEST(MovieLogs, TooFewFramesAndMissingFilesAreFatal) {
  ZkTmpDir dir;
  zk_put(dir / "dd.txt", "0 1 1 1\n1 2 2 2\n");
  std::vector<float> dose(3);
  std::vector<float2> drift(3);
  EXPECT_FAILS("Error in function get_dose_smoothed_drift_from_txt\\(\\), file pre_shiny6_logs.cpp on line [0-9]+: "
               "Critical ERROR! Too few Movie frames!! Exit now!\n$",
               get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 2, (dir / "dd.txt").c_str()));
  EXPECT_FAILS("Error in function get_drift_from_txt\\(\\), .*Critical ERROR! Too few Movie frames!! Exit now!",
               get_drift_from_txt(drift.data(), 2, (dir / "dd.txt").c_str()));
  const std::string missing = dir / "none.txt";
  EXPECT_FAILS("^Cannot open file " + missing +
                   ". Permission denied or wrong file name.\nError in function get_ctfw_from_txt\\(\\), .*open file "
                   "failed.! Exit now!\n$",
               get_ctfw_from_txt(dose.data(), 3, missing.c_str()));
  EXPECT_FAILS("^Cannot open file .*Error in function get_dose_smoothed_drift_from_txt",
               get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, missing.c_str()));
}

TEST(MovieLogs, DriftReaderEchoesLinesAndPassesShortOnesOver) {
  ZkTmpDir dir;
  zk_put(dir / "d.txt", "0 0.5 -1\nnote\n1:2:3\n2 4 5\n");
  std::vector<float2> drift(3);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_drift_from_txt(drift.data(), 3, (dir / "d.txt").c_str()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "....i = 0, str_line_split[0]= 0  0 0.5 -1 \n..ffffff.. 0 0 \n"
            "....i = 1, str_line_split[0]= 1  1:2:3 \n..ffffff.. 1 1 \n"
            "....i = 2, str_line_split[0]= 2  2 4 5 \n..ffffff.. 2 2 \n");
  EXPECT_EQ(drift[0].y, -1.0f);
  EXPECT_EQ(drift[1].x, 2.0f);
  EXPECT_EQ(drift[2].y, 5.0f);

  zk_put(dir / "d.txt", "0 0 0\n5 1 1\n");
  const ZkOutcome o = zk_outcome([&]() { EXPECT_EQ(get_drift_from_txt(drift.data(), 3, (dir / "d.txt").c_str()), -1); });
  EXPECT_TRUE(zk_matches(o.text, "\\.\\.\\.\\.i = 1, str_line_split\\[0\\]= 5  5 1 1 \nWarning in function "
                                 "get_drift_from_txt\\(\\), .*: Can not get drift parameters from log file. Check "
                                 "file format or parameters. Or have you modified the log file\\?\n!\n$"))
      << o.text;
  zk_put(dir / "d.txt", "0 0 0\n1 1 1\n");
  const ZkOutcome e = zk_outcome([&]() { EXPECT_EQ(get_drift_from_txt(drift.data(), 3, (dir / "d.txt").c_str()), -1); });
  EXPECT_TRUE(zk_matches(e.text, "Can not get lines from drift log file. Check file format or parameters. Or have you "
                                 "modified the log file\\?\n!\n$"))
      << e.text;
}

TEST(MovieLogs, CtfWeightReader) {
  struct Case {
    const char* what;
    const char* text;
    int result;
    std::vector<float> ctfw;
    std::string printed;
  };
  const std::string FORMAT = W + "get_ctfw_from_txt\\(\\), .*: CTFw text line format error!!\n";
  const Case cases[] = {
      {"plain", "0 0.0 1\n1 0.1 0.5\n2 0.2 0.25\n3 0.3 0\n", 0, {1, 0.5f, 0.25f, 0}, ""},
      {"a short line is warned about and passed over", "0 0 1\n1 0.1\n1 0.1 0.5\n2 0 2\n3 0 3\n", 0, {1, 0.5f, 2, 3},
       FORMAT},
      {"ends early: what was read stays, the rest is 0", "0 0 1\n1 0 0.5\n", -1, {1, 0.5f, 0, 0},
       W + "get_ctfw_from_txt\\(\\), .*: Can not get lines from CTF_W log file. Check file format or parameters. Or "
           "have you modified the log file\\?!\n"},
      {"out of step", "0 0 1\n2 0 0.5\n", -1, {1, 0, 0, 0},
       W + "get_ctfw_from_txt\\(\\), .*: Can not get CTF_W parameters from log file. Check file format or parameters. "
           "Or have you modified the log file\\?!\n"},
  };
  ZkTmpDir dir;
  for (const Case& c : cases) {
    zk_put(dir / "w.txt", c.text);
    std::vector<float> ctfw(4, -9.0f);
    int r = 0;
    const ZkOutcome o = zk_outcome([&]() { r = get_ctfw_from_txt(ctfw.data(), 4, (dir / "w.txt").c_str()); });
    EXPECT_EQ(r, c.result) << c.what;
    EXPECT_EQ(ctfw, c.ctfw) << c.what;
    if (c.printed.empty())
      EXPECT_EQ(o.text, "") << c.what;
    else
      EXPECT_TRUE(zk_matches(o.text, "^" + c.printed + "$")) << c.what << ":\n" << o.text;
  }
}

}  // namespace
