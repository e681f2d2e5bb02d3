// Runs over many micrographs: the picker's run summary (a line per
// micrograph, done, skipped or failed, readable by RELION), and jobs of two
// MPI ranks that write exactly what one process writes.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "driver/zavik_summary.h"
#include "parallel/zk_parallel.h"
#include "test_util.h"

namespace {

const std::string ENV = "OMP_WAIT_POLICY=passive ";

int zsynth(const std::string& args) {
  return system((std::string(ZAVIK_SYNTH_BIN) + " " + args + " > /dev/null").c_str());
}
int csynth(const std::string& args) {
  return system((ENV + CTF_SYNTH_BIN + " " + args + " > /dev/null").c_str());
}

// The data lines of a STAR loop, split at blanks outside double quotes.
std::vector<std::vector<std::string>> rows_of(const std::string& text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream is(text);
  std::string line;
  while (std::getline(is, line)) {
    if (line.empty() || line[0] == '_' || line[0] == '#' || line.rfind("data_", 0) == 0 || line.rfind("loop_", 0) == 0)
      continue;
    std::vector<std::string> w;
    std::string cur;
    bool quoted = false, any = false;
    for (char c : line) {
      if (c == '"') {
        quoted = !quoted;
        any = true;
      } else if (c == ' ' && !quoted) {
        if (any) w.push_back(cur);
        cur.clear();
        any = false;
      } else {
        cur += c;
        any = true;
      }
    }
    if (any) w.push_back(cur);
    rows.push_back(w);
  }
  return rows;
}

// The scores of a box file, fifth column.
std::vector<double> box_scores(const std::string& path) {
  std::vector<double> v;
  std::istringstream is(zk_slurp(path));
  std::string line;
  while (std::getline(is, line)) {
    int x, y, w, h;
    double cc;
    if (sscanf(line.c_str(), "%d %d %d %d %lf", &x, &y, &w, &h, &cc) == 5) v.push_back(cc);
  }
  return v;
}

// Every plain file of a folder by name, with its bytes.
std::map<std::string, std::string> files_of(const std::string& dir) {
  std::map<std::string, std::string> out;
  DIR* d = opendir(dir.c_str());
  if (!d) return out;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') out[e->d_name] = zk_slurp(dir + "/" + e->d_name);
  closedir(d);
  return out;
}

// A summary without its seconds column, which differs from run to run.
std::string without_seconds(const std::string& text) {
  std::string out;
  for (const auto& r : rows_of(text)) {
    for (size_t k = 0; k < r.size(); ++k)
      if (k != 5) out += r[k] + " ";
    out += "\n";
  }
  return out;
}

#if defined(ZAVIK_MPIEXEC)
// A job of n ranks on this machine, whoever runs it.  Open MPI's own blocks,
// which live until the process ends, are no leaks of the programs.
std::string mpirun(int n) {
  return "ASAN_OPTIONS=detect_leaks=0 OMP_NUM_THREADS=1 " + ENV + ZAVIK_MPIEXEC +
         " --oversubscribe --allow-run-as-root -np " + std::to_string(n) + " ";
}
#endif

void skip_without_mpi() {
#if !defined(ZAVIK_MPIEXEC)
  GTEST_SKIP() << "built without MPI";
#else
  if (!zk_par_compiled()) GTEST_SKIP() << "built without MPI";
#endif
}

}  // namespace

// Words of the summary: blanks and empty strings go in double quotes, and a
// median of an even count is the mean of the middle two.
TEST(RunSummary, WordsMeansAndMedians) {
  const std::vector<std::pair<std::string, std::string>> words = {
      {"m.mrc", "m.mrc"}, {"", "\"\""}, {"a b", "\"a b\""}, {"say \"x\"", "\"say 'x'\""}, {"t\tu", "\"t u\""}};
  for (const auto& w : words) EXPECT_EQ(zavik_star_word(w.first), w.second) << w.first;
  struct Case {
    std::vector<float> v;
    double mean, median;
  };
  const std::vector<Case> cases = {{{}, 0, 0}, {{0.5f}, 0.5, 0.5}, {{0.9f, 0.1f, 0.4f}, 1.4 / 3, 0.4},
                                   {{0.25f, 1.0f, 0.5f, 0.75f}, 0.625, 0.625}};
  for (const Case& c : cases) {
    EXPECT_NEAR(zavik_mean(c.v), c.mean, 1e-7);
    EXPECT_NEAR(zavik_median(c.v), c.median, 1e-7);
  }
  ZkMicSummary m;
  m.name = "dir with blank/m.mrc";
  m.status = ZkMicStatus::Failed;
  m.reason = "Cannot open file m.mrc.";
  m.seconds = 1.25;
  EXPECT_EQ(zavik_summary_line(m), "\"dir with blank/m.mrc\" 0 0.000000 0.000000 0.0000 1.250 failed "
                                   "\"Cannot open file m.mrc.\"\n");
}

// Alone, a process is rank 0 of 1, owns every micrograph, and gets its own
// lines back in list order, those of equal place in the order they came.
TEST(RunSummary, OneRankOwnsTheListAndOrdersItsLines) {
  EXPECT_EQ(zk_par_size(), 1);
  EXPECT_EQ(zk_par_rank(), 0);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(zk_par_mine(i));
  const std::vector<ZkParItem> got = zk_par_gather({{2, "c"}, {-1, "z"}, {0, "a"}, {2, "d"}, {1, "b"}});
  std::string order;
  for (const ZkParItem& it : got) order += it.text;
  EXPECT_EQ(order, "zabcd");
  EXPECT_EQ(zk_par_sum(7), 7);
}

// A run over two micrographs and an empty file, then again under
// --do_unfinished: done, failed with its reason, skipped as finished.
TEST(RunSummary, LinesForDoneSkippedAndFailedMicrographs) {
  ZkTmpDir dir;
  for (int i = 0; i < 2; ++i)
    ASSERT_EQ(zsynth("--out " + dir / ("m" + std::to_string(i) + ".mrc") +
                     " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed " + std::to_string(4 + i)),
              0);
  zk_put(dir / "bad.mrc", "");
  const std::string args = "--apixM 2 --diameter 150 --summary " + dir / "run.star " + dir / "m0.mrc " +
                           dir / "bad.mrc " + dir / "m1.mrc";
  std::string out;
  ASSERT_EQ(zk_run(std::string(ZAVIK_BIN) + " " + args, &out), 0) << out;
  EXPECT_TRUE(zk_has(out, "User input parameters:\n       --apixM              2.000\n       --diameter           "
                          "150.00\n       --summary            " + dir / "run.star\n"))
      << out;
  EXPECT_TRUE(zk_has(out, "       --gid                  0\n       --summary              " + dir / "run.star\n"))
      << out;
  const std::string text = zk_slurp(dir / "run.star");
  EXPECT_EQ(text.find("\n# version 30001\n\ndata_zavik_summary\n\nloop_\n_rlnMicrographName #1\n"
                      "_zavikNumberOfPicks #2\n_zavikMeanScore #3\n_zavikMedianScore #4\n_zavikRejectedShare #5\n"
                      "_zavikSeconds #6\n_zavikStatus #7\n_zavikReason #8\n"),
            0u)
      << text;
  auto rows = rows_of(text);
  ASSERT_EQ(rows.size(), 3u) << text;
  for (int i : {0, 2}) {
    const auto& r = rows[i];
    ASSERT_EQ(r.size(), 8u);
    const std::string mic = dir / (i == 0 ? "m0" : "m1");
    EXPECT_EQ(r[0], mic + ".mrc");
    std::vector<double> s = box_scores(mic + "_zavik.box");
    ASSERT_GT(s.size(), 2u);
    EXPECT_EQ(atoi(r[1].c_str()), (int)s.size());
    double sum = 0;
    for (double x : s) sum += x;
    std::sort(s.begin(), s.end());
    const double median = s.size() % 2 ? s[s.size() / 2] : (s[s.size() / 2 - 1] + s[s.size() / 2]) / 2;
    EXPECT_NEAR(atof(r[2].c_str()), sum / s.size(), 2e-6);
    EXPECT_NEAR(atof(r[3].c_str()), median, 2e-6);
    const double share = atof(r[4].c_str());
    EXPECT_TRUE(share >= 0.0 && share < 0.5) << share;  // some ice cells, most of the image free
    EXPECT_GE(atof(r[5].c_str()), 0.0);
    EXPECT_EQ(r[6], "done");
    EXPECT_EQ(r[7], "-");
  }
  EXPECT_EQ(rows[1], (std::vector<std::string>{dir / "bad.mrc", "0", "0.000000", "0.000000", "0.0000", "0.000",
                                               "failed",
                                               "Micrograph " + dir / "bad.mrc" +
                                                   " is too short for an MRC file: 0 bytes, at least 1024 needed."}));
  EXPECT_FALSE(zk_exists(dir / "run.star.part"));

  ASSERT_EQ(zk_run(std::string(ZAVIK_BIN) + " --do_unfinished 1 " + args, &out), 0) << out;
  rows = rows_of(zk_slurp(dir / "run.star"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0][6], "skipped");
  EXPECT_EQ(rows[1][6], "failed");
  EXPECT_EQ(rows[2][6], "skipped");
  EXPECT_EQ(rows[2][1], "0");

  // RELION reads the names, counts and states; the reason, last, is one
  // word to it.
  if (zk_run("command -v relion_star_printtable", nullptr) != 0) GTEST_SKIP() << "RELION is not installed";
  ASSERT_EQ(zk_run("relion_star_printtable " + dir / "run.star" +
                       " data_zavik_summary _rlnMicrographName _zavikNumberOfPicks _zavikStatus",
                   &out),
            0)
      << out;
  EXPECT_EQ(out, dir / "m0.mrc 0 skipped\n" + dir / "bad.mrc 0 failed\n" + dir / "m1.mrc 0 skipped\n");
}

// Two ranks share four micrographs (one of them unusable): every result,
// the summary (but its seconds) and the banner's list are those of one
// process, every rank's lines carry the rank, and rank 0 closes.
TEST(ScaleOut, TwoPickerRanksWriteWhatOneProcessWrites) {
  skip_without_mpi();
#if defined(ZAVIK_MPIEXEC)
  ZkTmpDir dir;
  for (const char* sub : {"one", "two"}) {
    ASSERT_EQ(system(("mkdir " + dir / sub).c_str()), 0);
    for (int i = 0; i < 3; ++i)
      ASSERT_EQ(zsynth("--out " + dir / sub + "/m" + std::to_string(i) +
                       ".mrc --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed " + std::to_string(4 + i)),
                0);
    zk_put(dir / sub + "/bad.mrc", "");
  }
  const std::string args =
      " --apixM 2 --diameter 150 --write_bgfree_mic --summary s.star m0.mrc bad.mrc m1.mrc m2.mrc > log.txt 2>&1";
  ASSERT_EQ(system(("cd " + dir / "one && " + ENV + ZAVIK_BIN + args).c_str()), 0);
  ASSERT_EQ(system(("cd " + dir / "two && " + mpirun(2) + ZAVIK_BIN + args).c_str()), 0)
      << zk_slurp(dir / "two/log.txt");
  auto one = files_of(dir / "one"), two = files_of(dir / "two");
  const std::string log = two["log.txt"];
  EXPECT_EQ(without_seconds(two["s.star"]), without_seconds(one["s.star"]));
  for (auto* f : {&one, &two}) {
    f->erase("log.txt");
    f->erase("s.star");
  }
  ASSERT_EQ(one.size(), 22u);  // 4 inputs, 3 x (box, star, candidates, rejected box and star, bgfree)
  for (const auto& kv : one) EXPECT_TRUE(two.count(kv.first) && two[kv.first] == kv.second) << kv.first;
  EXPECT_EQ(one.size(), two.size());

  // Micrograph i is rank (i mod 2)'s: m0 and m1 rank 0's, bad.mrc and m2 rank 1's.
  EXPECT_TRUE(zk_has(log, "[rank 0] Reading File m0.mrc ...\n")) << log;
  EXPECT_TRUE(zk_has(log, "[rank 0] Reading File m1.mrc ...\n")) << log;
  EXPECT_TRUE(zk_has(log, "[rank 1] Reading File m2.mrc ...\n")) << log;
  EXPECT_TRUE(zk_has(log, "[rank 1] \x1b[41m\x1b[1m\x1b[5mMicrograph bad.mrc is too short")) << log;
  EXPECT_FALSE(zk_has(log, "[rank 1] Reading File m1.mrc"));
  EXPECT_TRUE(zk_has(log, "[rank 0] Finished 4 files; 1 micrographs could not be picked and have no results:\n"
                          "[rank 0]     Micrograph bad.mrc is too short"))
      << log;
  EXPECT_TRUE(zk_has(log, "[rank 1] Rank 1 of 2 finished its share of the 4 files.\n")) << log;
  EXPECT_FALSE(zk_has(log, "[rank 1] Finished"));
#endif
}

// Two ranks of the CTF engine: the same pictures, logs and summary as one
// process, with every micrograph once and in list order, and no part left.
TEST(ScaleOut, TwoCtfRanksWriteWhatOneProcessWrites) {
  skip_without_mpi();
#if defined(ZAVIK_MPIEXEC)
  ZkTmpDir dir;
  for (const char* sub : {"one", "two"}) {
    ASSERT_EQ(system(("mkdir " + dir / sub).c_str()), 0);
    for (int i = 0; i < 3; ++i)
      ASSERT_EQ(csynth("--out " + dir / sub + "/m" + std::to_string(i) + ".mrc --nx 1024 --ny 1024 --defu " +
                       std::to_string(12000 + 2000 * i) + " --seed " + std::to_string(20 + i)),
                0);
  }
  const std::string args = " --apix 1 --boxsize 512 --ctfstar k m0.mrc m1.mrc m2.mrc > log.txt 2>&1";
  ASSERT_EQ(system(("cd " + dir / "one && " + ENV + KESMAR_BIN + args).c_str()), 0);
  ASSERT_EQ(system(("cd " + dir / "two && " + mpirun(2) + KESMAR_BIN + args).c_str()), 0)
      << zk_slurp(dir / "two/log.txt");
  auto one = files_of(dir / "one"), two = files_of(dir / "two");
  const std::string log = two["log.txt"];
  one.erase("log.txt");
  two.erase("log.txt");
  EXPECT_EQ(one.size(), 13u);  // 3 x (mrc, ctf, pow, log) + the summary
  for (const auto& kv : one) EXPECT_TRUE(two.count(kv.first) && two[kv.first] == kv.second) << kv.first;
  EXPECT_EQ(one.size(), two.size());  // no "k.star.rank1" left
  const auto rows = rows_of(two["k.star"]);
  ASSERT_EQ(rows.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(rows[i][0], "m" + std::to_string(i) + ".mrc");
  EXPECT_TRUE(zk_has(log, "[rank 1] Reading file: m1.mrc\n")) << log;
  EXPECT_TRUE(zk_has(log, "[rank 0] All 2 ranks finished: 3 of the 3 micrographs have their CTF.\n")) << log;
#endif
}

// A rank that cannot go on ends the job with status 1 and names itself and
// its micrograph.
TEST(ScaleOut, AFailingRankEndsTheJob) {
  skip_without_mpi();
#if defined(ZAVIK_MPIEXEC)
  ZkTmpDir dir;
  ASSERT_EQ(zsynth("--out " + dir / "m0.mrc --nx 512 --ny 512 --apix 2 --diameter 150 --seed 4"), 0);
  ASSERT_EQ(zsynth("--out " + dir / "m1.mrc --nx 640 --ny 512 --apix 2 --diameter 150 --seed 5"), 0);
  std::string out;
  EXPECT_EQ(zk_run("cd " + dir.path + " && " + mpirun(2) + ZAVIK_BIN + " --apixM 2 --diameter 150 m0.mrc m1.mrc",
                   &out),
            1);
  EXPECT_TRUE(zk_has(out, "[rank 1] Rank 1 of 2 failed on micrograph m1.mrc; the job ends with status 1.\n")) << out;
#endif
}
