#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "core/str_utils.h"
#include "core/txt_file.h"
#include "test_util.h"

namespace {

bool all_zero(const char* buf, size_t from) {
  for (size_t i = from; i < ZK_TXT_LEN; ++i)
    if (buf[i] != 0) return false;
  return true;
}

}  // namespace

TEST(StrUtils, KeywordAndNullWords) {
  const std::pair<const char*, int> apix[] = {{"--apixM", 1}, {"-APIXM", 1},    {"apixM", 0},
                                              {"---apixM", 0}, {"--apixM2", 0}, {"--apix", 0}};
  for (auto& w : apix) EXPECT_EQ(keywd_cmp(w.first, "apixM"), w.second) << w.first;
  EXPECT_EQ(keywd_cmp("--kv", "kV"), 1);
  for (const char* w : {"-h", "--h", "-help", "--help", "--HELP", "-H", "--Help"}) EXPECT_EQ(is_keywd_help(w), 1) << w;
  for (const char* w : {"h", "help", "---help", "--hel", "-hh", "--helpme"}) EXPECT_EQ(is_keywd_help(w), 0) << w;
  for (const char* t : {"NULL", "null", "Null", "NONE", "none", "", "\n", "\nabc"}) EXPECT_EQ(is_str_null(t), 1) << t;
  for (const char* t : {" ", "NULL ", "NULLS", "nul", "a"}) EXPECT_EQ(is_str_null(t), 0) << "[" << t << "]";
}

TEST(StrUtils, CopyClearsAllBytesAndCutsAt1023) {
  char buf[ZK_TXT_LEN];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(strlcpy(buf, "abc"), 3u);
  EXPECT_STREQ(buf, "abc");
  EXPECT_TRUE(all_zero(buf, 3));
  EXPECT_EQ(strlcpy(buf, std::string(2000, 'q').c_str()), 1023u);
  EXPECT_EQ(buf[1023], 0);
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(empty_txt_line(buf), 0);
  EXPECT_TRUE(all_zero(buf, 0));
}

TEST(StrUtils, SplitInPlace) {
  char text[] = ",,a,b;;c,";
  char* words[8];
  ASSERT_EQ(strnsplit_inplace(text, ",;", words, 8), 3);
  EXPECT_STREQ(words[0], "a");
  EXPECT_STREQ(words[1], "b");
  EXPECT_STREQ(words[2], "c");
  char line[] = "  12\t 34\r\n\v56 \f78 90\n";
  ASSERT_EQ(strnsplit_inplace_byspace(line, words, 3), 3);  // more words than room: max
  EXPECT_STREQ(words[0], "12");
  EXPECT_STREQ(words[1], "34");
  EXPECT_STREQ(words[2], "56");
  char empty[] = "", blanks[] = " \t \n", some[] = "a b";
  EXPECT_EQ(strnsplit_inplace(empty, ",", words, 8), 0);
  EXPECT_EQ(strnsplit_inplace_byspace(blanks, words, 8), 0);
  EXPECT_EQ(strnsplit_inplace(some, "", words, 8), 0);
  EXPECT_EQ(strnsplit_inplace(nullptr, ",", words, 8), 0);
  EXPECT_EQ(zk_stdout([&] { EXPECT_EQ(strnsplit_inplace(some, " ", nullptr, 8), 0); }),
            "Error in function strnsplit()!Memory for 'dest' not allocated.\n");
}

TEST(StrUtils, SuffixesAndOutputNames) {
  const std::pair<const char*, int> mics[] = {{"a.mrc", 4}, {"a.mrcs", 5}, {"a.MRC", 0},
                                              {"a.tif", 0}, {"mrc", 0},    {".mrcs", 5}};
  for (auto& m : mics) EXPECT_EQ(get_micrograph_suffixn(m.first), m.second) << m.first;
  EXPECT_EQ(get_file_suffixn("a_rubbish.box", ".box"), 4);
  EXPECT_EQ(get_file_suffixn(".box", ".box"), 0);  // must be longer than the suffix
  EXPECT_EQ(get_file_suffixn("a.star", ".box"), 0);

  const struct {
    int (*fn)(char*, const char*, const char*);
    const char *mic, *text, *want;
  } names[] = {{set_outname_by_suffix, "mic.mrc", "_zavik.box", "mic_zavik.box"},
               {set_outname_by_suffix, "stack.mrcs", "_zavik.box", "stack_zavik.box"},
               {set_outname_by_suffix, "mic.tif", "_zavik.box", "mic.tif_zavik.box"},
               {set_outname_by_suffix, "/data/x/mic0002.mrc", "_rubbish.box", "/data/x/mic0002_rubbish.box"},
               {set_outname_by_insertion, "/d/a.mrcs", "_ptcls", "/d/a_ptcls.mrcs"},
               {set_outname_by_insertion, "/d/a.img", "_ptcls", "/d/a.img_ptcls"}};
  char out[ZK_TXT_LEN];
  for (auto& n : names) {
    memset(out, 'x', sizeof out);
    EXPECT_EQ(n.fn(out, n.mic, n.text), 0);
    EXPECT_STREQ(out, n.want);
    EXPECT_TRUE(all_zero(out, strlen(out))) << n.want << ": the builder clears the whole buffer";
  }
  for (int shrink : {1, 4, 8}) {
    EXPECT_EQ(set_name_shrinked_box(out, "/data/a.mrc", shrink), 0);
    EXPECT_STREQ(out, "/data/a_nonunique.box");
  }
  for (const char* name : {"list.txt", "list"}) {
    EXPECT_EQ(replace_file_suffix(out, ".star", name, ".txt"), 0);
    EXPECT_STREQ(out, "list.star");
  }
  // 1015 + 6 characters fit; an output name beyond 1023 ends the run.
  std::string mic = std::string(1015, 'm') + ".mrc";
  EXPECT_EQ(set_outname_by_suffix(out, mic.c_str(), "_zavik"), 0);
  EXPECT_FAILS("longer than 1023 characters(.|\n)*file name too long! Exit now!",
               set_outname_by_suffix(out, mic.c_str(), "_nonunique.box"););
}

TEST(TxtFile, ReadOneLineAndFindText) {
  ZkTmpDir dir;
  std::string name = dir / "t.txt";
  zk_put(name, "first line\nsecond KEY here\nthird KEY\n" + std::string(1500, 'z') + "\n");
  FILE* f = fopen(name.c_str(), "r");
  char line[ZK_TXT_LEN];
  empty_txt_line(line);
  EXPECT_EQ(read_one_line(line, f), 0);
  EXPECT_STREQ(line, "first line\n");
  EXPECT_EQ(FILE_find_str_line(f, "KEY"), 11);  // from the start of the stream
  empty_txt_line(line);
  read_one_line(line, f);
  EXPECT_STREQ(line, "second KEY here\n");
  empty_txt_line(line);
  read_one_line(line, f);
  read_one_line(line, f);  // a long line is cut after 1023 characters
  EXPECT_EQ(strlen(line), 1023u);
  EXPECT_EQ(FILE_find_str_line(f, "absent"), -1);
  fclose(f);

  EXPECT_EQ(f_Nfind_str_line(name.c_str(), "KEY", 5), 2);
  EXPECT_EQ(f_Nfind_str_line(name.c_str(), "third", 2), 3);  // lines 1 .. max + 1
  EXPECT_EQ(f_Nfind_str_line(name.c_str(), "third", 1), -1);
  std::string missing = dir / "none.txt";
  EXPECT_FAILS("Cannot open file .*none.txt. Permission denied or wrong file name.\nError in function f_Nfind_str_line\\(\\), "
      "file txt_file.cpp on line [0-9]+: open file failed.! Exit now!",
               f_Nfind_str_line(missing.c_str(), "x", 3););
}

TEST(TxtFile, AccessChecks) {
  ZkTmpDir dir;
  std::string present = dir / "ex_zavik.box", missing = dir / "no.box";
  zk_put(present, "");
  for (const char* modes : {"FR", "", "fw"}) EXPECT_EQ(check_file_access(present.c_str(), modes), 0) << modes;
  // One warning, that of 'F' (its text is checked end to end), and the test
  // stops there.
  std::string out = zk_stdout([&] { EXPECT_EQ(check_file_access(missing.c_str(), "FR"), -1); });
  EXPECT_NE(out.find("does NOT exist!"), std::string::npos) << out;
  EXPECT_EQ(out.find("Warning", out.find("Warning") + 1), std::string::npos) << out;

  out = zk_stdout([&] { EXPECT_EQ(check_file_access(present.c_str(), "Fq"), -1); });
  EXPECT_NE(out.find("\x1b[43m\x1b[1m\x1b[5mError in function check_file_access(), file txt_file.cpp on line "),
            std::string::npos);
  EXPECT_NE(out.find(":  the mode 'q' for checking access of file " + present + " are NOT recoganized!\x1b[m\n\n"),
            std::string::npos);

  // A finished output of any length, even empty, marks its micrograph done.
  EXPECT_EQ(is_file_zavik_done(present.c_str()), 1);
  EXPECT_EQ(is_file_zavik_done(missing.c_str()), 0);
  if (!zk_running_as_root()) {
    chmod(present.c_str(), 0);
    out = zk_stdout([&] { EXPECT_EQ(check_file_access(present.c_str(), "FR"), -1); });
    EXPECT_TRUE(zk_has(out, "are NOT readable! Automatically ignored!")) << out;
    EXPECT_EQ(is_file_zavik_done(present.c_str()), 0);
  }
}
