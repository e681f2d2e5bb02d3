// The picker from end to end on synthetic micrographs with known particles:
// recall and precision, the two result files agreeing, no result left half
// written, and the same output bytes with and without each speed-up.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "driver/zavik_run.h"
#include "test_util.h"

namespace {

struct Centre {
  int x, y;
  float cc;
};

// Centres of a box file (corner + size/2) or of a .star file's data lines.
std::vector<Centre> read_centres(const std::string& name, bool star) {
  std::vector<Centre> out;
  FILE* fp = fopen(name.c_str(), "r");
  if (!fp) return out;
  char line[1024];
  while (fgets(line, sizeof line, fp)) {
    int x, y, w, h, t;
    float cc, psi;
    if (star) {
      if (sscanf(line, "%d %d %f %d %f", &x, &y, &psi, &t, &cc) == 5) out.push_back({x, y, cc});
    } else if (sscanf(line, "%d %d %d %d %f", &x, &y, &w, &h, &cc) == 5) {
      out.push_back({x + w / 2, y + h / 2, cc});
    } else if (sscanf(line, "%d %d %d %d", &x, &y, &w, &h) == 4) {
      out.push_back({x + w / 2, y + h / 2, 0.0f});
    }
  }
  fclose(fp);
  return out;
}

// Picks within tol pixels of a true centre, each true centre used once.
int matches(const std::vector<Centre>& picks, const std::vector<Centre>& truth, double tol) {
  std::vector<bool> used(truth.size(), false);
  int n = 0;
  for (const Centre& p : picks) {
    int best = -1;
    double bd = tol;
    for (size_t i = 0; i < truth.size(); ++i) {
      const double d = std::hypot(p.x - truth[i].x, p.y - truth[i].y);
      if (!used[i] && d <= bd) {
        bd = d;
        best = (int)i;
      }
    }
    if (best >= 0) {
      used[best] = true;
      ++n;
    }
  }
  return n;
}

// The synthetic micrograph generator and the picker, as programs.
int synth(const std::string& args) {
  return system((std::string(ZAVIK_SYNTH_BIN) + " " + args + " > /dev/null").c_str());
}
int pick(const std::string& args, std::string* out) { return zk_run(std::string(ZAVIK_BIN) + " " + args, out); }

}  // namespace

// 1024 x 1024 at 2 A/px, particles of 160 A: an easy noise level.
TEST(PickEndToEnd, RecallAndPrecisionOnASyntheticMicrograph) {
  ZkTmpDir dir;
  const std::string mic = dir / "mic.mrc", truth = dir / "truth.box", T = dir / "T.mrcs";
  ASSERT_EQ(synth("--out " + mic + " --nx 1024 --ny 1024 --apix 2 --diameter 160 --noise 0.5 --seed 7 --truth " + truth +
                  " --templates " + T + " --ntemplates 4"),
            0);
  const std::vector<Centre> real = read_centres(truth, false);
  ASSERT_GE(real.size(), 15u);
  for (const std::string& opts : {std::string(""), " --T " + T + " --apixT 2 --ang_step 10"}) {
    std::string out;
    ASSERT_EQ(pick("--apixM 2 --diameter 160 --cc_cutoff 0.3" + opts + " " + mic, &out), 0) << out;
    const std::vector<Centre> picks = read_centres(dir / "mic_zavik.box", false);
    const int tp = matches(picks, real, 20.0);
    EXPECT_GE(tp, 0.9 * real.size()) << "recall " << tp << " of " << real.size() << opts;
    EXPECT_GE(tp, 0.9 * picks.size()) << "precision " << tp << " of " << picks.size() << opts;
    // The .star file holds the same particles in the same order, as centres.
    const std::vector<Centre> star = read_centres(dir / "mic_zavik.star", true);
    ASSERT_EQ(star.size(), picks.size());
    for (size_t i = 0; i < star.size(); ++i) {
      EXPECT_NEAR(star[i].x, picks[i].x, 1) << i;
      EXPECT_NEAR(star[i].y, picks[i].y, 1) << i;
      EXPECT_EQ(star[i].cc, picks[i].cc) << i;
    }
  }
}

// A result that cannot be written ends the run with status 1, and the old
// result stays as it was: nothing half written under the final name.
TEST(PickEndToEnd, AFailedResultWriteEndsTheRunAndKeepsTheOldFile) {
  ZkTmpDir dir;
  const std::string mic = dir / "m.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 512 --ny 512 --apix 2 --diameter 150 --seed 3"), 0);
  // A directory where the .star result would go: the final rename fails.
  ASSERT_EQ(mkdir((dir / "m_zavik.star").c_str(), 0755), 0);
  std::string out;
  EXPECT_EQ(pick("--apixM 2 --diameter 150 " + mic, &out), 1);
  EXPECT_NE(out.find("Cannot write to file " + (dir / "m_zavik.star") + ". Permission denied or no space left!"),
            std::string::npos)
      << out;
  struct stat st;
  ASSERT_EQ(stat((dir / "m_zavik.star").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  std::string ls;
  zk_run("ls " + dir.path, &ls);
  EXPECT_EQ(ls.find(".part"), std::string::npos) << ls;  // no temporary file left behind
  // Under --do_unfinished the completed "_zavik.box" marks the micrograph done.
  EXPECT_TRUE(zk_exists(dir / "m_zavik.box"));
}

namespace {

// Runs the picker in this process on the micrographs of dir.
void run_in_process(const std::vector<std::string>& args, const ZkRunShortcuts& shortcuts) {
  std::vector<std::string> words = {"zavik"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  testing::internal::CaptureStdout();
  const int rc = zavik_run((int)words.size(), argv.data(), shortcuts);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(rc, 0);
}

// Every file beside the micrographs in a, byte for byte equal to its twin in b.
void expect_same_outputs(const std::string& a, const std::string& b, int at_least) {
  std::string ls;
  zk_run("cd '" + a + "' && ls *_* ", &ls);
  int n = 0;
  size_t pos = 0;
  while (pos < ls.size()) {
    const size_t eol = ls.find('\n', pos);
    const std::string f = ls.substr(pos, eol - pos);
    pos = eol + 1;
    ++n;
    EXPECT_EQ(zk_slurp(a + "/" + f), zk_slurp(b + "/" + f)) << f;
  }
  EXPECT_GE(n, at_least);
}

}  // namespace

// Each speed-up of the run is switched off in turn; every output file must
// keep its bytes.
TEST(PickEndToEnd, EverySpeedUpKeepsEveryOutputByte) {
  ZkTmpDir dir;
  const std::string T = dir / "T.mrcs";
  ASSERT_EQ(synth("--out " + (dir / "t.mrc") + " --nx 64 --ny 64 --count 0 --contamination 0 --apix 4" +
                  " --diameter 160 --templates " + T + " --ntemplates 3"),
            0);
  struct Variant {
    const char* name;
    void (*set)(ZkRunShortcuts&);
  };
  const Variant variants[] = {
      {"all", [](ZkRunShortcuts&) {}},
      {"no_run_search", [](ZkRunShortcuts& s) { s.run_search = false; }},
      {"no_kept_spectra", [](ZkRunShortcuts& s) { s.search.keep_spectra = false; }},
      {"one_thread", [](ZkRunShortcuts& s) { s.search.host_threads = 1; }},
      {"three_threads", [](ZkRunShortcuts& s) { s.search.host_threads = 3; }},
      {"gpu_batch_1", [](ZkRunShortcuts& s) { s.search.gpu_batch = 1; }},
      {"no_prefetch", [](ZkRunShortcuts& s) { s.prefetch = false; }},
      {"no_plan_cache", [](ZkRunShortcuts&) { zk_fft_set_cache(false); }},
  };
  for (const Variant& v : variants) {
    const std::string d = dir / v.name;
    ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
    for (int i = 1; i <= 3; ++i)
      ASSERT_EQ(synth("--out " + d + "/m" + std::to_string(i) + ".mrc --nx 600 --ny 560 --apix 4 --diameter 160" +
                      " --noise 0.8 --seed " + std::to_string(i)),
                0);
    ZkRunShortcuts shortcuts;
    v.set(shortcuts);
    const std::string mics[] = {d + "/m1.mrc", d + "/m2.mrc", d + "/m3.mrc"};
    run_in_process({"--apixM", "4", "--diameter", "160", "--speed", "2", "--T", T, "--apixT", "4", "--ang_step", "20",
                    "--write_ccmax_mic", "1", "--write_bgfree_mic", "1", mics[0], mics[1], mics[2]},
                   shortcuts);
    zk_fft_set_cache(true);
    if (std::string(v.name) == "all")
      ASSERT_GT(read_centres(d + "/m1_zavik.box", false).size(), 5u);  // something to compare
    else
      expect_same_outputs(dir / "all", d, 3 * 7);
  }
}

// Under --extract_raw every final pick is cut from the raw micrograph into
// "_particles.mrcs", one image a pick, of the box size.
TEST(PickEndToEnd, ExtractionCutsEveryPick) {
  ZkTmpDir dir;
  const std::string mic = dir / "e.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 5"), 0);
  std::string out;
  ASSERT_EQ(pick("--apixM 2 --diameter 150 --boxsize 80 --cc_cutoff 0.3 --extract_raw 1 " + mic, &out), 0) << out;
  const size_t picks = read_centres(dir / "e_zavik.box", false).size();
  ASSERT_GT(picks, 0u);
  const std::string stack = zk_slurp(dir / "e_particles.mrcs");
  ASSERT_GE(stack.size(), 1024u);
  int32_t dims[4];
  memcpy(dims, stack.data(), sizeof dims);
  EXPECT_EQ(std::vector<int32_t>(dims, dims + 4), (std::vector<int32_t>{80, 80, (int32_t)picks, 2}));  // floats
  EXPECT_EQ(stack.size(), 1024u + picks * 80 * 80 * 4);
}

// A full disk, played by a file size limit: the run ends with status 1 and
// leaves no result that --do_unfinished would take as finished.
TEST(PickEndToEnd, AFullDiskEndsTheRunWithoutAResult) {
  ZkTmpDir dir;
  const std::string mic = dir / "f.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 9"), 0);
  std::string out;
  // Writes beyond 1 KiB fail with EFBIG instead of killing the process.
  const int rc = zk_run("bash -c \"trap '' XFSZ; ulimit -f 1; exec " + std::string(ZAVIK_BIN) +
                            " --apixM 2 --diameter 150 --cc_cutoff 0.05 " + mic + "\"",
                        &out);
  EXPECT_EQ(rc, 1) << out;
  EXPECT_NE(out.find("Permission denied or no space left!"), std::string::npos) << out;
  EXPECT_FALSE(zk_exists(dir / "f_zavik.box"));
  EXPECT_FALSE(zk_exists(dir / "f_zavik.star"));
}

// A micrograph with NaN samples (a broken motion correction, say) gives empty
// results and a warning; the run goes on, and the next micrograph's results
// are those of a run without it.
TEST(PickEndToEnd, AMicrographWithNaNSamplesGivesEmptyResultsAndTheRunGoesOn) {
  ZkTmpDir dir;
  const std::string bad = dir / "bad.mrc", good = dir / "good.mrc", alone = dir / "alone";
  ASSERT_EQ(synth("--out " + bad + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --mode 2 --seed 3"), 0);
  ASSERT_EQ(synth("--out " + good + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 4"), 0);
  ASSERT_EQ(mkdir(alone.c_str(), 0755), 0);
  ASSERT_EQ(system(("cp " + good + " " + alone + "/good.mrc").c_str()), 0);
  // A stripe of NaN floats in the first rows of samples (after the 1024-byte head).
  FILE* fp = fopen(bad.c_str(), "r+b");
  ASSERT_NE(fp, nullptr);
  const std::vector<float> stripe(3000, NAN);
  fseek(fp, 1024 + 4 * 10000, SEEK_SET);
  ASSERT_EQ(fwrite(stripe.data(), sizeof(float), stripe.size(), fp), stripe.size());
  fclose(fp);

  std::string out;
  ASSERT_EQ(pick("--apixM 2 --diameter 150 " + bad + " " + good, &out), 0) << out;
  EXPECT_NE(out.find("Warning: micrograph " + bad + " holds NaN or infinite samples (3000 of them)"),
            std::string::npos)
      << out;
  EXPECT_TRUE(zk_exists(dir / "bad_zavik.box"));
  EXPECT_EQ(zk_slurp(dir / "bad_zavik.box"), "");
  EXPECT_TRUE(read_centres(dir / "bad_zavik.star", true).empty());

  ASSERT_EQ(pick("--apixM 2 --diameter 150 " + alone + "/good.mrc", &out), 0) << out;
  EXPECT_GT(read_centres(dir / "good_zavik.box", false).size(), 3u);
  EXPECT_EQ(zk_slurp(dir / "good_zavik.box"), zk_slurp(alone + "/good_zavik.box"));
  EXPECT_EQ(zk_slurp(dir / "good_zavik.star"), zk_slurp(alone + "/good_zavik.star"));
}
