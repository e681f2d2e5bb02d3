#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "driver/zavik_help.h"
#include "test_util.h"

namespace {

std::vector<std::string> lines_of(const std::string& s) {
  std::vector<std::string> out;
  std::stringstream ss(s);
  std::string l;
  while (std::getline(ss, l)) out.push_back(l);
  return out;
}

std::string help_text() { return zk_stdout([] { zavik_help("prog"); }); }

const std::string STARS(99, '*');

}  // namespace

// Six blanks, the option, the default from column 23 (none for a switch), the
// description from column 37; at least one blank where an option runs long.
static std::string row_head(const std::string& opt, const std::string& def) {
  std::string r = "      " + opt;
  if (!def.empty()) r += std::string(r.size() < 23 ? 23 - r.size() : 1, ' ') + def;
  return r + std::string(r.size() < 37 ? 37 - r.size() : 1, ' ');
}

TEST(Help, BannerUsageAndOptionRowsInTheirGroupsAndColumns) {
  std::vector<std::string> l = lines_of(help_text());
  ASSERT_GT(l.size(), 12u);
  EXPECT_EQ(l[2].rfind("Author:        ", 0) + l[3].rfind("Contact:       ", 0), 0u);
  const std::vector<std::string> banner = {
      STARS, "Version:       prog v0.56, updated on 2017-07-30", l[2], l[3],
      "Description:   This is a GPU accelerated program for fully automatic particle picking.",
      "Note:          Still under development, to be released soon ...", STARS, "Usage:",
      "         prog [options] <micrographs>  ", "", "Options:"};
  EXPECT_EQ(std::vector<std::string>(l.begin(), l.begin() + 11), banner);
  EXPECT_EQ(l.back(), "      --help                         Print full help document");
  using Rows = std::vector<std::pair<std::string, std::string>>;
  const std::vector<std::pair<std::string, Rows>> groups = {
      {"Basic options:    default values,    description:  ",
       {{"--apixM", "1.34"}, {"--diameter", "400"}, {"--T", "NULL"}, {"--apixT", "1.34"}}},
      {"Additional options(not suggested, only try to optimize in difficult cases), default values and "
       "description:  ",
       {{"--ang_step", "5"}, {"--speed", "2"}, {"--boxsize", "128"}, {"--min_dist", "300"},
        {"--cc_cutoff", "0.1"}, {"--lsigma_D", "200"}, {"--lsigma_cutoff", "1.3"}, {"--lave_D", "400"},
        {"--lave_max", "2.0"}, {"--lave_min", "-1.0"}, {"--lp", "30"}, {"--hp", "1000"},
        {"--do_pre_filter", ""}, {"--pre_lp", "8"}, {"--pre_hp", "1000"}, {"--detect_ice", ""},
        {"--T_norm_type", "1"}, {"--do_bandpass", ""}, {"--fill_rejected", ""}}},
      {"CTF options(not effective in this verion): ",
       {{"--do_ctf", ""}, {"--do_local_ctf", ""}, {"--kV", "300"}, {"--cs", "2.7"}, {"--ac", "0.1"}}},
      {"I/O options:  ",
       {{"--write_ccmax_mic", ""}, {"--write_pf_mic", ""}, {"--write_pref_mic", ""}, {"--write_bg_mic", ""},
        {"--write_bgfree_mic", ""}, {"--write_lsigma_mic", ""}, {"--write_mic_mask", ""},
        {"--exclusive_picking", ""}, {"--excluded_suffix", "NULL"}, {"--mask_excluded", ""},
        {"--global_excluded_box", "NULL"}, {"--do_unfinished", ""}, {"--dont_invertT", ""},
        {"--extract_raw", ""}, {"--extract_pf", ""}, {"--gid", "0"}, {"--png", "0"}, {"--summary", "NULL"}}}};
  size_t at = 0;
  for (const auto& g : groups) {
    while (at < l.size() && l[at] != g.first) ++at;
    ASSERT_LT(at, l.size()) << g.first;
    for (const auto& r : g.second) {
      const std::string& row = l[++at];
      std::string head = row_head(r.first, r.second);
      EXPECT_EQ(row.substr(0, head.size()), head) << row;
      ASSERT_GT(row.size(), head.size()) << row;
      EXPECT_NE(row[head.size()], ' ') << row;  // the description follows at once
    }
  }
  // Five example lines, each showing the program, before the last line.
  for (size_t i = l.size() - 6; i + 1 < l.size(); ++i) EXPECT_NE(l[i].find("prog --apixM"), std::string::npos) << l[i];
}

TEST(Help, ValidOptionsList) {
  EXPECT_EQ(ZAVIK_N_OPTIONS, 38);
  const std::string expected =
      std::string(130, '-') + "\nAll valid options:\n" +
      "--apixM\t --T\t --diameter\t --ang_step\t --speed\t --boxsize\t --min_dist\t --cc_cutoff\t "
      "--lsigma_cutoff\t --lave_max\t --lave_min\t --lcutoff_D\t --lp\t --hp\t --dont_invertT\t --per_lp\t "
      "--pre_hp\t --do_pre_filter\t --do_ctf\t --do_local_ctf\t --kv\t --cs\t --ac\t --write_ccmax_mic\t "
      "--write_pf_mic\t --write_bg_mic\t --write_bgfree_mic\t --write_lsigma_mic\t --write_mic_mask\t "
      "--extract_raw\t --extract_pf\t --write_rejected_box\t --write_star\t --exclusive_picking\t "
      "--excluded_suffix\t --mask_excluded\t --global_excluded_box\t --gid\t \n" +
      std::string(128, '-') + "\n";
  EXPECT_EQ(zk_stdout(zavik_print_valid_options), expected);
}

TEST(Help, TipsAndFullHelp) {
  ASSERT_EQ(ZAVIK_N_TIPS, 9);
  EXPECT_STREQ(ZAVIK_ALL_TIPS[8], "");

  const std::string dash = std::string(127, '-') + "\n";
  std::string expected = dash;
  for (int i = 0; i < 9; ++i) expected += std::string(ZAVIK_ALL_TIPS[i]) + "\n";
  EXPECT_EQ(zk_stdout(zavik_put_all_tips), expected + dash);

  const std::string one = zk_stdout(zavik_put_one_random_tip);
  bool known = false;
  for (int i = 0; i < 9; ++i) known = known || one == dash + ZAVIK_ALL_TIPS[i] + dash;
  EXPECT_TRUE(known) << one;

  // The full help is the usage followed by the tips.
  const std::string full = zk_stdout([] { zavik_help_full("prog"); }), usage = help_text();
  ASSERT_EQ(full.rfind(usage, 0), 0u);
  EXPECT_NE(full.find(ZAVIK_ALL_TIPS[3], usage.size()), std::string::npos);
}

TEST(Help, HelpExitPrintsUsageThenTheReason) {
  EXPECT_FAILS("Usage:(.|\n)*Print full help document\nError in function zavik_help_exit\\(\\), file zavik_help.cpp on "
      "line [0-9]+: No valid files to be processed.! Exit now!\n$",
               zavik_help_exit("prog", "No valid files to be processed."););
}
