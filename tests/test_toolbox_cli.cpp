// zktool as users run it: help, argument checks, and one run of each family
// of sub-commands compared with files of known content.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "test_util.h"
#include "toolbox/zktool.h"
#include "toolbox_files.h"
#include "volume/sym.h"

namespace {

int zktool(const std::string& args, std::string* out) {
  return zk_run(std::string(ZKTOOL_BIN) + " " + args + " </dev/null", out);
}

size_t at(int nx, int ny, int x, int y, int z) { return ((size_t)z * ny + y) * nx + x; }

}  // namespace

TEST(ToolboxCli, HelpListsEverySubCommandAndExplainsEach) {
  std::string out;
  ASSERT_EQ(zktool("help", &out), 0);
  std::string bare;
  EXPECT_EQ(zktool("", &bare), 0);
  EXPECT_EQ(bare, out);
  for (const ZkToolCommand& c : zktool_commands()) {
    EXPECT_NE(out.find("\n  " + std::string(c.name) + " "), std::string::npos) << c.name;
    std::string one;
    ASSERT_EQ(zktool(std::string("help ") + c.name, &one), 0) << c.name;
    EXPECT_EQ(one.find("usage: zktool " + std::string(c.name) + " " + c.args + "\n"), 0u) << one;
    // The example runs the sub-command it explains with a fitting count of arguments.
    const std::string ex = std::string("zktool ") + c.name + " ";
    EXPECT_EQ(std::string(c.example).find(ex), 0u) << c.example;
    EXPECT_NE(one.find("example:\n  " + std::string(c.example)), std::string::npos) << one;
    std::vector<std::string> tokens;
    std::string example = std::string(c.example).substr(ex.size()), word;
    for (char ch : example + " ")
      if (ch == ' ') {
        if (!word.empty()) tokens.push_back(word);
        word.clear();
      } else {
        word += ch;
      }
    int words = 0;
    for (size_t i = 0; i < tokens.size(); ++i) {
      if (tokens[i].rfind("--", 0) == 0) {
        ++i;  // its value
      } else {
        ++words;
      }
    }
    EXPECT_GE(words, c.min_args) << c.example;
    EXPECT_LE(words, c.max_args) << c.example;
  }
  std::string one;
  EXPECT_EQ(zktool("rotate --help", &one), 0);
  EXPECT_EQ(one.find("usage: zktool rotate IN OUT PSI\n"), 0u);
}

TEST(ToolboxCli, WrongCallsAreRefusedWithTheUsage) {
  struct Case {
    const char* args;
    const char* says;
  } cases[] = {
      {"frobnicate", "zktool: no sub-command 'frobnicate'; 'zktool help' lists them.\n"},
      {"help frobnicate", "zktool: no sub-command 'frobnicate'"},
      {"rotate a.mrc", "zktool rotate: 1 argument given, 3 wanted\nusage: zktool rotate IN OUT PSI\n"},
      {"rotate a.mrc b.mrc 3x", "zktool rotate: '3x' is not a number\n"},
      {"shrink a.mrc b.mrc 2.5", "zktool shrink: '2.5' is not a whole number\n"},
      {"rotate a.mrc b.mrc 3 --dir 1", "zktool rotate: no option --dir \\(it takes none\\)\n"},
      {"project a.mrc b.mrc 1 2 3 --seed 1", "zktool project: no option --seed \\(it takes --dir\\)\n"},
      {"project-random a.mrc b.mrcs 3 --seed", "zktool project-random: --seed wants a value\n"},
      {"project-random a.mrc b.mrcs 0", "zktool project-random: N must be at least 1\n"},
      {"disc d.mrc 8 8 4 4 2 1 --type 3", "zktool disc: --type must be 1 \\(host\\) or 2 \\(device\\)\n"},
      {"symmetry T", "Unknown symmetry 'T': only Cn and Dn are accepted"},
      {"templates m.mrc t.mrcs --sym O", "Unknown symmetry 'O'"},
  };
  for (const Case& c : cases) {
    std::string out;
    EXPECT_EQ(zktool(c.args, &out), 1) << c.args;
    EXPECT_TRUE(zk_matches(out, c.says)) << c.args << ":\n" << out;
  }
  // The oldest commands' report comes with status 1 and no wait for a key.
  std::string out;
  EXPECT_EQ(zktool("rotate /nonexistent/a.mrc b.mrc 3", &out), 1);
  EXPECT_EQ(out, "Cannot open file strike any key exit!\n");
  EXPECT_EQ(zktool("reverse /nonexistent/a.mrcs b.mrcs", &out), 1);
  EXPECT_EQ(out, "\nCannot open file strike any key exit!\n");
}

// One image command, one stack command, one made image, one map command
// and the symmetry listing, each against content known here.
TEST(ToolboxCli, EachFamilyEndToEnd) {
  ZkTmpDir dir;
  std::string out;
  // Images: a right-angle turn from +x toward +y: out(x, y) = in(y, n - 1 - x).
  const int n = 7;
  const std::vector<float> a = zk_uniform(n * n, 1);
  write_test_mrc(dir / "a.mrc", a, n, n);
  ASSERT_EQ(zktool("rotate " + (dir / "a.mrc") + " " + (dir / "r.mrc") + " 90", &out), 0) << out;
  EXPECT_EQ(out, "Begin Rotation 90.000000:\nRotation finished!\n");
  const TestMrc r = read_test_mrc(dir / "r.mrc");
  for (int y = 1; y < n - 1; ++y)
    for (int x = 1; x < n - 1; ++x) EXPECT_NEAR(r.v[y * n + x], a[(n - 1 - x) * n + y], 1e-5) << x << "," << y;

  // Stacks: reversed.
  const std::vector<float> s = zk_uniform(4 * 4 * 3, 2);
  write_test_mrc(dir / "s.mrcs", s, 4, 4, 3);
  ASSERT_EQ(zktool("reverse " + (dir / "s.mrcs") + " " + (dir / "rev.mrcs"), &out), 0) << out;
  const TestMrc rev = read_test_mrc(dir / "rev.mrcs");
  ASSERT_EQ(rev.nz(), 3);
  EXPECT_EQ(std::vector<float>(rev.v.begin(), rev.v.begin() + 16), std::vector<float>(s.begin() + 32, s.end()));

  // Making: a mask that is 1 inside r and 0 beyond r + soft.
  ASSERT_EQ(zktool("mask " + (dir / "m.mrc") + " 16 12 7.5 5.5 3 2", &out), 0) << out;
  const TestMrc m = read_test_mrc(dir / "m.mrc");
  ASSERT_EQ(m.nx(), 16);
  EXPECT_EQ(m.v[5 * 16 + 7], 1.0f);
  EXPECT_EQ(m.v[0], 0.0f);

  // Maps: an index volume, projected at zero angles, sums each column.
  ASSERT_EQ(zktool("index-volume " + (dir / "idx.mrc") + " 4 3 5 --type 2", &out), 0) << out;
  ASSERT_EQ(zktool("project " + (dir / "idx.mrc") + " " + (dir / "p.mrc") + " 0 0 0", &out), 0) << out;
  const TestMrc p = read_test_mrc(dir / "p.mrc");
  ASSERT_EQ(p.nz(), 1);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) {
      double want = 0;
      for (int z = 0; z < 5; ++z) want += (double)at(4, 3, x, y, z);
      EXPECT_EQ(p.v[y * 4 + x], (float)want);
    }
  // A random stack from a seed, and the map's section files.
  ASSERT_EQ(zktool("test-map " + (dir / "lobes.mrc") + " --box 16 --apix 20", &out), 0) << out;
  ASSERT_EQ(zktool("project-random " + (dir / "lobes.mrc") + " " + (dir / "v.mrcs") + " 4 --seed 3 --rec " +
                       (dir / "rec.mrc"),
                   &out),
            0)
      << out;
  EXPECT_EQ(read_test_mrc(dir / "v.mrcs").nz(), 4);
  EXPECT_EQ(read_test_mrc(dir / "rec.mrc").nz(), 16);
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n') >= 4, true);
  ASSERT_EQ(zktool("templates " + (dir / "lobes.mrc") + " " + (dir / "t.mrcs") + " --step 45 --sym D2", &out), 0)
      << out;
  const TestMrc t = read_test_mrc(dir / "t.mrcs");
  EXPECT_EQ((size_t)t.nz(), asym_unit_orientations("D2", 45).size());
  EXPECT_FLOAT_EQ(mrc_head_apix(&t.head), 20.0f);

  // Symmetry: C4 lists four matrices, the second the quarter turn about z.
  ASSERT_EQ(zktool("symmetry c4", &out), 0) << out;
  EXPECT_EQ(out.find("4 operators of c4:\n"), 0u) << out;
  EXPECT_NE(out.find("     0.00000000     1.00000000     0.00000000\n"
                     "    -1.00000000     0.00000000     0.00000000\n"
                     "     0.00000000     0.00000000     1.00000000\n"),
            std::string::npos)
      << out;

  // Sums: 1 + 2 + ... + 60 in every order.
  std::vector<float> ramp(60);
  for (int i = 0; i < 60; ++i) ramp[i] = (float)(i + 1);
  write_test_mrc(dir / "ramp.mrc", ramp, 6, 10);
  ASSERT_EQ(zktool("sum " + (dir / "ramp.mrc"), &out), 0) << out;
  EXPECT_EQ(out,
            "samples            60\npairwise tree      1830\nhalving order      1830\ngrid-stride order  1830\n"
            "double, in order   1830\n");
}
